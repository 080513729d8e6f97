// The module's life and the lives of the calls. The packets, the options of a call and the API
// are in module_model_packets.cpp, module_model_variables.cpp and module_model_api.cpp.
#include "fuzz/support/module_model.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "fuzz/support/require.h"
#include "fuzz/support/uuid_model.h"

namespace qv::fuzz {

namespace {

constexpr char PATH[] = "etc/delmaren/quorvane/freeswitch_mod.conf";

// By Level.
constexpr int HOST_LEVELS[] = {5, 3, 4, 6, 7, 101};
constexpr int HOST_ERROR = 3;
constexpr int HOST_CRITICAL = 2;

// The reason of a start packet's wait, and a little more, because the module looks only now and
// then whether there is room.
constexpr std::int64_t START_PATIENCE_US = 250000;
constexpr std::int64_t POLL_US = 5000;

// The host's numbers.
constexpr int CHANNEL_DESTROY = 3;
constexpr int FIRST_CHANNEL_EVENT = 2;
constexpr int LAST_CHANNEL_EVENT = 22;
constexpr int STATE_EXECUTE = 4;
constexpr int STATE_HANGUP = 10;
constexpr int CAUSE_INCOMPATIBLE_DESTINATION = 88;

unsigned value_of_digit(char c) {
    const char digits[] = "0123456789abcdef";
    const char lower = c >= 'A' && c <= 'F' ? static_cast<char>(c + ('a' - 'A')) : c;
    return static_cast<unsigned>(std::strchr(digits, lower) - digits);
}

// CRC-64 bit by bit: polynomial of ECMA-182, most significant bit first, nothing inverted.
std::uint64_t crc64(const Bytes& bytes) {
    std::uint64_t crc = 0;
    for (const std::uint8_t byte : bytes) {
        for (int bit = 7; bit >= 0; --bit) {
            const bool one = ((crc >> 63) ^ (byte >> bit & 1u)) != 0;
            crc = (crc << 1) ^ (one ? 0x42F0E1EBA9EA3693 : 0);
        }
    }
    return crc;
}

}  // namespace

std::string line_text(int host_level, const std::string& session, const std::string& text) {
    return "line of level " + std::to_string(host_level) + " for [" + session + "]: " + text;
}

IdentityModel identity_of(const std::string& uuid_text) {
    IdentityModel identity;
    std::string digits;
    identity.valid = read_uuid(uuid_text, digits);
    for (std::size_t i = 0; identity.valid && i < 16; ++i) {
        identity.uuid[i] = static_cast<std::uint8_t>(16 * value_of_digit(digits[2 * i]) +
                                                     value_of_digit(digits[2 * i + 1]));
    }
    identity.key = crc64(identity.uuid);
    return identity;
}

void ModuleModel::begin(std::int64_t steady_us, std::int64_t wall_us,
                        std::vector<SendAttempt> attempts) {
    earliest_us_ = latest_us_ = steady_us;
    wall_us_ = wall_us;
    attempts_ = std::move(attempts);
    next_attempt_ = 0;
}

// ---- output -----------------------------------------------------------------------

void ModuleModel::line(Level level, const CallModel* call, const std::string& text) {
    if (level <= level_) {
        output_.push_back(line_text(HOST_LEVELS[static_cast<int>(level)],
                                    call == nullptr ? "" : call->uuid,
                                    "[quorvane]: " + text + "\n"));
    }
}

void ModuleModel::event_line(Level level, const std::string& text) {
    if (level <= level_) {
        event_lines_.push_back(
            line_text(HOST_LEVELS[static_cast<int>(level)], "", "[quorvane]: " + text + "\n"));
    }
}

// ---- load and unload --------------------------------------------------------------

void ModuleModel::load(const ConfigurationFile& file) {
    if (loaded_) {
        return;
    }
    level_ = Level::INFO;
    options_ = OptionsModel();
    line(Level::SYSTEM, nullptr, "build version: \"" + build_ + "\"");
    if (!read(file)) {
        line(Level::ERROR, nullptr, std::string("failed to load config file [") + PATH + "]");
        return;
    }
    if (options_.level == Level::SYSTEM) {
        return;  // With an exception.
    }
    level_ = options_.level;
    line(Level::SYSTEM, nullptr, "configuration loaded");
    if (!open_socket()) {
        return;
    }
    line(Level::SYSTEM, nullptr, "transfer socket opened");
    if (!bind_hooks()) {
        return;
    }
    drop_taps_of_ended_calls();
    loaded_ = true;
    line(Level::SYSTEM, nullptr, "module has been loaded");
}

bool ModuleModel::read(const ConfigurationFile& file) {
    if (file.kind == ConfigurationFile::Kind::MISSING) {
        line(Level::ERROR, nullptr,
             std::string("CONFIGURATION: failed to open file [") + PATH + "]");
        return false;
    }
    line(Level::SYSTEM, nullptr, std::string("CONFIGURATION: reading from file [") + PATH + "]");
    const bool folder = file.kind == ConfigurationFile::Kind::FOLDER;
    const bool usable = options_.read(folder ? "" : file.text);
    for (const OptionsModel::Line& read : options_.lines) {
        line(read.level, nullptr, read.text);
    }
    if (folder) {
        line(Level::WARNING, nullptr,
             std::string("config file [") + PATH + "] is a folder: default values are used");
    }
    return usable;
}

bool ModuleModel::open_socket() {
    if (socket_open_) {
        return true;
    }
    if (socket_error != 0) {
        line(Level::ERROR, nullptr,
             "SOCKET[ ]: failed to create a socket, error (" + std::to_string(socket_error) +
                 "): " + std::strerror(socket_error));
        return false;
    }
    socket_open_ = true;
    socket_number_ = reserved_number_ >= 0 ? reserved_number_ : last_socket;
    reserved_number_ = -1;
    if (bind_error != 0) {
        line(Level::ERROR, nullptr,
             "SOCKET[" + std::to_string(socket_number_) + "]: failed to bind a socket, error (" +
                 std::to_string(bind_error) + "): " + std::strerror(bind_error));
        return false;
    }
    return true;
}

bool ModuleModel::bind_hooks() {
    destroy_hook_ = !faults.bind_destroy_fails && !faults.no_memory;
    if (!destroy_hook_) {
        output_.push_back(
            line_text(HOST_ERROR, "", "[quorvane]: couldn't bind channel destroy event hook!\n"));
        return false;
    }
    dump_hook_ = options_.dump_events != "none" && !faults.bind_all_fails;
    if (options_.dump_events != "none" && !dump_hook_) {
        output_.push_back(line_text(HOST_ERROR, "", "[quorvane]: couldn't bind event hook!\n"));
        return false;
    }
    return true;
}

void ModuleModel::unload() {
    if (!loaded_) {
        return;
    }
    const bool tapped = std::any_of(calls.begin(), calls.end(),
                                    [](const CallModel& call) { return !call.bugs.empty(); });
    reserved_number_ = tapped ? socket_number_ : -1;
    socket_open_ = false;
    socket_number_ = -1;
    dump_hook_ = false;
    destroy_hook_ = false;
    loaded_ = false;
    line(Level::SYSTEM, nullptr, "module has been shutdown");
}

// While the module was unloaded it missed the ends of calls.
void ModuleModel::drop_taps_of_ended_calls() {
    for (auto entry = registry_.begin(); entry != registry_.end();) {
        bool in_use = false;
        for (const CallModel& call : calls) {
            in_use = in_use || std::count(call.bugs.begin(), call.bugs.end(), entry->second) > 0;
        }
        const bool gone = !in_use && find_session(entry->second->session) == nullptr;
        entry = gone ? registry_.erase(entry) : std::next(entry);
    }
}

// ---- the application --------------------------------------------------------------

Texts ModuleModel::registered_names() const {
    Texts names;
    for (const auto& [key, tap] : registry_) {
        names.push_back(tap->name);
    }
    return names;
}

// The host's session of this name, with its read lock.
const CallModel* ModuleModel::find_session(const std::string& name) const {
    const CallModel* found = nullptr;
    for (const CallModel& call : calls) {
        if (call.alive && call.uuid == name) {
            found = &call;
        } else if (call.alive && found == nullptr && !name.empty() && call.external_id == name) {
            found = &call;
        }
    }
    const bool hidden = faults.session_not_found || (found != nullptr && found->hung_up);
    return hidden ? nullptr : found;
}

bool ModuleModel::needs_memory_for(const CallModel& call) const {
    const IdentityModel identity = identity_of(faults.uuid_garbage ? "not-a-uuid" : call.uuid);
    return loaded_ && identity.valid && registry_.count(identity.key) == 0;
}

void ModuleModel::run_application(CallModel& call, bool memory) {
    if (!loaded_ || !call.alive) {
        return;
    }
    line(Level::INFO, &call, "application execution started");
    const std::string uuid_text = faults.uuid_garbage ? "not-a-uuid" : call.uuid;
    const IdentityModel identity = identity_of(uuid_text);
    if (!identity.valid) {
        line(Level::ERROR, &call, "MAGIC: failed to parse session uuid: " + uuid_text);
        return;
    }
    const Tap tap = claim(call, identity.key, memory);
    if (tap == nullptr) {
        return;
    }
    tap->session = uuid_text;
    if (call.created_us && !faults.no_timetable) {
        tap->created_us = *call.created_us;
    } else {
        line(Level::ERROR, &call, "MAGIC: failed to get channel timetable");
    }
    tap->uuid = identity.uuid;
    tap->key = identity.key;
    if (!configure(call, *tap)) {
        line(Level::ERROR, &call, "failed to configure application context");
        return;
    }
    attach(call, tap);
}

// Null if the application has run on this call, or without memory.
Tap ModuleModel::claim(const CallModel& call, std::uint64_t key, bool memory) {
    const auto found = registry_.find(key);
    if (found == registry_.end() && !memory) {
        line(Level::ERROR, &call, "app context allocation failure (is there enough memory?)");
        return nullptr;
    }
    if (found == registry_.end()) {
        line(Level::SYSTEM, &call, "app context added, id: " + std::to_string(key));
        const auto tap = std::make_shared<TapModel>();
        tap->legs[1].word = 0x8000;
        tap->name = call.uuid;
        registry_[key] = tap;
        return tap;
    }
    if (found->second->created_us != 0) {
        line(Level::WARNING, &call, "app context already configured; ignoring");
        return nullptr;
    }
    line(Level::SYSTEM, &call, "app context found; configuring");
    return found->second;
}

bool ModuleModel::ready(const CallModel& call) const {
    const bool has_media = call.media == Media::ANSWERED || call.media == Media::EARLY;
    return has_media && !call.hung_up && !faults.media_not_ready;
}

// What the host does before it attaches a bug. A call without any media is hung up.
bool ModuleModel::make_ready(CallModel& call) {
    if (call.hung_up) {
        return false;
    }
    if (call.media == Media::ON_DEMAND) {
        call.media = Media::EARLY;
    }
    call.hung_up = call.media == Media::REFUSED;
    return !call.hung_up;
}

void ModuleModel::attach(CallModel& call, const Tap& tap) {
    if (!ready(call)) {
        line(Level::WARNING, &call, "session media is not ready!");
    }
    bool attached = !faults.bug_refused && !faults.no_memory && make_ready(call);
    if (attached) {
        attached = start_bug(call, *tap);
        if (!attached && faults.refused_bug_closed) {
            close_bug(call, tap);
        }
        attached = attached && !faults.bug_lost;
    }
    if (attached) {
        call.bugs.push_back(tap);
        line(Level::INFO, &call, "new media bug added");
        return;
    }
    const bool has_codec = call.media == Media::ANSWERED || call.media == Media::EARLY;
    line(Level::ERROR, &call,
         std::string("failed to add new media bug; media ready: ") + (ready(call) ? "1" : "0") +
             ", CF_MEDIA: " + (has_codec ? "1" : "0") +
             ", state: " + std::to_string(call.hung_up ? STATE_HANGUP : STATE_EXECUTE) +
             ", cause: " + std::to_string(call.hung_up ? CAUSE_INCOMPATIBLE_DESTINATION : 0));
}

bool ModuleModel::start_bug(const CallModel& call, TapModel& tap) {
    if (socket_open_ && room_at_us > latest_us_) {
        earliest_us_ = std::min(room_at_us, earliest_us_ + START_PATIENCE_US);
        latest_us_ = earliest_us_ + POLL_US;
    }
    tap.features.merge(tap.requested);
    tap.requested = tap.features;
    tap.start_sent = send_start(call, tap);
    if (tap.start_sent) {
        line(Level::INFO, &call, "media transfer started");
    } else {
        line(Level::ERROR, &call, "media transfer start failed");
    }
    return tap.start_sent;
}

// ---- frames and the end -----------------------------------------------------------

void ModuleModel::frame(CallModel& call, int leg, const std::uint8_t* data, std::size_t size) {
    for (const Tap& tap : call.bugs) {
        if (!faults.no_frame && !send_data(call, *tap, leg, data, size)) {
            line(Level::ERROR, &call,
                 std::string("media transfer failed to send ") + (leg == 0 ? "read" : "write") +
                     " frame");
        }
    }
}

void ModuleModel::close_bug(const CallModel& call, const Tap& tap) {
    if (send_terminate(call, *tap)) {
        line(Level::INFO, &call, "media transfer terminated");
    } else {
        line(Level::ERROR, &call, "media transfer termination failed");
    }
    const std::uint32_t odd_frames = tap->legs[0].odd_frames + tap->legs[1].odd_frames;
    if (odd_frames != 0) {
        line(Level::ERROR, &call, "detected (" + std::to_string(odd_frames) + ") odd frames");
    }
    line(Level::INFO, &call,
         "transfered " + std::to_string(tap->legs[0].bytes) + "/" +
             std::to_string(tap->legs[1].bytes) + " bytes of media");
    if (registry_.erase(tap->key) == 0) {
        line(Level::ERROR, &call, "MAGIC: app context is not found on media transfer termination");
    }
}

void ModuleModel::remove_bugs(CallModel& call) {
    for (const Tap& tap : call.bugs) {
        close_bug(call, tap);
    }
    call.bugs.clear();
    give_up_descriptor_after_last_bug();
}

void ModuleModel::give_up_descriptor_after_last_bug() {
    if (std::all_of(calls.begin(), calls.end(),
                    [](const CallModel& call) { return call.bugs.empty(); })) {
        reserved_number_ = -1;
    }
}

void ModuleModel::hang_up(CallModel& call) {
    if (!call.alive) {
        return;
    }
    remove_bugs(call);
    call.alive = false;
    destroyed_.emplace_back(call.uuid);
}

// ---- events -----------------------------------------------------------------------

void ModuleModel::destroy_event(const std::optional<std::string>& uuid) {
    if (!destroy_hook_) {
        return;
    }
    if (!uuid) {
        event_line(Level::ERROR,
                   "MAGIC: unable to extract \"Unique-ID\" from channel destroy event");
        return;
    }
    const IdentityModel identity = identity_of(*uuid);
    if (!identity.valid) {
        event_line(Level::ERROR, "MAGIC: failed to parse session uuid: " + *uuid);
        return;
    }
    const auto found = registry_.find(identity.key);
    const Tap tap = found == registry_.end() ? nullptr : found->second;
    registry_.erase(identity.key);
    // What commands added under other names of the session ends with it.
    for (auto entry = registry_.begin(); entry != registry_.end();) {
        const IdentityModel session = identity_of(entry->second->session);
        const bool ends =
            entry->second->created_us == 0 && session.valid && session.key == identity.key;
        entry = ends ? registry_.erase(entry) : std::next(entry);
    }
    if (tap == nullptr) {
        return;
    }
    if (tap->created_us != 0) {
        event_line(Level::WARNING, *uuid +
                                       ": found configured app context on channel destroy: "
                                       "possible memory leak or logic error!");
    } else {
        event_line(Level::SYSTEM, *uuid +
                                      ": found app context on channel destroy however no app has "
                                      "been executed");
    }
}

void ModuleModel::dumped_event(const EventModel& event) {
    if (event.id == CHANNEL_DESTROY) {
        destroy_event(event.uuid);
    }
    const bool of_channel = event.id >= FIRST_CHANNEL_EVENT && event.id <= LAST_CHANNEL_EVENT;
    if (!dump_hook_ || (options_.dump_events != "all" && !of_channel)) {
        return;
    }
    std::string text;
    if (options_.dump_events != "channel-short") {
        text = "DUMP\n" + event.serialized + "\n";
    } else {
        text = "[quorvane]: " + event.uuid.value_or("") + " ";
        if (event.name) {
            text += *event.name + ": state=" + event.state.value_or("") +
                    ", call-state=" + event.call_state.value_or("") + "\n";
        }
    }
    // Without memory the host cannot write the event as text.
    if (options_.dump_events == "channel-short" || !faults.no_memory) {
        event_lines_.push_back(line_text(HOST_CRITICAL, "", text));
    }
}

}  // namespace qv::fuzz
