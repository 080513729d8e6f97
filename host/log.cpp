#include "host/log.h"

#include <algorithm>
#include <utility>

#include "host/formatted.h"
#include "host/parts.h"
#include "host/session.h"

namespace qv::host {
namespace {

// User data of the session channel is a session; its UUID is recorded.
std::optional<std::string> userdata_text(switch_text_channel_t channel, const char* userdata) {
    if (!userdata) {
        return std::nullopt;
    }
    if (channel != SWITCH_CHANNEL_ID_SESSION) {
        return userdata;
    }
    return reinterpret_cast<const switch_core_session*>(userdata)->owner->uuid();
}

std::optional<std::string> text_of(const char* text) {
    return text ? std::optional<std::string>(text) : std::nullopt;
}

}  // namespace

void Log::set_recording(bool on) {
    const LockGuard guard(lock_);
    recording_ = on;
    formatting_ = recording_ || listener_;
}

void Log::set_listener(Listener listener) {
    const LockGuard guard(lock_);
    listener_ = std::move(listener);
    formatting_ = recording_ || listener_;
}

std::vector<LogLine> Log::lines() const {
    std::vector<LogLine> found;
    const LockGuard guard(lock_);
    std::copy_if(lines_.begin(), lines_.end(), std::back_inserter(found),
                 [](const LogLine& line) { return !line.by_host; });
    return found;
}

std::vector<LogLine> Log::all_lines() const {
    const LockGuard guard(lock_);
    return lines_;
}

std::size_t Log::count_locked(const std::string& part) const {
    return static_cast<std::size_t>(
        std::count_if(lines_.begin(), lines_.end(), [&part](const LogLine& line) {
            return !line.by_host && line.text.find(part) != std::string::npos;
        }));
}

std::size_t Log::count(const std::string& part) const {
    const LockGuard guard(lock_);
    return count_locked(part);
}

bool Log::wait_for(const std::string& part, std::chrono::milliseconds timeout) const {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    const LockGuard guard(lock_);
    while (count_locked(part) == 0) {
        if (!added_.wait_until(lock_, deadline)) {
            return count_locked(part) > 0;
        }
    }
    return true;
}

void Log::clear() {
    const LockGuard guard(lock_);
    lines_.clear();
}

void Log::write(LogLine line, va_list arguments) {
    line.text = formatted(line.format.c_str(), arguments).value_or(line.format);
    keep(std::move(line));
}

void Log::note(switch_log_level_t level, const std::string& text) {
    if (!formatting()) {
        return;
    }
    LogLine line;
    line.level = level;
    line.format = "%s\n";
    line.text = text + "\n";
    line.by_host = true;
    keep(std::move(line));
}

void Log::keep(LogLine line) {
    const LockGuard guard(lock_);
    if (listener_) {
        listener_(line);
    }
    if (!recording_) {
        return;
    }
    lines_.push_back(std::move(line));
    added_.notify_all();
}

}  // namespace qv::host

extern "C" void switch_log_printf(switch_text_channel_t channel, const char* file, const char* func,
                                  int line, const char* userdata, switch_log_level_t level,
                                  const char* fmt, ...) {
    auto& log = qv::host::current_host().log;
    if (!log.formatting()) {
        return;
    }
    qv::host::LogLine record;
    record.channel = channel;
    record.level = level;
    record.file = qv::host::text_of(file);
    record.function = qv::host::text_of(func);
    record.line = line;
    record.userdata = qv::host::userdata_text(channel, userdata);
    record.format = fmt;
    va_list arguments;
    va_start(arguments, fmt);
    log.write(std::move(record), arguments);
    va_end(arguments);
}
