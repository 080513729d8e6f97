// Writes events as JSON lines, one object per line, for programs. docs/node.md lists the events and
// their fields; fields of packets have the names of docs/protocol.md.
//
// While the sink takes no events, for example because the disk is full, they wait and are retried.
// When a megabyte of events waits, further events are dropped and counted; an event of its own
// reports the loss where they are missing.
//
// Any thread may call it. The events of a call keep their order. Events of calls on different
// threads that happen at the same moment may be swapped.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <utility>

#include "node/audio/open_list.h"
#include "node/audio/retention.h"
#include "node/calls/call_listener.h"
#include "quorvane_lib/mutex.h"

namespace qv::node {

class EventLog : public CallListener {
  public:
    // Writes lines and returns how many bytes were written; fewer than given if writing failed. A
    // line that was written only in part is passed again from its beginning. Called with the lock
    // of the log held.
    using Sink = std::function<std::size_t(const char* lines, std::size_t size)>;

    // Receives the kind of each event, the UUID of its call or an empty text, and its JSON object.
    using Copy = std::function<void(const std::string& kind, const std::string& call,
                                    const std::string& text)>;

    // With `every_packet`, data packets are events, too.
    EventLog(Sink sink, bool every_packet) : sink_(std::move(sink)), every_packet_(every_packet) {}

    // Passes each event to `copy`, too. Call it before the first event.
    void copy_to(Copy copy) { copy_ = std::move(copy); }

    void listening(const std::string& address);
    // `source` is the sender, "a.b.c.d:port".
    void malformed(media::DecodeResult reason, std::size_t size, const std::string& source);
    // Datagrams of senders that are not allowed. `source` is the sender of the latest.
    void not_allowed(std::uint64_t packets, const sockaddr_in& source);
    void overflow(std::uint64_t packets);
    void audio_dropped(std::uint64_t bytes);
    // Events and chunks of audio that were lost because too many waited for NATS.
    void nats_lost(std::uint64_t events, std::uint64_t chunks);
    // Somebody at `from`, "a.b.c.d:port", begins to listen to these sides of a call ("both",
    // "originator" or "terminator"), or, with `seconds`, has listened for so long.
    void listen(const Uuid& call, const std::string& sides, const std::string& from,
                std::optional<double> seconds);
    void left_behind(const LeftoverFile& file);
    void removed(const RemovedCall& call);

    void started(const Call& call, const media::Packet& packet) override;
    void features_changed(const Call& call, const media::Packet& packet) override;
    void terminated(const Call& call, const media::Packet& packet) override;
    void terminate_refused(const Call& call, const media::Packet& packet) override;
    void foreign(const Call& call, const sockaddr_in& source) override;
    void data(const Call& call, const media::Packet& packet) override;
    void rate_changed(const Call& call, Side side, const RateChange& change) override;
    void pause(const Call& call, Side side, const Pause& pause) override;
    void gap(const Call& call, Side side, const Gap& gap) override;
    void late(const Call& call, Side side, const media::Packet& packet) override;
    void running_changed(const Call& call, Side side, std::uint64_t position) override;
    void activity(const Call& call, Side side, const Activity& activity) override;
    void sample_found(const Call& call, Side side, const FoundSample& sample) override;
    void skipped(const Call& call, Side side, std::uint64_t samples) override;
    void file_failed(const Call& call, const FileReport& file) override;
    void ended(const Call& call, EndReason reason) override;

    // Writes all waiting events. Returns false while this fails. Call it several times a second.
    bool flush() QV_EXCLUDES(mutex_);

    // Events that were dropped, and those that are still waiting.
    std::uint64_t dropped() const QV_EXCLUDES(mutex_);
    std::uint64_t waiting() const QV_EXCLUDES(mutex_);

  private:
    bool write_out() QV_REQUIRES(mutex_);
    void report_loss() QV_REQUIRES(mutex_);
    void add(const std::string& line) QV_REQUIRES(mutex_);
    void write(const char* event, const nlohmann::json& fields, const std::string& call = {})
        QV_EXCLUDES(mutex_);
    void write(const char* event, const Call& call, const nlohmann::json& fields);

    static constexpr std::size_t MOST_WAITING = 1 << 20;  // Bytes, while writing fails.
    static constexpr std::size_t BLOCK = 1 << 16;

    const Sink sink_;
    const bool every_packet_;
    Copy copy_;  // Empty unless set. Constant since the first event.
    mutable Mutex mutex_;
    bool failing_ QV_GUARDED_BY(mutex_) = false;  // Whether the latest attempt to write failed.
    std::string waiting_ QV_GUARDED_BY(mutex_);   // Whole lines.
    std::uint64_t dropped_ QV_GUARDED_BY(mutex_) = 0;
    // Dropped events that an event has reported already.
    std::uint64_t reported_ QV_GUARDED_BY(mutex_) = 0;
};

}  // namespace qv::node
