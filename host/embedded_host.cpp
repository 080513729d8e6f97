#include "host/embedded_host.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <stdexcept>
#include <utility>

#include "host/answer_stream.h"
#include "host/parts.h"
#include "host/session.h"

namespace qv::host {
namespace {

std::atomic<EmbeddedHost::Parts*> the_host{nullptr};

constexpr char BLANKS[] = " \t\r\n";

std::string stripped(const std::string& text) {
    const auto begin = text.find_first_not_of(BLANKS);
    if (begin == std::string::npos) {
        return "";
    }
    return text.substr(begin, text.find_last_not_of(BLANKS) - begin + 1);
}

// A version 4 UUID in its usual text form.
std::string random_uuid() {
    static thread_local std::mt19937_64 random{std::random_device{}()};
    const std::uint64_t high = (random() & ~0xF000ULL) | 0x4000ULL;
    const std::uint64_t low = (random() & ~(3ULL << 62)) | (2ULL << 62);
    char text[37];
    std::snprintf(text, sizeof(text), "%08x-%04x-%04x-%04x-%012llx",
                  static_cast<unsigned>(high >> 32), static_cast<unsigned>(high >> 16) & 0xFFFFu,
                  static_cast<unsigned>(high) & 0xFFFFu, static_cast<unsigned>(low >> 48),
                  static_cast<unsigned long long>(low & 0xFFFFFFFFFFFFULL));
    return text;
}

std::string or_empty(const char* text) {
    return text ? text : "";
}

}  // namespace

EmbeddedHost::Parts& current_host() {
    EmbeddedHost::Parts* host = the_host.load();
    if (!host) {
        std::fputs("a function of the host was called while there is no host\n", stderr);
        std::abort();
    }
    return *host;
}

void GlobalVariables::set(const std::string& name, const std::string& value) {
    const LockGuard guard(lock_);
    texts_.push_back(value);
    values_[name] = texts_.back().c_str();
}

const char* GlobalVariables::find(const std::string& name) const {
    const LockGuard guard(lock_);
    const auto found = values_.find(name);
    return found == values_.end() ? nullptr : found->second;
}

EmbeddedHost::EmbeddedHost(HostOptions options) : parts_(std::make_unique<Parts>(options)) {
    Parts* none = nullptr;
    if (!the_host.compare_exchange_strong(none, parts_.get())) {
        throw std::logic_error("there is an embedded host in this process already");
    }
}

EmbeddedHost::~EmbeddedHost() {
    for (const auto& session : parts_->sessions.all()) {
        session->hangup(SWITCH_CAUSE_SYSTEM_SHUTDOWN);
    }
    parts_->events.wait_drained();
    parts_->loader.unload_all();
    parts_->events.stop();
    the_host = nullptr;
}

LoadResult EmbeddedHost::load_module(const std::string& path) {
    return parts_->loader.load(path);
}

UnloadResult EmbeddedHost::unload_module(const std::string& name) {
    return parts_->loader.unload(name);
}

UnloadResult EmbeddedHost::shutdown_module(const std::string& name) {
    return parts_->loader.shutdown(name);
}

std::vector<ApplicationInfo> EmbeddedHost::applications() const {
    std::vector<ApplicationInfo> all;
    for (const auto* item : parts_->registry.applications()) {
        all.push_back({or_empty(item->interface_name), or_empty(item->short_desc),
                       or_empty(item->long_desc), or_empty(item->syntax), item->flags});
    }
    return all;
}

std::vector<ApiInfo> EmbeddedHost::apis() const {
    std::vector<ApiInfo> all;
    for (const auto* item : parts_->registry.apis()) {
        all.push_back(
            {or_empty(item->interface_name), or_empty(item->desc), or_empty(item->syntax)});
    }
    return all;
}

std::vector<std::string> EmbeddedHost::completions() const {
    return parts_->registry.completions();
}

std::unique_ptr<Call> EmbeddedHost::start_call(CallOptions options) {
    std::string uuid = options.uuid.empty() ? random_uuid() : options.uuid;
    auto session = std::make_shared<Session>(std::move(options), std::move(uuid));
    if (!parts_->sessions.add(session)) {
        throw std::invalid_argument("a call with the UUID " + session->uuid() + " is alive");
    }
    session->fire(SWITCH_EVENT_CHANNEL_CREATE);
    if (session->channel().flag(CF_ANSWERED)) {
        session->fire(SWITCH_EVENT_CHANNEL_ANSWER);
    }
    return std::make_unique<Call>(std::move(session));
}

void EmbeddedHost::set_global_variable(const std::string& name, const std::string& value) {
    parts_->variables.set(name, value);
}

ApiAnswer EmbeddedHost::api(const std::string& command_line) {
    const std::string line = stripped(command_line);
    const auto end = std::min(line.find_first_of(BLANKS), line.size());
    const std::string arguments = stripped(line.substr(end));
    AnswerStream stream;
    ApiAnswer answer;
    answer.status = call_api(line.substr(0, end), arguments.c_str(), nullptr, stream.get());
    if (answer.status == SWITCH_STATUS_NOTFOUND) {
        stream.get()->write_function(stream.get(), "INVALID COMMAND!\n");
    } else if (answer.status != SWITCH_STATUS_SUCCESS) {
        stream.get()->write_function(stream.get(), "COMMAND RETURNED ERROR!\n");
    }
    answer.text = stream.text();
    return answer;
}

switch_status_t EmbeddedHost::call_api(const std::string& command, const char* arguments,
                                       switch_core_session_t* session,
                                       switch_stream_handle_t* stream) {
    const auto found = parts_->registry.api(command);
    if (!found) {
        return SWITCH_STATUS_NOTFOUND;
    }
    ++parts_->counters.api_calls;
    const Inside inside(parts_->counters.api_calls_inside);
    return found->function(arguments, session, stream);
}

Log& EmbeddedHost::log() {
    return parts_->log;
}

EventBus& EmbeddedHost::events() {
    return parts_->events;
}

Faults& EmbeddedHost::faults() {
    return parts_->faults;
}

Report EmbeddedHost::report() const {
    const Counters& counters = parts_->counters;
    Report report;
    report.modules_loaded = parts_->loader.modules();
    report.sessions_alive = parts_->sessions.size();
    report.read_locks_held = counters.read_locks_held;
    report.bugs_attached = counters.bugs_attached;
    report.bindings_alive = parts_->events.bindings();
    report.api_calls_inside = counters.api_calls_inside;
    report.applications_inside = counters.applications_inside;
    report.read_locks_taken = counters.read_locks_taken;
    report.unlocks_without_lock = counters.unlocks_without_lock;
    report.sessions_destroyed_locked = counters.sessions_destroyed_locked;
    report.bugs_added = counters.bugs_added;
    report.bugs_refused = counters.bugs_refused;
    report.bugs_pruned = counters.bugs_pruned;
    report.bugs_closed = counters.bugs_closed;
    report.frames_delivered = counters.frames_delivered;
    report.frames_altered = counters.frames_altered;
    report.events_delivered = parts_->events.delivered();
    report.api_calls = counters.api_calls;
    return report;
}

}  // namespace qv::host
