#include "node/web/wave_ring.h"

#include <algorithm>

namespace qv::node::web {

void WaveRing::set_rate(int rate) {
    const std::uint64_t samples = std::max<std::uint64_t>(
        1, static_cast<std::uint64_t>(std::max(rate, 0)) * COLUMN_MS / 1000);
    filled_ = filled_ * samples / column_samples_;
    column_samples_ = samples;
}

void WaveRing::add(const std::int16_t* samples, std::size_t count) {
    while (count > 0) {
        const auto part =
            static_cast<std::size_t>(std::min<std::uint64_t>(count, column_samples_ - filled_));
        add_part(samples, part);
        samples += part;
        count -= part;
    }
}

void WaveRing::add_part(const std::int16_t* samples, std::size_t count) {
    std::int16_t lowest = lowest_;
    std::int16_t highest = highest_;
    for (std::size_t i = 0; i < count; ++i) {
        lowest = std::min(lowest, samples[i]);
        highest = std::max(highest, samples[i]);
    }
    lowest_ = lowest;
    highest_ = highest;
    filled_ += count;
    if (filled_ == column_samples_) {
        finish_column();
    }
}

void WaveRing::add_silence(std::uint64_t samples) {
    const std::uint64_t to_end = column_samples_ - filled_;
    if (samples < to_end) {
        filled_ += samples;
        return;
    }
    finish_column();
    samples -= to_end;
    // More columns than these would only overwrite each other.
    const std::uint64_t whole = samples / column_samples_;
    const std::uint64_t skipped = whole > COLUMNS ? whole - COLUMNS : 0;
    end_.store(end_.load(std::memory_order_relaxed) + skipped, std::memory_order_release);
    for (std::uint64_t i = skipped; i < whole; ++i) {
        finish_column();
    }
    filled_ = samples % column_samples_;
}

void WaveRing::finish_column() {
    const std::uint64_t end = end_.load(std::memory_order_relaxed);
    const auto lowest = static_cast<std::uint8_t>(lowest_ >> 8);
    const auto highest = static_cast<std::uint8_t>(highest_ >> 8);
    columns_[end % COLUMNS].store(static_cast<std::uint16_t>(lowest | highest << 8),
                                  std::memory_order_relaxed);
    end_.store(end + 1, std::memory_order_release);
    lowest_ = 0;
    highest_ = 0;
    filled_ = 0;
}

std::string WaveRing::columns(std::uint64_t begin, std::uint64_t end) const {
    std::string bytes;
    bytes.reserve(2 * (end - begin));
    for (std::uint64_t i = begin; i < end; ++i) {
        const std::uint16_t column = columns_[i % COLUMNS].load(std::memory_order_relaxed);
        bytes += static_cast<char>(column & 0xFF);
        bytes += static_cast<char>(column >> 8);
    }
    return bytes;
}

}  // namespace qv::node::web
