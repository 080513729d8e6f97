#include "node/engine/nats_engine.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <random>
#include <utility>

#include "tools/hexadecimal.h"
#include "tools/thread_priority.h"

namespace qv::node::nats {

namespace {

using std::chrono::milliseconds;

constexpr std::size_t MOST_UNDER_WAY = 512;  // Events.
// Further ones are lost, so their events are sent again.
constexpr std::size_t MOST_ANSWERS = 4 * MOST_UNDER_WAY;
constexpr milliseconds TICK{100};
constexpr milliseconds ANSWER_TIME{5000};  // An event that is not answered is sent again.
constexpr milliseconds RETRY{500};         // After a refusal.
constexpr milliseconds PATIENCE_AT_THE_END{5000};

std::string random_id() {
    std::random_device device;
    return tools::hexadecimal(std::uint64_t{device()} << 32 | device());
}

std::string host_name() {
    std::array<char, 256> name{};
    return gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "unknown";
}

EngineSettings with_name(EngineSettings settings) {
    if (settings.node.empty()) {
        settings.node = host_name();
    }
    return settings;
}

}  // namespace

Engine::Engine(EngineSettings settings)
    : settings_(with_name(std::move(settings))),
      run_(random_id()),
      link_(settings_, *this),
      queue_(settings_.queue_mib << 20),
      audio_(settings_.queue_mib << 20) {}

std::string Engine::open() {
    std::string error = link_.open();
    if (error.empty() && !settings_.spool.empty()) {
        error = open_spool();
    }
    return error;
}

std::string Engine::open_spool() {
    const LockGuard lock(mutex_);
    spool_ = std::make_unique<EventSpool>(settings_.spool);
    std::string error =
        spool_->open([this](const EventQueue::Event& event) QV_NO_THREAD_SAFETY_ANALYSIS {
            add(event);  // The lock is held.
        });
    if (queue_.size() != 0) {
        news_.tell("nats spool", std::to_string(queue_.size()) +
                                     " events of earlier runs wait in " + settings_.spool);
    }
    return error;
}

void Engine::run() {
    tools::lower_priority(tools::Priority::BUFFERED);
    while (wait_for_work()) {
        const bool may_send = link_.keep();
        if (take_answers() && may_send) {
            link_.create_stream();
        }
        if (may_send) {
            send_events();
            send_audio();
        }
        progress_.notify_all();
    }
    link_.close();
    take_answers();  // The last ones.
    const LockGuard lock(mutex_);
    ended_ = true;
    progress_.notify_all();
}

void Engine::run_spool() {
    tools::lower_priority(tools::Priority::BUFFERED);
    while (wait_for_spool_work()) {
        write_spool();
    }
    write_spool();
    const LockGuard lock(mutex_);
    spool_ended_ = true;
    progress_.notify_all();
}

// Any thread.

void Engine::push(EngineEvent event) {
    {
        const LockGuard lock(mutex_);
        event.number = ++last_event_;
        event.id = run_ + '-' + std::to_string(event.number);
        const auto shared = std::make_shared<const EngineEvent>(std::move(event));
        if (spool_ != nullptr) {
            backlog_.add(shared);
            spool_work_.notify_one();
        }
        add(shared);
    }
    work_.notify_one();
}

void Engine::push(EngineChunk chunk) {
    bool sooner = false;
    {
        const LockGuard lock(mutex_);
        sooner = audio_.push(std::move(chunk));
    }
    if (sooner) {
        work_.notify_one();
    }
}

void Engine::add(const EventQueue::Event& event) {
    for (const EventQueue::Event& dropped : queue_.push(event)) {
        forget(dropped);
    }
}

// The spool need not keep the event any longer.
void Engine::forget(const EventQueue::Event& event) {
    if (spool_ != nullptr) {
        backlog_.forget(event);
    }
}

EngineFigures Engine::figures() const {
    const LockGuard lock(mutex_);
    EngineFigures figures;
    figures.wanted = true;
    figures.connected = connected_;
    figures.stored_events = stored_events_;
    figures.lost_events = queue_.dropped();
    figures.waiting_events = queue_.size();
    figures.sent_chunks = audio_.sent_chunks();
    figures.lost_chunks = audio_.lost_chunks();
    figures.waiting_chunks = audio_.size();
    figures.waiting_bytes = queue_.bytes() + audio_.bytes();
    return figures;
}

Publisher::News Engine::take_news() {
    const LockGuard lock(mutex_);
    return news_.take();
}

Publisher::Left Engine::left() const {
    const LockGuard lock(mutex_);
    return {spool_ != nullptr ? backlog_.size() : queue_.size(), audio_.size()};
}

bool Engine::waiting() const {
    return queue_.size() != 0 || audio_.size() != 0;
}

bool Engine::wait(milliseconds longest) {
    const auto until = Clock::now() + longest;
    const LockGuard lock(mutex_);
    while (waiting() && progress_.wait_until(mutex_, until)) {
    }
    return !waiting();
}

bool Engine::stop() {
    const LockGuard lock(mutex_);
    stopping_ = true;
    work_.notify_one();
    return wait_for_end(ended_);
}

bool Engine::stop_spool() {
    const LockGuard lock(mutex_);
    spool_stopping_ = true;
    spool_work_.notify_one();
    return wait_for_end(spool_ended_);
}

bool Engine::wait_for_end(const bool& ended) {
    const auto until = Clock::now() + PATIENCE_AT_THE_END;
    while (!ended && progress_.wait_until(mutex_, until)) {
    }
    return ended;
}

// The thread of run(), and the library's.

void Engine::connected(const std::string& url) {
    {
        const LockGuard lock(mutex_);
        connected_ = true;
        // What was under way may have been lost.
        queue_.send_again(Clock::time_point::max());
        news_.connected(url);
    }
    work_.notify_one();
}

void Engine::disconnected() {
    const LockGuard lock(mutex_);
    if (std::exchange(connected_, false) && !stopping_) {
        news_.tell("nats disconnected", "events and audio wait");
    }
}

void Engine::answered(Answer answer) {
    {
        const LockGuard lock(mutex_);
        if (answers_.size() < MOST_ANSWERS) {
            answers_.push_back(std::move(answer));
        }
    }
    work_.notify_one();
}

void Engine::trouble(const std::string& text) {
    const LockGuard lock(mutex_);
    news_.complain(text);
}

void Engine::stream_created(const std::string& name) {
    const LockGuard lock(mutex_);
    news_.tell("nats stream", name + " is there");
}

// The thread of run().

// Returns false at the end.
bool Engine::wait_for_work() {
    const LockGuard lock(mutex_);
    const auto tick = Clock::now() + TICK;
    while (!stopping_ && answers_.empty() && !has_work() && Clock::now() < tick) {
        work_.wait_until(mutex_, connected_ ? std::min(tick, audio_.next()) : tick);
    }
    if (queue_.send_again(Clock::now() - ANSWER_TIME) != 0 && connected_) {
        unanswered_ = true;
        news_.refused("no answer");
    }
    return !stopping_;
}

bool Engine::has_work() const {
    const auto now = Clock::now();
    return connected_ && (audio_.has_ready(now) ||
                          (queue_.under_way() < MOST_UNDER_WAY && queue_.has_ready(now)));
}

// Returns whether a stream may be missing.
bool Engine::take_answers() {
    const LockGuard lock(mutex_);
    bool stored = false;
    bool refused = false;
    // If others get the events, the server does not say that no stream does.
    bool missing = std::exchange(unanswered_, false);
    for (const Answer& answer : std::exchange(answers_, {})) {
        if (answer.too_long) {
            drop(answer.number);
            news_.complain("an event is longer than the stream allows");
            continue;
        }
        if (!answer.stored) {
            refused = true;
            news_.refused(answer.error);
            missing = missing || answer.no_stream;
            queue_.refused(answer.number, Clock::now() + RETRY);
            continue;
        }
        stored = true;
        const EventQueue::Event event = queue_.stored(answer.number);
        if (event != nullptr) {
            ++stored_events_;
            forget(event);
        }
    }
    // Some may be stored while others are refused, so the trouble ends only when none is.
    if (stored && !refused) {
        news_.stored();
    }
    return missing;
}

void Engine::send_events() {
    for (EventQueue::Entry entry = next_event(); entry.number != 0; entry = next_event()) {
        const Link::Outcome outcome = link_.send(*entry.event, entry.number);
        if (outcome != Link::Outcome::TAKEN) {
            note_not_sent(entry.number, outcome);
            return;
        }
    }
}

EventQueue::Entry Engine::next_event() {
    const LockGuard lock(mutex_);
    const bool may_send = connected_ && queue_.under_way() < MOST_UNDER_WAY;
    return may_send ? queue_.next(Clock::now()) : EventQueue::Entry{};
}

void Engine::note_not_sent(std::uint64_t number, Link::Outcome outcome) {
    const LockGuard lock(mutex_);
    if (outcome == Link::Outcome::FAILED) {
        queue_.refused(number, Clock::now() + RETRY);
    } else {
        drop(number);
    }
}

// The event can never be stored.
void Engine::drop(std::uint64_t number) {
    const EventQueue::Event dropped = queue_.drop(number);
    if (dropped != nullptr) {
        forget(dropped);
    }
}

void Engine::send_audio() {
    AudioQueue::Batch batch = next_audio();
    if (!batch.empty()) {
        const bool taken = send(batch);
        note_sent(std::move(batch), taken);
    }
}

AudioQueue::Batch Engine::next_audio() {
    const LockGuard lock(mutex_);
    return connected_ ? audio_.take(Clock::now()) : AudioQueue::Batch{};
}

// Returns whether the server has taken all of them. Those that it never takes leave the batch.
bool Engine::send(AudioQueue::Batch& batch) {
    for (auto chunk = batch.begin(); chunk != batch.end();) {
        const Link::Outcome outcome = link_.send(*chunk);
        if (outcome == Link::Outcome::FAILED) {
            return false;
        }
        if (outcome == Link::Outcome::TOO_LONG) {
            note_lost(*chunk);
            chunk = batch.erase(chunk);
        } else {
            ++chunk;
        }
    }
    return link_.flush() == Link::Outcome::TAKEN;
}

void Engine::note_lost(const EngineChunk& chunk) {
    const LockGuard lock(mutex_);
    audio_.lose(chunk);
}

void Engine::note_sent(AudioQueue::Batch batch, bool taken) {
    const LockGuard lock(mutex_);
    if (taken) {
        audio_.sent(batch);
    } else {
        // Whoever gets a chunk twice knows it by its sequence.
        audio_.put_back(std::move(batch), Clock::now() + TICK);
    }
}

// The thread of run_spool().

// Returns false at the end. Events that the spool need not keep any longer can wait for the tick.
bool Engine::wait_for_spool_work() {
    const LockGuard lock(mutex_);
    const auto tick = Clock::now() + TICK;
    while (!spool_stopping_ && !backlog_.has_ready(Clock::now()) &&
           spool_work_.wait_until(mutex_, tick)) {
    }
    return !spool_stopping_;
}

void Engine::write_spool() {
    std::string error = spool_->release(take_forgotten());
    for (auto events = to_spool(); error.empty() && !events.empty(); events = to_spool()) {
        error = spool_->keep(events);
        note_spooled(events, error.empty());
    }
    if (!error.empty()) {
        trouble("events are not kept on the disk: " + error);
    }
}

std::vector<std::string> Engine::take_forgotten() {
    const LockGuard lock(mutex_);
    if (spool_stopping_) {
        backlog_.retry_at_once();
    }
    return backlog_.take_forgotten();
}

std::vector<EventQueue::Event> Engine::to_spool() {
    const LockGuard lock(mutex_);
    return backlog_.next(Clock::now());
}

void Engine::note_spooled(const std::vector<EventQueue::Event>& events, bool kept) {
    const LockGuard lock(mutex_);
    if (kept) {
        backlog_.written(events);
    } else {
        backlog_.refused(Clock::now());
    }
}

}  // namespace qv::node::nats
