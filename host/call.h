// One call in the embedded host: a session with its channel, its variables and its
// media, driven by whoever holds the Call.
//
// Made by EmbeddedHost::start_call and owned by the caller, who lets it go before the
// host. Unless a function says otherwise it may be called from any thread, also while
// the call is being hung up; on a call that is over it does nothing and says so.
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

// The directions of the media, as seen from the host: read comes in from the call's
// party, write goes out to it.
enum class Direction { READ = 0, WRITE = 1 };

enum class MediaState {
    ANSWERED,   // media flows, the call is answered
    EARLY,      // media flows before the answer
    ON_DEMAND,  // none yet; adding a bug brings it up
    REFUSED,    // none, and the channel cannot bring it up
};

struct CallOptions {
    std::string uuid;  // empty: a random one
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
    PACED,         // a frame every frame time, due times counted from the start
    FREE_RUNNING,  // as fast as the callbacks return
};

enum class MediaThreads {
    POOL,  // the host's few media threads, one set for each direction
    OWN,   // two threads of this call's own
};

// What became of one frame.
struct FrameResult {
    std::uint32_t bytes = 0;
    std::size_t bugs = 0;                 // bugs that were told of it
    std::size_t given = 0;                // of these: bugs that asked for it and got it
    bool altered = false;                 // one of them gave it back changed
    std::chrono::nanoseconds handling{};  // spent in the bugs
};

// Told of every frame of a plan when the bugs are done with it, on the media thread:
// the two directions at once. Must neither block nor hang up the call.
class FrameObserver {
  public:
    FrameObserver() = default;
    FrameObserver(const FrameObserver&) = delete;
    FrameObserver& operator=(const FrameObserver&) = delete;
    virtual ~FrameObserver() = default;

    // `lateness`: from the frame's due time until now; 0 for free-running media.
    virtual void played(Direction direction, const FrameResult& result,
                        std::chrono::nanoseconds lateness) = 0;
};

struct MediaPlan {
    std::unique_ptr<FrameSource> read;   // null: no frames in this direction
    std::unique_ptr<FrameSource> write;  // null: no frames in this direction
    Pace pace = Pace::PACED;
    MediaThreads threads = MediaThreads::POOL;
    std::chrono::steady_clock::duration delay{0};  // before the first frame
    std::shared_ptr<FrameObserver> observer;       // null: nobody is told
};

// Of one direction of a call, since the call began.
struct MediaStats {
    std::uint64_t frames = 0;
    std::uint64_t bytes = 0;
    std::uint64_t late_frames = 0;              // began more than a frame time after it was due
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
    // What the host functions take; invalid once the call is over, so only for one who
    // knows that nobody hangs it up.
    switch_core_session_t* session() const;
    switch_channel_t* channel() const;

    // Runs the application on the calling thread, as the dialplan would; hang-up waits
    // for it. False when no such application is registered or the call is over. The
    // dialplan of a real host first sees to it that there is media, or does not run the
    // application; here it runs in whatever state the media is.
    bool execute(const std::string& application, const std::string& data = "");

    void set_variable(const std::string& name, const std::string& value);
    std::optional<std::string> variable(const std::string& name) const;
    void set_state(switch_channel_state_t state);
    void set_cause(switch_call_cause_t cause);
    void set_flag(switch_channel_flag_t flag, std::uint32_t value = 1);
    void answer();

    // Hands one frame to the bugs on the calling thread and waits for them. The data is
    // copied first. Frames of one direction queue up behind each other.
    FrameResult feed(Direction direction, const void* data, std::size_t size);
    // The same with a frame of the caller's own, handed out as it is.
    FrameResult feed(Direction direction, switch_frame_t& frame);

    // Starts playing; a plan that still runs is stopped first.
    void start_media(MediaPlan plan);
    // True when both sources came to their end, false when the time is over first.
    bool wait_media(std::chrono::milliseconds timeout);
    // No frame of the plan is under way any more when it returns. Not from a source.
    void stop_media();
    MediaStats media_stats(Direction direction) const;

    std::vector<BugInfo> bugs() const;
    // Hands the bugs an event of any kind on the calling thread, without a frame; true
    // when none of them refused it.
    bool raise(switch_abc_type_t type);

    // Ends the call on the calling thread, in the host's order: state and cause, hang-up
    // event, CLOSE to every bug, end of the media, wait for read locks, channel-destroy
    // event. False when the call was over already. Not from a frame source.
    bool hangup(switch_call_cause_t cause = SWITCH_CAUSE_NORMAL_CLEARING);

  private:
    const std::shared_ptr<Session> session_;
};

}  // namespace qv::host
