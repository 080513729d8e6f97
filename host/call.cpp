#include "host/call.h"

#include <utility>

#include "host/session.h"

namespace qv::host {

Call::Call(std::shared_ptr<Session> session) : session_(std::move(session)) {}

Call::~Call() {
    hangup();
}

const std::string& Call::uuid() const {
    return session_->uuid();
}

bool Call::alive() const {
    return !session_->over();
}

switch_core_session_t* Call::session() const {
    return session_->handle();
}

switch_channel_t* Call::channel() const {
    return session_->handle() ? &session_->handle()->channel : nullptr;
}

bool Call::execute(const std::string& application, const std::string& data) {
    return session_->execute(application, data);
}

void Call::set_variable(const std::string& name, const std::string& value) {
    session_->channel().set_variable(name, value);
}

std::optional<std::string> Call::variable(const std::string& name) const {
    const char* value = session_->channel().variable(name);
    return value ? std::optional<std::string>(value) : std::nullopt;
}

void Call::set_state(switch_channel_state_t state) {
    session_->channel().set_state(state);
}

void Call::set_cause(switch_call_cause_t cause) {
    session_->channel().set_cause(cause);
}

void Call::set_flag(switch_channel_flag_t flag, std::uint32_t value) {
    session_->channel().set_flag(flag, value);
}

void Call::answer() {
    session_->channel().mark_answered();
    session_->fire(SWITCH_EVENT_CHANNEL_ANSWER);
}

FrameResult Call::feed(Direction direction, const void* data, std::size_t size) {
    return session_->leg(direction).feed(data, size);
}

FrameResult Call::feed(Direction direction, switch_frame_t& frame) {
    return session_->leg(direction).feed(frame);
}

void Call::start_media(MediaPlan plan) {
    session_->start_media(std::move(plan));
}

bool Call::wait_media(std::chrono::milliseconds timeout) {
    return session_->wait_media(timeout);
}

void Call::stop_media() {
    session_->stop_media();
}

MediaStats Call::media_stats(Direction direction) const {
    return session_->leg(direction).stats();
}

std::vector<BugInfo> Call::bugs() const {
    return session_->bugs().infos();
}

bool Call::raise(switch_abc_type_t type) {
    return session_->bugs().raise(type);
}

void Call::remove_bugs() {
    session_->bugs().close_all();
}

bool Call::hangup(switch_call_cause_t cause) {
    return session_->hangup(cause);
}

}  // namespace qv::host
