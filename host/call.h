// One call in the embedded host: a session with its channel, its variables and its
// media, driven by whoever holds the Call.
//
// EmbeddedHost::start_call makes it; the caller owns it and destroys it before the host.
// Any thread may call the functions, also during hang-up, unless a function says
// otherwise. On a call that is over they do nothing and report that.
#pragma once

#include <switch.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/frame_source.h"

namespace qv::host {

class Session;

// The directions of the media, seen from the host: it reads from the call's party and
// writes to it.
enum class Direction { READ = 0, WRITE = 1 };

enum class MediaState {
    ANSWERED,   // media flows, the call is answered
    EARLY,      // media flows before the answer
    ON_DEMAND,  // no media yet; adding a bug starts early media
    REFUSED,    // no media, and the channel cannot start any
};

struct CallOptions {
    std::string uuid;  // empty: the host chooses a random one
    std::string name;  // channel name; empty: "embedded/" and the UUID
    std::map<std::string, std::string> variables;
    switch_call_direction_t direction = SWITCH_CALL_DIRECTION_INBOUND;
    switch_channel_state_t state = CS_EXECUTE;
    MediaState media = MediaState::ANSWERED;
    switch_time_t created = 0;  // microseconds since 1970; 0: now
    bool timetable = true;
    std::optional<std::string> codec = "L16";  // IANA name carried by the frames; may be absent
    std::uint32_t rate = 8000;                 // samples a second
    std::chrono::microseconds frame_time{20000};
    std::string external_id;  // finds the session as its UUID does; empty: none
};

enum class Pace {
    PACED,         // one frame per frame time, counted from the start of the media
    FREE_RUNNING,  // as fast as the callbacks return
};

enum class MediaThreads {
    POOL,  // the media threads that all calls share, one set per direction
    OWN,   // two threads that serve only this call
};

// What became of one frame.
struct FrameResult {
    std::uint32_t bytes = 0;
    std::size_t bugs = 0;                 // bugs whose callback was called
    std::size_t given = 0;                // bugs that asked for the frame and got it
    bool altered = false;                 // a bug has changed the frame
    std::chrono::nanoseconds handling{};  // time spent in the callbacks
};

// Is called for every frame of a plan after the bugs, on the media thread; the two
// directions may call at the same time. Must neither block nor hang up the call.
class FrameObserver {
  public:
    FrameObserver() = default;
    FrameObserver(const FrameObserver&) = delete;
    FrameObserver& operator=(const FrameObserver&) = delete;
    virtual ~FrameObserver() = default;

    // `lateness` is the time since the frame was due, 0 for free-running media.
    virtual void played(Direction direction, const FrameResult& result,
                        std::chrono::nanoseconds lateness) = 0;
};

struct MediaPlan {
    std::unique_ptr<FrameSource> read;   // null: no frames in this direction
    std::unique_ptr<FrameSource> write;  // null: no frames in this direction
    Pace pace = Pace::PACED;
    MediaThreads threads = MediaThreads::POOL;
    std::chrono::steady_clock::duration delay{0};  // before the first frame
    std::shared_ptr<FrameObserver> observer;       // null: none
};

// Figures of one direction since the call began.
struct MediaStats {
    std::uint64_t frames = 0;
    std::uint64_t bytes = 0;
    std::uint64_t late_frames = 0;              // frames that began more than one frame time late
    std::chrono::nanoseconds worst_lateness{};  // of paced frames
    std::chrono::nanoseconds handling_time{};   // spent in the bugs, all frames together
    std::chrono::nanoseconds worst_handling{};  // spent in the bugs, slowest frame
};

// A bug as it was added.
struct BugInfo {
    std::string function;
    std::string target;  // empty: none
    switch_media_bug_callback_t callback = nullptr;
    void* user_data = nullptr;
    time_t stop_time = 0;
    switch_media_bug_flag_t flags = 0;
};

class Call {
  public:
    explicit Call(std::shared_ptr<Session> session);  // for the host
    ~Call();                                          // hangs up
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    const std::string& uuid() const;
    bool alive() const;
    // The arguments for host functions. They dangle once the call is over: use them only
    // while nobody can hang it up.
    switch_core_session_t* session() const;
    switch_channel_t* channel() const;

    // Runs the application on the calling thread, as the dialplan would; hang-up waits
    // for it. False when no such application is registered or the call is over. A real
    // host starts the media before it runs the application, and does not run it without
    // media; this one runs it in any state of the media.
    bool execute(const std::string& application, const std::string& data = "");

    void set_variable(const std::string& name, const std::string& value);
    std::optional<std::string> variable(const std::string& name) const;
    void set_state(switch_channel_state_t state);
    void set_cause(switch_call_cause_t cause);
    void set_flag(switch_channel_flag_t flag, std::uint32_t value = 1);
    void answer();

    // Copies the data and hands it as one frame to the bugs, on the calling thread. Waits
    // while another frame of the same direction is with the bugs.
    FrameResult feed(Direction direction, const void* data, std::size_t size);
    // Hands out the caller's frame itself, without a copy.
    FrameResult feed(Direction direction, switch_frame_t& frame);

    // Stops a plan that still runs, then starts this one.
    void start_media(MediaPlan plan);
    // True when both sources have ended, false after the timeout.
    bool wait_media(std::chrono::milliseconds timeout);
    // When it returns, no frame of the plan is with the bugs. Not to be called from a source.
    void stop_media();
    MediaStats media_stats(Direction direction) const;

    std::vector<BugInfo> bugs() const;
    // Calls the bugs with an event of any kind and without a frame, on the calling thread.
    // False when a callback returned SWITCH_FALSE.
    bool raise(switch_abc_type_t type);
    // Removes the bugs, each with a CLOSE, as a command from outside does. The call goes on.
    void remove_bugs();

    // Ends the call on the calling thread, in the host's order: state and cause, hang-up
    // event, CLOSE to every bug, end of the media, wait for read locks, channel-destroy
    // event. False when the call was already over. Not to be called from a frame source.
    bool hangup(switch_call_cause_t cause = SWITCH_CAUSE_NORMAL_CLEARING);

  private:
    const std::shared_ptr<Session> session_;
};

}  // namespace qv::host
