#include "node/web/wave_ring.h"

#include <algorithm>
#include <limits>

namespace qv::node::web {

void WaveRing::add(const WaveColumn* columns, std::size_t count) {
    std::uint64_t end = end_.load(std::memory_order_relaxed);
    for (std::size_t i = 0; i < count; ++i) {
        const auto lowest = static_cast<std::uint8_t>(columns[i].lowest);
        const auto highest = static_cast<std::uint8_t>(columns[i].highest);
        columns_[end++ % COLUMNS].store(static_cast<std::uint16_t>(lowest | highest << 8),
                                        std::memory_order_relaxed);
    }
    end_.store(end, std::memory_order_release);
}

// More columns than there are would only overwrite each other.
void WaveRing::add_silence(std::uint64_t columns) {
    std::uint64_t end = end_.load(std::memory_order_relaxed) + columns;
    for (std::uint64_t i = end - std::min(columns, COLUMNS); i < end; ++i) {
        columns_[i % COLUMNS].store(0, std::memory_order_relaxed);
    }
    end_.store(end, std::memory_order_release);
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

void WaveGatherer::set_rate(int rate) {
    const int samples = std::clamp<int>(rate / (1000 / WaveRing::COLUMN_MS), 1,
                                        std::numeric_limits<std::uint16_t>::max());
    if (has_rate()) {
        filled_ = static_cast<std::uint16_t>(std::uint64_t{filled_} *
                                             static_cast<std::uint64_t>(samples) / column_samples_);
    }
    column_samples_ = static_cast<std::uint16_t>(samples);
}

void WaveGatherer::add(const std::int16_t* samples, std::size_t count, WaveRing& ring) {
    while (count > 0) {
        const auto part = std::min<std::size_t>(count, std::size_t{column_samples_} - filled_);
        std::int16_t lowest = std::numeric_limits<std::int16_t>::max();
        std::int16_t highest = std::numeric_limits<std::int16_t>::min();
        for (std::size_t i = 0; i < part; ++i) {
            lowest = std::min(lowest, samples[i]);
            highest = std::max(highest, samples[i]);
        }
        widen(lowest, highest, part);
        if (filled_ == column_samples_) {
            finish_column(ring);
        }
        samples += part;
        count -= part;
    }
}

void WaveGatherer::finish_column(WaveRing& ring) {
    gathered_[count_++] = {static_cast<std::int8_t>(lowest_ >> 8),
                           static_cast<std::int8_t>(highest_ >> 8)};
    lowest_ = 0;
    highest_ = 0;
    filled_ = 0;
    if (count_ == MOST_GATHERED) {
        flush(ring);
    }
}

void WaveGatherer::flush(WaveRing& ring) {
    if (count_ != 0) {
        ring.add(gathered_.data(), count_);
        count_ = 0;
    }
}

void WaveGatherer::add_silence(std::uint64_t samples, WaveRing& ring) {
    if (!has_rate()) {
        return;
    }
    const std::uint64_t to_end = column_samples_ - filled_;
    if (samples < to_end) {
        filled_ = static_cast<std::uint16_t>(filled_ + samples);
        return;
    }
    finish_column(ring);
    flush(ring);
    samples -= to_end;
    ring.add_silence(samples / column_samples_);
    filled_ = static_cast<std::uint16_t>(samples % column_samples_);
}

}  // namespace qv::node::web
