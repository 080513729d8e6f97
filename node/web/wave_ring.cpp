#include "node/web/wave_ring.h"

#include <algorithm>

namespace qv::node::web {

void WaveRing::add(const Wave& wave) {
    std::uint64_t end = end_.load(std::memory_order_relaxed);
    for (std::size_t i = 0; i < wave.count; ++i) {
        const auto lowest = static_cast<std::uint8_t>(wave.columns[i].lowest);
        const auto highest = static_cast<std::uint8_t>(wave.columns[i].highest);
        columns_[end++ % COLUMNS].store(static_cast<std::uint16_t>(lowest | highest << 8),
                                        std::memory_order_relaxed);
    }
    end_.store(end, std::memory_order_release);
    if (wave.silent != 0) {
        add_silence(wave.silent);
    }
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

}  // namespace qv::node::web
