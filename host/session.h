// A session of the embedded host, with its channel. A Call is a handle to it, and so are the
// session and channel pointers that modules get.
//
// Shared by the Call and the session table. For the host's own sources only.
#pragma once

#include <switch.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "host/call.h"
#include "host/events.h"
#include "host/media_bugs.h"
#include "quorvane_lib/mutex.h"

namespace qv::host {
class Session;
class MediaStream;
class MediaThread;
struct HostOptions;
}  // namespace qv::host

// Modules hold pointers to these. The session frees them when it ends, so that a memory
// checker reports a later use.
struct switch_channel {
    qv::host::Session* owner;
};
struct switch_core_session {
    qv::host::Session* owner;
    switch_channel channel;
};

namespace qv::host {

// Orders texts without regard to case.
struct CaseBlindLess {
    bool operator()(const std::string& left, const std::string& right) const;
};

// The state, the flags, the variables and the times of a channel. Any thread.
class Channel {
  public:
    Channel(const CallOptions& options, const std::string& uuid);

    switch_channel_state_t state() const;
    switch_call_cause_t cause() const;
    bool down() const { return state() >= CS_HANGUP; }
    void set_state(switch_channel_state_t state);
    void set_cause(switch_call_cause_t cause);
    // Sets CS_HANGUP and the cause; false when the channel was already hung up.
    bool hang_up(switch_call_cause_t cause);
    void mark_answered();

    std::uint32_t flag(int flag) const;
    void set_flag(int flag, std::uint32_t value);

    // Whether the channel can carry media (if `media`) and is past routing and not hung up (if
    // `usable`). False if neither is asked for.
    bool ready(bool usable, bool media) const;
    // Starts early media; false when the channel cannot have any.
    bool pre_answer();

    void set_variable(const std::string& name, const std::string& value);
    // Null without such a variable. The text lives as long as the channel, even when the
    // variable is set again.
    const char* variable(const std::string& name) const;

    switch_channel_timetable_t* timetable() { return has_times_ ? &times_ : nullptr; }
    switch_call_direction_t direction() const { return direction_; }
    const std::string& name() const { return name_; }
    const char* call_state() const;

  private:
    static constexpr std::size_t FLAGS = 256;

    const std::string name_;
    const switch_call_direction_t direction_;
    const MediaState media_;
    const bool has_times_;
    switch_channel_timetable_t times_ QV_GUARDED_BY(lock_){};

    std::array<std::atomic<std::uint32_t>, FLAGS> flags_{};
    mutable Mutex lock_;
    bool hung_up_ QV_GUARDED_BY(lock_) = false;
    switch_channel_state_t state_ QV_GUARDED_BY(lock_);
    switch_call_cause_t cause_ QV_GUARDED_BY(lock_) = SWITCH_CAUSE_NONE;
    std::map<std::string, const char*, CaseBlindLess> variables_ QV_GUARDED_BY(lock_);
    std::deque<std::string> texts_ QV_GUARDED_BY(lock_);  // every value a variable ever had
};

// Counts the holders of the session's read lock, and lets its end wait for them. Any thread.
class ReadLock {
  public:
    bool try_lock();
    // False when nobody holds the lock.
    bool unlock();
    // Refuses new holders and waits for the present ones; false when some remain after
    // `patience`.
    bool close(std::chrono::milliseconds patience);
    std::size_t holders() const;

  private:
    mutable Mutex lock_;
    Condition released_;
    std::size_t holders_ QV_GUARDED_BY(lock_) = 0;
    bool closed_ QV_GUARDED_BY(lock_) = false;
};

// One direction of a session's media: its frame, its buffers, its figures.
class MediaLeg {
  public:
    MediaLeg(Session& session, Direction direction) : session_(session), direction_(direction) {}

    // Hand a frame to the bugs: a copy of the data, the caller's own frame, or the next one of
    // the source, which is nothing at its end.
    FrameResult feed(const void* data, std::size_t size);
    FrameResult feed(switch_frame_t& frame);
    std::optional<FrameResult> feed_from(FrameSource& source, std::chrono::nanoseconds lateness);
    MediaStats stats() const;

  private:
    FrameResult hand_out_buffer(std::uint32_t size) QV_REQUIRES(lock_);
    FrameResult hand_out(switch_frame_t& frame) QV_REQUIRES(lock_);
    void reserve(std::size_t size) QV_REQUIRES(lock_);

    Session& session_;
    const Direction direction_;
    mutable Mutex lock_;  // Held while the bugs see a frame.
    std::vector<std::uint8_t> buffer_ QV_GUARDED_BY(lock_);
    std::vector<std::uint8_t> original_ QV_GUARDED_BY(lock_);
    switch_frame_t frame_ QV_GUARDED_BY(lock_){};
    MediaStats stats_ QV_GUARDED_BY(lock_);
};

class Session : public std::enable_shared_from_this<Session> {
  public:
    Session(CallOptions options, std::string uuid);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    const std::string& uuid() const { return uuid_; }
    const CallOptions& options() const { return options_; }
    Channel& channel() { return channel_; }
    ReadLock& read_lock() { return read_lock_; }
    MediaBugs& bugs() { return bugs_; }
    MediaLeg& leg(Direction direction) { return direction == Direction::READ ? read_ : write_; }
    switch_core_session_t* handle() const { return handle_.get(); }
    switch_codec_t* codec() { return &codec_; }

    bool over() const { return over_.load(); }
    bool execute(const std::string& application, const std::string& data);
    bool hangup(switch_call_cause_t cause);

    void start_media(MediaPlan plan);
    void stop_media();
    bool wait_media(std::chrono::milliseconds timeout);
    void media_ended();  // for a stream: its direction has ended

    // An event about this channel: the host's usual headers, then `more`.
    Event event(int id, std::vector<std::pair<std::string, std::string>> more = {});
    void fire(int id, std::vector<std::pair<std::string, std::string>> more = {});

  private:
    void start_stream(Direction direction, std::unique_ptr<FrameSource> source,
                      const MediaPlan& plan) QV_REQUIRES(plan_lock_);
    void stop_stream(Direction direction) QV_REQUIRES(plan_lock_);
    void destroy() QV_REQUIRES(thread_lock_);

    const CallOptions options_;
    const std::string uuid_;
    std::unique_ptr<switch_core_session> handle_;
    std::string codec_name_;
    switch_codec_implementation_t implementation_{};
    switch_codec_t codec_{};
    Channel channel_;
    ReadLock read_lock_;
    MediaBugs bugs_;
    MediaLeg read_;
    MediaLeg write_;

    std::atomic<bool> over_{false};  // hang-up has begun
    Mutex thread_lock_;              // whoever holds it acts as the session's thread

    // One direction of a plan: its stream, and the thread that plays it.
    struct Playing {
        std::shared_ptr<MediaStream> stream;
        MediaThread* thread = nullptr;
        std::unique_ptr<MediaThread> own_thread;
    };

    Mutex plan_lock_;  // Held while streams start and stop.
    std::array<Playing, 2> playing_ QV_GUARDED_BY(plan_lock_);
    Mutex ends_lock_;
    Condition ended_;
    int streams_left_ QV_GUARDED_BY(ends_lock_) = 0;
};

}  // namespace qv::host
