// The work behind the publisher: what waits for NATS, and the loop that sends it.
//
// One thread calls run(), which uses the connection without the lock; the library's threads report
// to it. If there is a spool, another thread calls run_spool(), which uses the spool without the
// lock. So events reach the disk when the server hangs, and the server when the disk hangs. Any
// thread may call the other functions, which do not wait unless they say so.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "node/engine/audio_queue.h"
#include "node/engine/engine_news.h"
#include "node/engine/event_queue.h"
#include "node/engine/event_spool.h"
#include "node/engine/nats_link.h"
#include "node/engine/publisher.h"
#include "node/engine/spool_backlog.h"
#include "quorvane_lib/mutex.h"

namespace qv::node::nats {

class Engine : private Link::Listener {
  public:
    explicit Engine(EngineSettings settings);

    // Returns what is wrong with the settings, or an empty text. Before run().
    std::string open() QV_EXCLUDES(mutex_);

    // Returns when stop() is called and the library uses this object no longer.
    void run() QV_EXCLUDES(mutex_);
    bool has_spool() const { return spool_ != nullptr; }
    // The same for the spool, if there is one. Returns when stop_spool() is called.
    void run_spool() QV_EXCLUDES(mutex_);

    const std::string& run_id() const { return run_; }
    void push(EngineEvent event) QV_EXCLUDES(mutex_);
    void push(EngineChunk chunk) QV_EXCLUDES(mutex_);
    EngineFigures figures() const QV_EXCLUDES(mutex_);
    Publisher::News take_news() QV_EXCLUDES(mutex_);
    // What neither a server nor the spool has taken.
    Publisher::Left left() const QV_EXCLUDES(mutex_);

    // Waits until nothing waits, at most for this time. Returns whether that is so.
    bool wait(std::chrono::milliseconds longest) QV_EXCLUDES(mutex_);
    // Ends run(), and waits for it some seconds. Returns whether it has ended.
    bool stop() QV_EXCLUDES(mutex_);
    // The same for run_spool(). After stop(), so that the spool notes the last answers.
    bool stop_spool() QV_EXCLUDES(mutex_);

  private:
    using Clock = std::chrono::steady_clock;

    std::string open_spool() QV_EXCLUDES(mutex_);

    // Any thread.
    void add(const EventQueue::Event& event) QV_REQUIRES(mutex_);
    void forget(const EventQueue::Event& event) QV_REQUIRES(mutex_);
    bool waiting() const QV_REQUIRES(mutex_);

    // The thread of run(), and the library's.
    void connected(const std::string& url) override QV_EXCLUDES(mutex_);
    void disconnected() override QV_EXCLUDES(mutex_);
    void answered(Answer answer) override QV_EXCLUDES(mutex_);
    void trouble(const std::string& text) override QV_EXCLUDES(mutex_);
    void stream_created(const std::string& name) override QV_EXCLUDES(mutex_);

    // The thread of run().
    bool wait_for_work() QV_EXCLUDES(mutex_);
    bool has_work() const QV_REQUIRES(mutex_);
    bool take_answers() QV_EXCLUDES(mutex_);
    void send_events() QV_EXCLUDES(mutex_);
    EventQueue::Entry next_event() QV_EXCLUDES(mutex_);
    void drop(std::uint64_t number) QV_REQUIRES(mutex_);
    void note_not_sent(std::uint64_t number, Link::Outcome outcome) QV_EXCLUDES(mutex_);
    void send_audio() QV_EXCLUDES(mutex_);
    AudioQueue::Batch next_audio() QV_EXCLUDES(mutex_);
    bool send(AudioQueue::Batch& batch) QV_EXCLUDES(mutex_);
    void note_lost(const EngineChunk& chunk) QV_EXCLUDES(mutex_);
    void note_sent(AudioQueue::Batch batch, bool taken) QV_EXCLUDES(mutex_);

    // The thread of run_spool().
    bool wait_for_spool_work() QV_EXCLUDES(mutex_);
    void write_spool() QV_EXCLUDES(mutex_);
    std::vector<std::string> take_forgotten() QV_EXCLUDES(mutex_);
    std::vector<EventQueue::Event> to_spool() QV_EXCLUDES(mutex_);
    void note_spooled(const std::vector<EventQueue::Event>& events, bool kept) QV_EXCLUDES(mutex_);

    bool wait_for_end(const bool& ended) QV_REQUIRES(mutex_);

    const EngineSettings settings_;
    const std::string run_;

    Link link_;                          // Of the thread of run().
    std::unique_ptr<EventSpool> spool_;  // Null unless wanted. Constant from open() on.

    mutable Mutex mutex_;
    Condition work_;
    Condition spool_work_;
    Condition progress_;
    EventQueue queue_ QV_GUARDED_BY(mutex_);
    SpoolBacklog backlog_ QV_GUARDED_BY(mutex_);
    AudioQueue audio_ QV_GUARDED_BY(mutex_);
    std::vector<Answer> answers_ QV_GUARDED_BY(mutex_);
    EngineNews news_ QV_GUARDED_BY(mutex_);
    bool unanswered_ QV_GUARDED_BY(mutex_) = false;  // Some event, for too long.
    std::uint64_t last_event_ QV_GUARDED_BY(mutex_) = 0;
    std::uint64_t stored_events_ QV_GUARDED_BY(mutex_) = 0;
    bool connected_ QV_GUARDED_BY(mutex_) = false;
    bool stopping_ QV_GUARDED_BY(mutex_) = false;
    bool ended_ QV_GUARDED_BY(mutex_) = false;           // run() returns.
    bool spool_stopping_ QV_GUARDED_BY(mutex_) = false;  // The same of run_spool().
    bool spool_ended_ QV_GUARDED_BY(mutex_) = false;
};

}  // namespace qv::node::nats
