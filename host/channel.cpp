// The channel of a session, and the host functions about channels.
#include <strings.h>

#include <chrono>

#include "host/parts.h"
#include "host/session.h"

namespace qv::host {

bool CaseBlindLess::operator()(const std::string& left, const std::string& right) const {
    return strcasecmp(left.c_str(), right.c_str()) < 0;
}

Channel::Channel(const CallOptions& options, const std::string& uuid)
    : name_(options.name.empty() ? "embedded/" + uuid : options.name),
      direction_(options.direction),
      media_(options.media),
      has_times_(options.timetable),
      state_(options.state) {
    times_.created = options.created ? options.created : switch_time_now();
    times_.profile_created = times_.created;
    set_flag(CF_OUTBOUND, direction_ == SWITCH_CALL_DIRECTION_OUTBOUND);
    if (media_ == MediaState::EARLY) {
        set_flag(CF_EARLY_MEDIA, 1);
    }
    if (media_ == MediaState::EARLY || media_ == MediaState::ANSWERED) {
        set_flag(CF_MEDIA_SET, 1);
    }
    if (media_ == MediaState::ANSWERED) {
        mark_answered();
    }
    set_variable("uuid", uuid);
    set_variable("channel_name", name_);
    set_variable("direction",
                 direction_ == SWITCH_CALL_DIRECTION_OUTBOUND ? "outbound" : "inbound");
    for (const auto& [name, value] : options.variables) {
        set_variable(name, value);
    }
}

switch_channel_state_t Channel::state() const {
    const LockGuard guard(lock_);
    return state_;
}

switch_call_cause_t Channel::cause() const {
    const LockGuard guard(lock_);
    return cause_;
}

void Channel::set_state(switch_channel_state_t state) {
    const LockGuard guard(lock_);
    state_ = state;
}

void Channel::set_cause(switch_call_cause_t cause) {
    const LockGuard guard(lock_);
    cause_ = cause;
}

bool Channel::hang_up(switch_call_cause_t cause) {
    const LockGuard guard(lock_);
    if (hung_up_) {
        return false;
    }
    hung_up_ = true;
    state_ = CS_HANGUP;
    cause_ = cause;
    times_.hungup = switch_time_now();
    return true;
}

void Channel::mark_answered() {
    {
        const LockGuard guard(lock_);
        times_.answered = switch_time_now();
    }
    set_flag(CF_MEDIA_SET, 1);
    set_flag(CF_ANSWERED, 1);
}

std::uint32_t Channel::flag(int flag) const {
    const auto index = static_cast<std::size_t>(flag);
    return index < FLAGS ? flags_[index].load() : 0;
}

void Channel::set_flag(int flag, std::uint32_t value) {
    const auto index = static_cast<std::size_t>(flag);
    if (index < FLAGS) {
        flags_[index] = value;
    }
}

bool Channel::ready(bool usable, bool media) const {
    if (media && !((flag(CF_ANSWERED) || flag(CF_EARLY_MEDIA)) && flag(CF_MEDIA_SET))) {
        return false;
    }
    if (!usable) {
        return media;
    }
    const LockGuard guard(lock_);
    return cause_ == SWITCH_CAUSE_NONE && state_ > CS_ROUTING && state_ < CS_HANGUP &&
           state_ != CS_RESET;
}

// A channel that has media stays as it is, even when it is not ready; one that cannot have
// media is hung up.
bool Channel::pre_answer() {
    if (down() || cause() != SWITCH_CAUSE_NONE) {
        return false;
    }
    if (flag(CF_ANSWERED) || flag(CF_EARLY_MEDIA)) {
        return true;
    }
    if (media_ == MediaState::REFUSED) {
        hang_up(SWITCH_CAUSE_INCOMPATIBLE_DESTINATION);
        return false;
    }
    set_flag(CF_MEDIA_SET, 1);
    set_flag(CF_EARLY_MEDIA, 1);
    return true;
}

void Channel::set_variable(const std::string& name, const std::string& value) {
    const LockGuard guard(lock_);
    texts_.push_back(value);
    variables_[name] = texts_.back().c_str();
}

const char* Channel::variable(const std::string& name) const {
    const LockGuard guard(lock_);
    const auto found = variables_.find(name);
    return found == variables_.end() ? nullptr : found->second;
}

const char* Channel::call_state() const {
    if (down()) {
        return "HANGUP";
    }
    if (flag(CF_ANSWERED)) {
        return "ACTIVE";
    }
    return flag(CF_EARLY_MEDIA) ? "EARLY" : "RINGING";
}

}  // namespace qv::host

using qv::host::current_host;
using qv::host::Fault;

extern "C" {

switch_channel_timetable_t* switch_channel_get_timetable(switch_channel_t* channel) {
    return current_host().faults.on(Fault::NO_TIMETABLE) ? nullptr
                                                         : channel->owner->channel().timetable();
}

// Returns the value itself as the copy, since values live as long as the channel.
const char* switch_channel_get_variable_dup(switch_channel_t* channel, const char* varname,
                                            switch_bool_t /*dup*/, int idx) {
    if (!varname || !*varname || idx > -1) {
        return nullptr;
    }
    const char* value = channel->owner->channel().variable(varname);
    return value ? value : current_host().variables.find(varname);
}

switch_call_direction_t switch_channel_direction(switch_channel_t* channel) {
    return channel->owner->channel().direction();
}

int switch_channel_test_ready(switch_channel_t* channel, switch_bool_t check_ready,
                              switch_bool_t check_media) {
    if (check_media && current_host().faults.on(Fault::MEDIA_NOT_READY)) {
        return 0;
    }
    return channel->owner->channel().ready(check_ready != SWITCH_FALSE,
                                           check_media != SWITCH_FALSE);
}

uint32_t switch_channel_test_flag(switch_channel_t* channel, switch_channel_flag_t flag) {
    return channel->owner->channel().flag(flag);
}

switch_channel_state_t switch_channel_get_state(switch_channel_t* channel) {
    return channel->owner->channel().state();
}

switch_call_cause_t switch_channel_get_cause(switch_channel_t* channel) {
    return channel->owner->channel().cause();
}

switch_bool_t switch_is_number(const char* str) {
    if (*str == '-' || *str == '+') {
        ++str;
    }
    while (*str == '.' || (*str >= '0' && *str <= '9')) {
        ++str;
    }
    return *str == '\0' ? SWITCH_TRUE : SWITCH_FALSE;
}

switch_time_t switch_time_now(void) {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}
}
