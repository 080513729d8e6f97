// The shape of the latest 50 seconds of one side, for drawing: the lowest and the highest sample of
// every 50 ms, which is a column of the picture. Pauses and gaps are columns without sound.
//
// WaveGatherer makes the columns. It is small, because its bytes are fetched for every packet, and
// belongs to the thread of the call. WaveRing keeps them: that thread adds columns and never waits;
// any thread may read at the same time.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

namespace qv::node::web {

// Lowest and highest sample, divided by 256.
struct WaveColumn {
    std::int8_t lowest = 0;
    std::int8_t highest = 0;
};

class WaveRing {
  public:
    static constexpr int COLUMN_MS = 50;
    // A column stays readable for at least this many further columns.
    static constexpr std::uint64_t READABLE = 960;

    // For the thread of the call.

    void add(const WaveColumn* columns, std::size_t count);
    void add_silence(std::uint64_t columns);

    // For any thread.

    // The number of columns so far.
    std::uint64_t end() const { return end_.load(std::memory_order_acquire); }
    // Returns the columns from `begin` to `end`, two signed bytes each: the lowest and the highest
    // sample. They must be readable.
    std::string columns(std::uint64_t begin, std::uint64_t end) const;

  private:
    static constexpr std::uint64_t COLUMNS = 1024;

    std::atomic<std::uint64_t> end_{0};
    std::array<std::atomic<std::uint16_t>, COLUMNS> columns_{};
};

class WaveGatherer {
  public:
    // Whether the rate is known.
    bool has_rate() const { return column_samples_ != 0; }
    // The audio that follows has this rate, in Hz. Call it before the first audio.
    void set_rate(int rate);
    // Adds samples whose extremes are `lowest` and `highest`. Returns false, and adds nothing,
    // unless they leave the column incomplete.
    bool add_within(std::size_t count, std::int16_t lowest, std::int16_t highest) {
        if (count >= std::size_t{column_samples_} - filled_) {
            return false;
        }
        widen(lowest, highest, count);
        return true;
    }
    // Adds samples. Complete columns go to the ring when a few have been gathered.
    void add(const std::int16_t* samples, std::size_t count, WaveRing& ring);
    void add_silence(std::uint64_t samples, WaveRing& ring);
    // Passes all complete columns to the ring.
    void flush(WaveRing& ring);

  private:
    static constexpr std::size_t MOST_GATHERED = 5;

    void widen(std::int16_t lowest, std::int16_t highest, std::size_t count) {
        lowest_ = std::min(lowest_, lowest);
        highest_ = std::max(highest_, highest);
        filled_ = static_cast<std::uint16_t>(filled_ + count);
    }
    void finish_column(WaveRing& ring);

    std::uint16_t column_samples_ = 0;  // 0 until the rate is known.
    std::uint16_t filled_ = 0;          // Samples of the present column.
    std::int16_t lowest_ = 0;           // Of these samples and of 0.
    std::int16_t highest_ = 0;
    std::array<WaveColumn, MOST_GATHERED> gathered_{};
    std::uint8_t count_ = 0;  // Of the gathered columns.
};
static_assert(sizeof(WaveGatherer) <= 20);

}  // namespace qv::node::web
