// The shape of the latest 50 seconds of one side, for drawing: the lowest and the highest sample of
// every 50 ms, which is a column of the picture. Pauses and gaps are columns without sound.
//
// The thread of the call writes and never waits; any thread may read at the same time.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

namespace qv::node::web {

class WaveRing {
  public:
    static constexpr int COLUMN_MS = 50;
    // A column stays readable for at least this many further columns.
    static constexpr std::uint64_t READABLE = 960;

    // For the thread of the call.

    // The audio that follows has this rate, in Hz. Call it before the first audio.
    void set_rate(int rate);
    void add(const std::int16_t* samples, std::size_t count);
    void add_silence(std::uint64_t samples);

    // For any thread.

    // The number of complete columns.
    std::uint64_t end() const { return end_.load(std::memory_order_acquire); }
    // Returns the columns from `begin` to `end`, two signed bytes each: the lowest and the highest
    // sample, divided by 256. They must be complete and readable.
    std::string columns(std::uint64_t begin, std::uint64_t end) const;

  private:
    static constexpr std::uint64_t COLUMNS = 1024;

    void add_part(const std::int16_t* samples, std::size_t count);
    void finish_column();

    // The thread of the call only.
    std::uint64_t column_samples_ = 400;
    std::uint64_t filled_ = 0;  // Samples of the present column.
    std::int16_t lowest_ = 0;   // Of these samples and of 0.
    std::int16_t highest_ = 0;

    // Both.
    std::atomic<std::uint64_t> end_{0};
    std::array<std::atomic<std::uint16_t>, COLUMNS> columns_{};
};

}  // namespace qv::node::web
