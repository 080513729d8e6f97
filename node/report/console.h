// The standard output as people see it: lines, or the frames of the live view.
//
// The thread that writes here never waits. While nobody takes the output - a stopped terminal, a
// full pipe - text waits up to a bound, and then lines and frames are dropped whole and counted. So
// are lines for which there is no memory.
// Belongs to one thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <ostream>
#include <streambuf>
#include <string>
#include <string_view>

#include "node/report/text_outlet.h"

namespace qv::node {

class Console : private std::streambuf {
  public:
    // Asked before each moment of a wait. Returns false when there must be no more waiting.
    using KeepWaiting = std::function<bool()>;

    static constexpr std::size_t MOST_BYTES = 256ULL * 1024;

    explicit Console(int descriptor);
    ~Console() override { pubsync(); }
    Console(const Console&) = delete;
    Console& operator=(const Console&) = delete;

    // Whole lines go here. They are passed on when the stream is flushed.
    std::ostream& lines() { return stream_; }
    // Passes on text that is no line. Returns false if it found no room.
    bool show(const std::string& text);
    // Passes on a frame, unless an earlier text has not been taken yet.
    void show_frame(const std::string& frame);

    // From now on, lines that find no room wait for it.
    void wait_for_room(KeepWaiting keep_waiting) { keep_waiting_ = std::move(keep_waiting); }
    // Waits until everything is taken or the time has come. Returns whether it is.
    bool wait(std::chrono::steady_clock::time_point until) const { return outlet_.wait(until); }

    // Lines that were dropped; those since the last call, once lines are taken again.
    std::uint64_t lost_lines() const { return lost_lines_; }
    std::uint64_t take_lost_lines();
    std::uint64_t lost_frames() const { return lost_frames_; }

  private:
    // What a stream calls when it is written to. They never throw: the stream would fail for good.
    std::streamsize xsputn(const char* text, std::streamsize size) override;
    int_type overflow(int_type character) override;
    int sync() override;

    bool add(std::string_view text);
    void pass_on(std::string_view text);
    void lose(std::string_view text);

    TextOutlet outlet_;
    std::ostream stream_{this};
    KeepWaiting keep_waiting_;
    std::string text_;            // Since the stream was flushed.
    bool out_of_memory_ = false;  // Some of the text is missing.
    std::uint64_t lost_lines_ = 0;
    std::uint64_t reported_lines_ = 0;
    std::uint64_t lost_frames_ = 0;
};

}  // namespace qv::node
