// Gathers the shape of one side's audio for drawing: the lowest and the highest sample of every
// 50 ms, which is a column of the picture. Pauses and gaps are columns without sound.
//
// It is small, because its bytes are fetched for every packet. Belongs to one thread.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>

#include "node/calls/level_meter.h"

namespace qv::node {

// Lowest and highest sample, divided by 256.
struct WaveColumn {
    std::int8_t lowest = 0;
    std::int8_t highest = 0;
};

// Columns in order: `count` ones, then `silent` ones without sound.
struct Wave {
    const WaveColumn* columns;
    std::size_t count;
    std::uint64_t silent;
};

class WaveGatherer {
  public:
    static constexpr int COLUMN_MS = 50;

    // Whether the rate is known.
    bool has_rate() const { return column_samples_ != 0; }
    // The audio that follows has this rate, in Hz. Call it before the first audio.
    void set_rate(int rate);

    // How many samples the present column still takes.
    std::size_t room() const { return std::size_t{column_samples_} - filled_; }
    // Adds at most room() samples with these extremes.
    void add(std::size_t count, Extremes extremes) {
        lowest_ = std::min(lowest_, extremes.lowest);
        highest_ = std::max(highest_, extremes.highest);
        filled_ = static_cast<std::uint16_t>(filled_ + count);
        if (filled_ == column_samples_) {
            finish_column();
        }
    }
    // Adds samples without sound. Returns how many columns of them follow the one that was begun;
    // they must be taken at once.
    std::uint64_t add_silence(std::uint64_t samples);

    // Whether the columns must be taken before more is added.
    bool is_full() const { return count_ == MOST_COLUMNS; }
    // Returns the complete columns, which it then forgets. They are valid until more is added.
    Wave take(std::uint64_t silent) {
        const Wave wave{columns_.data(), count_, silent};
        count_ = 0;
        return wave;
    }

  private:
    static constexpr std::size_t MOST_COLUMNS = 24;

    void finish_column();

    std::uint16_t column_samples_ = 0;  // 0 until the rate is known.
    std::uint16_t filled_ = 0;          // Samples of the present column.
    std::int16_t lowest_ = 0;           // Of these samples and of 0.
    std::int16_t highest_ = 0;
    std::uint8_t count_ = 0;  // Of the complete columns.
    std::array<WaveColumn, MOST_COLUMNS> columns_{};
};

inline void WaveGatherer::set_rate(int rate) {
    const int samples =
        std::clamp<int>(rate / (1000 / COLUMN_MS), 1, std::numeric_limits<std::uint16_t>::max());
    if (has_rate()) {
        filled_ = static_cast<std::uint16_t>(std::uint64_t{filled_} *
                                             static_cast<std::uint64_t>(samples) / column_samples_);
    }
    column_samples_ = static_cast<std::uint16_t>(samples);
}

inline void WaveGatherer::finish_column() {
    columns_[count_++] = {static_cast<std::int8_t>(lowest_ >> 8),
                          static_cast<std::int8_t>(highest_ >> 8)};
    lowest_ = 0;
    highest_ = 0;
    filled_ = 0;
}

inline std::uint64_t WaveGatherer::add_silence(std::uint64_t samples) {
    if (samples < room()) {
        filled_ = static_cast<std::uint16_t>(filled_ + samples);
        return 0;
    }
    samples -= room();
    finish_column();
    filled_ = static_cast<std::uint16_t>(samples % column_samples_);
    return samples / column_samples_;
}

}  // namespace qv::node
