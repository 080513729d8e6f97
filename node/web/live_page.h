// One open page: what it looks at, and which messages it gets when. Knows nothing of connections.
// docs/node.md describes the messages.
//
// Any thread may call it.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "node/calls/types.h"
#include "node/web/call_board.h"
#include "node/web/listening.h"
#include "node/web/live_rows.h"
#include "node/web/page_message.h"
#include "quorvane_lib/mutex.h"

namespace qv::node::web {

// Somebody begins or ends to listen to a call.
struct ListenNotice {
    Uuid uuid{};
    std::string sides;              // "both", "originator" or "terminator".
    std::optional<double> seconds;  // How long; nullopt at the beginning.
};

struct LiveMessage {
    bool binary = false;
    std::string bytes;
};

class LivePage {
  public:
    using OnListen = std::function<void(const ListenNotice& notice)>;

    // `can_log_out` tells the page whether there is a session to end. The board and the rows must
    // outlive this object. `on_listen` may be called by every function and by the destructor.
    LivePage(const CallBoard& board, LiveRows& rows, bool can_log_out, OnListen on_listen)
        : board_(board), rows_(rows), can_log_out_(can_log_out), on_listen_(std::move(on_listen)) {}
    LivePage(const LivePage&) = delete;
    LivePage& operator=(const LivePage&) = delete;
    ~LivePage();

    // Handles a message of the page. Returns false, and does nothing, if so many answers wait that
    // the page apparently takes none.
    static constexpr std::size_t MOST_WAITING = 100;
    bool take(std::string_view text, Micros now) QV_EXCLUDES(mutex_);

    // Returns the messages that the page gets now, on the steady clock of the node. Call it every
    // interval(), and after take().
    std::vector<LiveMessage> due(Micros now) QV_EXCLUDES(mutex_);
    // Short only while the page listens.
    Micros interval() QV_EXCLUDES(mutex_);

  private:
    // What the page has been sent of a call.
    struct Sent {
        std::uint64_t id = 0;
        std::uint64_t version = 0;
    };
    struct Opened {
        std::shared_ptr<CallRecord> record;
        bool detailed = false;  // Whether the beginning has been sent.
        std::array<std::uint64_t, SIDE_COUNT> end{};
        std::uint64_t marks = 0;
    };

    void watch(const std::vector<std::uint64_t>& calls) QV_REQUIRES(mutex_);
    void open(const PageMessage& message) QV_REQUIRES(mutex_);
    void close_call() QV_REQUIRES(mutex_);
    void listen(const PageMessage& message, Micros now) QV_REQUIRES(mutex_);
    void stop_listening(const char* reason, Micros now) QV_REQUIRES(mutex_);
    void add_calls(const LiveFrame& frame) QV_REQUIRES(mutex_);
    void add_levels(const LiveFrame& frame) QV_REQUIRES(mutex_);
    void add_wave() QV_REQUIRES(mutex_);
    void add_audio(Micros now) QV_REQUIRES(mutex_);
    void add(std::string text) QV_REQUIRES(mutex_);

    const CallBoard& board_;
    LiveRows& rows_;
    const bool can_log_out_;
    const OnListen on_listen_;

    Mutex mutex_;
    std::vector<LiveMessage> waiting_ QV_GUARDED_BY(mutex_);
    bool greeted_ QV_GUARDED_BY(mutex_) = false;
    Micros said_at_ QV_GUARDED_BY(mutex_){0};       // When there were messages last.
    std::vector<Sent> sent_ QV_GUARDED_BY(mutex_);  // By id.
    std::uint64_t finished_end_ QV_GUARDED_BY(mutex_) = 0;
    std::shared_ptr<const LiveFrame> frame_ QV_GUARDED_BY(mutex_);  // The latest that was sent.
    std::vector<std::shared_ptr<CallRecord>> watched_ QV_GUARDED_BY(mutex_);  // By id.
    std::optional<Opened> opened_ QV_GUARDED_BY(mutex_);
    std::optional<Listening> listening_ QV_GUARDED_BY(mutex_);
    std::string listened_sides_ QV_GUARDED_BY(mutex_);
    Micros listening_since_ QV_GUARDED_BY(mutex_){0};
    bool listening_told_ QV_GUARDED_BY(mutex_) = false;
};

}  // namespace qv::node::web
