#include "host/session.h"

#include <algorithm>
#include <cstring>
#include <tuple>
#include <utility>

#include "host/media_threads.h"
#include "host/parts.h"

namespace qv::host {
namespace {

// The room in the buffer of every frame.
constexpr std::size_t FRAME_CAPACITY = 8192;

constexpr const char* STATE_NAMES[] = {
    "CS_NEW",       "CS_INIT",           "CS_ROUTING", "CS_SOFT_EXECUTE",
    "CS_EXECUTE",   "CS_EXCHANGE_MEDIA", "CS_PARK",    "CS_CONSUME_MEDIA",
    "CS_HIBERNATE", "CS_RESET",          "CS_HANGUP",  "CS_REPORTING",
    "CS_DESTROY",   "CS_NONE",
};

const char* state_name(switch_channel_state_t state) {
    const auto index = static_cast<std::size_t>(state);
    return index < std::size(STATE_NAMES) ? STATE_NAMES[index] : "UNKNOWN";
}

// The fields of a frame that a bug could change.
bool same(const switch_frame_t& left, const switch_frame_t& right) {
    const auto parts = [](const switch_frame_t& frame) {
        return std::tie(frame.codec, frame.data, frame.datalen, frame.buflen, frame.samples,
                        frame.rate, frame.channels, frame.payload, frame.timestamp, frame.seq,
                        frame.ssrc, frame.flags, frame.user_data);
    };
    return parts(left) == parts(right);
}

const char* answer_state(const Channel& channel) {
    if (channel.down()) {
        return "hangup";
    }
    if (channel.flag(CF_ANSWERED)) {
        return "answered";
    }
    return channel.flag(CF_EARLY_MEDIA) ? "early" : "ringing";
}

}  // namespace

bool ReadLock::try_lock() {
    const LockGuard guard(lock_);
    if (closed_) {
        return false;
    }
    ++holders_;
    return true;
}

bool ReadLock::unlock() {
    const LockGuard guard(lock_);
    if (holders_ == 0) {
        return false;
    }
    if (--holders_ == 0) {
        released_.notify_all();
    }
    return true;
}

bool ReadLock::close(std::chrono::milliseconds patience) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    const LockGuard guard(lock_);
    while (holders_ > 0 && released_.wait_until(lock_, deadline)) {
    }
    closed_ = true;
    return holders_ == 0;
}

std::size_t ReadLock::holders() const {
    const LockGuard guard(lock_);
    return holders_;
}

FrameResult MediaLeg::feed(const void* data, std::size_t size) {
    const LockGuard guard(lock_);
    reserve(size);
    if (size > 0) {
        std::memcpy(buffer_.data(), data, size);
    }
    return hand_out_buffer(static_cast<std::uint32_t>(size));
}

FrameResult MediaLeg::feed(switch_frame_t& frame) {
    const LockGuard guard(lock_);
    return hand_out(frame);
}

std::optional<FrameResult> MediaLeg::feed_from(FrameSource& source,
                                               std::chrono::nanoseconds lateness) {
    const LockGuard guard(lock_);
    reserve(FRAME_CAPACITY);
    const auto size = source.next(buffer_.data(), static_cast<std::uint32_t>(buffer_.size()));
    if (!size) {
        return std::nullopt;
    }
    stats_.worst_lateness = std::max(stats_.worst_lateness, lateness);
    if (lateness > session_.options().frame_time) {
        ++stats_.late_frames;
    }
    return hand_out_buffer(*size);
}

MediaStats MediaLeg::stats() const {
    const LockGuard guard(lock_);
    return stats_;
}

void MediaLeg::reserve(std::size_t size) {
    if (buffer_.size() < size) {
        buffer_.resize(std::max(size, FRAME_CAPACITY));
    }
}

FrameResult MediaLeg::hand_out_buffer(std::uint32_t size) {
    frame_.codec = session_.codec();
    frame_.data = buffer_.data();
    frame_.datalen = size;
    frame_.buflen = static_cast<std::uint32_t>(buffer_.size());
    frame_.samples = size / 2;
    frame_.rate = session_.options().rate;
    frame_.channels = 1;
    const FrameResult result = hand_out(frame_);
    frame_.timestamp += frame_.samples;
    ++frame_.seq;
    return result;
}

FrameResult MediaLeg::hand_out(switch_frame_t& frame) {
    ++stats_.frames;
    stats_.bytes += frame.datalen;
    FrameResult result;
    result.bytes = frame.datalen;
    if (!session_.bugs().any()) {
        return result;
    }
    const auto* data = static_cast<const std::uint8_t*>(frame.data);
    original_.assign(data, data + (data ? frame.datalen : 0));
    const switch_frame_t before = frame;

    const auto begin = std::chrono::steady_clock::now();
    const Delivery delivery = session_.bugs().deliver(direction_, frame);
    result.handling = std::chrono::steady_clock::now() - begin;

    result.bugs = delivery.bugs;
    result.given = delivery.given;
    result.altered = !same(before, frame) || !std::equal(original_.begin(), original_.end(), data);
    stats_.handling_time += result.handling;
    stats_.worst_handling = std::max(stats_.worst_handling, result.handling);
    auto& counters = current_host().counters;
    counters.frames_delivered += result.bugs;
    counters.frames_altered += result.altered ? 1 : 0;
    return result;
}

Session::Session(CallOptions options, std::string uuid)
    : options_(std::move(options)),
      uuid_(std::move(uuid)),
      handle_(new switch_core_session{this, {this}}),
      codec_name_(options_.codec.value_or("")),
      channel_(options_, uuid_),
      bugs_(*this),
      read_(*this, Direction::READ),
      write_(*this, Direction::WRITE) {
    const auto samples =
        static_cast<std::uint32_t>(options_.rate * options_.frame_time.count() / 1000000);
    implementation_.iananame = options_.codec ? codec_name_.data() : nullptr;
    implementation_.samples_per_second = options_.rate;
    implementation_.actual_samples_per_second = options_.rate;
    implementation_.microseconds_per_packet = static_cast<int>(options_.frame_time.count());
    implementation_.samples_per_packet = samples;
    implementation_.decoded_bytes_per_packet = samples * 2;
    implementation_.number_of_channels = 1;
    codec_.implementation = &implementation_;
    codec_.session = handle_.get();
}

Session::~Session() = default;

bool Session::execute(const std::string& application, const std::string& data) {
    const LockGuard guard(thread_lock_);
    auto& host = current_host();
    const auto found = host.registry.application(application);
    if (!found || over()) {
        return false;
    }
    const Inside inside(host.counters.applications_inside);
    fire(SWITCH_EVENT_CHANNEL_EXECUTE, {{"Application", application}, {"Application-Data", data}});
    found->application_function(handle(), data.c_str());
    fire(SWITCH_EVENT_CHANNEL_EXECUTE_COMPLETE,
         {{"Application", application}, {"Application-Data", data}});
    return true;
}

bool Session::hangup(switch_call_cause_t cause) {
    if (over_.exchange(true)) {
        return false;
    }
    const auto self = shared_from_this();
    channel_.hang_up(cause);
    fire(SWITCH_EVENT_CHANNEL_HANGUP);
    {
        const LockGuard plan(plan_lock_);
        stop_stream(Direction::READ);
    }
    const LockGuard guard(thread_lock_);
    bugs_.close_all();
    channel_.set_state(CS_REPORTING);
    fire(SWITCH_EVENT_CHANNEL_HANGUP_COMPLETE);
    stop_media();
    destroy();
    return true;
}

// The last steps of the session's thread.
void Session::destroy() {
    auto& host = current_host();
    channel_.set_state(CS_DESTROY);
    const bool free = read_lock_.close(host.options.lock_patience);
    bugs_.close_all();
    host.sessions.remove(uuid_);
    fire(SWITCH_EVENT_CHANNEL_DESTROY);
    if (free) {
        handle_.reset();
        return;
    }
    ++host.counters.sessions_destroyed_locked;
    host.log.note(SWITCH_LOG_CRIT, "session " + uuid_ + " ends under " +
                                       std::to_string(read_lock_.holders()) + " read locks");
    host.sessions.keep(shared_from_this());
}

void Session::start_media(MediaPlan plan) {
    const LockGuard guard(plan_lock_);
    stop_stream(Direction::READ);
    stop_stream(Direction::WRITE);
    if (over()) {
        return;
    }
    {
        const LockGuard ends(ends_lock_);
        streams_left_ = (plan.read ? 1 : 0) + (plan.write ? 1 : 0);
    }
    start_stream(Direction::READ, std::move(plan.read), plan);
    start_stream(Direction::WRITE, std::move(plan.write), plan);
}

void Session::start_stream(Direction direction, std::unique_ptr<FrameSource> source,
                           const MediaPlan& plan) {
    if (!source) {
        return;
    }
    Playing& playing = playing_[static_cast<std::size_t>(direction)];
    playing.stream =
        std::make_shared<MediaStream>(*this, direction, std::move(source), plan.observer, plan.pace,
                                      MediaStream::Clock::now() + plan.delay);
    if (plan.threads == MediaThreads::OWN) {
        playing.own_thread = std::make_unique<MediaThread>();
    }
    playing.thread =
        playing.own_thread ? playing.own_thread.get() : &current_host().pool.thread_for(direction);
    playing.thread->add(playing.stream);
}

void Session::stop_stream(Direction direction) {
    Playing& playing = playing_[static_cast<std::size_t>(direction)];
    if (playing.stream) {
        playing.thread->remove(playing.stream);
    }
    playing = {};
}

void Session::stop_media() {
    {
        const LockGuard guard(plan_lock_);
        stop_stream(Direction::READ);
        stop_stream(Direction::WRITE);
    }
    const LockGuard ends(ends_lock_);
    ended_.notify_all();
}

void Session::media_ended() {
    const LockGuard guard(ends_lock_);
    --streams_left_;
    ended_.notify_all();
}

bool Session::wait_media(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    const LockGuard guard(ends_lock_);
    while (streams_left_ > 0 && !over() && ended_.wait_until(ends_lock_, deadline)) {
    }
    return streams_left_ == 0;
}

Event Session::event(int id, std::vector<std::pair<std::string, std::string>> more) {
    Event event;
    event.id = id;
    event.headers = {
        {"Event-Name", event_name(id)},
        {"Event-Date-Timestamp", std::to_string(switch_time_now())},
        {"Channel-State", state_name(channel_.state())},
        {"Channel-Call-State", channel_.call_state()},
        {"Channel-State-Number", std::to_string(channel_.state())},
        {"Channel-Name", channel_.name()},
        {"Unique-ID", uuid_},
        {"Call-Direction",
         channel_.direction() == SWITCH_CALL_DIRECTION_OUTBOUND ? "outbound" : "inbound"},
        {"Answer-State", answer_state(channel_)},
    };
    std::move(more.begin(), more.end(), std::back_inserter(event.headers));
    return event;
}

void Session::fire(int id, std::vector<std::pair<std::string, std::string>> more) {
    EventBus& events = current_host().events;
    if (events.wanted(id)) {
        events.fire(event(id, std::move(more)));
    }
}

}  // namespace qv::host

using qv::host::current_host;
using qv::host::Fault;

extern "C" {

switch_channel_t* switch_core_session_get_channel(switch_core_session_t* session) {
    return &session->channel;
}

char* switch_core_session_get_uuid(switch_core_session_t* session) {
    static char garbage[] = "not-a-uuid";
    if (current_host().faults.on(Fault::UUID_GARBAGE)) {
        return garbage;
    }
    return const_cast<char*>(session->owner->uuid().c_str());
}

switch_core_session_t* switch_core_session_perform_locate(const char* uuid_str,
                                                          const char* /*file*/,
                                                          const char* /*func*/, int /*line*/) {
    auto& host = current_host();
    if (!uuid_str || host.faults.on(Fault::SESSION_NOT_FOUND)) {
        return nullptr;
    }
    return host.sessions.locate(uuid_str);
}

void switch_core_session_rwunlock(switch_core_session_t* session) {
    auto& counters = current_host().counters;
    if (session->owner->read_lock().unlock()) {
        --counters.read_locks_held;
    } else {
        ++counters.unlocks_without_lock;
    }
}
}
