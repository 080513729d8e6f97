// Fuzzes the whole module: a script of what the host does, one step per line, is run on the
// module and on a model of it. After each step, everything that the module has logged, sent and
// answered must be what the model predicts, byte by byte.
//
// The first character of a line is the step. SLOT is one of four calls, "0" to "3".
//
//   F TEXT        the configuration file gets this line; "f" empties it, "fm" removes it, and
//                 "ff" puts a folder in its place
//   L             the module is loaded; "Ls": no socket can be created, "Lb": none can be bound
//   U             it is unloaded; its object stays mapped
//   N SLOT[OPTIONS][ UUID[ NAME]]   a call begins; NAME is a second name of the session. Options:
//                 o outbound, e early media, d media on demand, r no media, t no timetable,
//                 c no codec name
//   V SLOT NAME=VALUE   a channel variable is set
//   G SLOT SIZE   sip_call_id is set to a text of this size
//   X SLOT        the dialplan runs the application
//   M SLOT        the same, but there is no memory for the record of the call
//   R SLOT SIZE   a frame of SIZE bytes is read; "W": written
//   B SLOT NUMBER the media bugs get an event of another kind
//   K SLOT        the media bugs are removed from outside
//   H SLOT        the call ends
//   J SLOT        the counters of the call's last bug stand shortly before they wrap
//   A TEXT        an API command; "a SLOT TEXT": one that begins with the call's UUID
//   O NUMBER TEXT an API command during which the module's allocation of this number fails
//   D UUID        somebody sends a channel-destroy event; "E SLOT": of this call, "d": without
//                 a UUID
//   e NUMBER[,][ UUID]   somebody sends another event, with the comma without its name
//   S LETTERS     what becomes of the next sends: "." is sent, a digit stands for a short send,
//                 letters for errors
//   Q NUMBER      the send buffer is full for this many milliseconds
//   T NUMBER      this many milliseconds pass
//   ! LETTERS     what the host does wrong from now on, see set_faults()
#include <dlfcn.h>
#include <sched.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "fuzz/support/module_allocation.h"
#include "fuzz/support/module_model.h"
#include "fuzz/support/require.h"
#include "fuzz/support/system_double.h"
#include "host/answer_stream.h"
#include "host/embedded_host.h"
#include "module/app_context.h"

#ifndef QUORVANE_RELOCATED_MODULE
#error "QUORVANE_RELOCATED_MODULE must name the relocated module"
#endif

namespace {

using qv::fuzz::CallModel;
using qv::fuzz::ConfigurationFile;
using qv::fuzz::EventModel;
using qv::fuzz::Media;
using qv::fuzz::ModuleModel;
using qv::fuzz::SendOutcome;
using qv::fuzz::system_double;
using qv::fuzz::Texts;
using qv::host::Fault;

constexpr std::size_t STEPS_MAX = 60;
constexpr std::size_t FRAME_MAX = 9000;
constexpr unsigned REFERENCE_MAX = 1400;
constexpr std::size_t UUID_MAX = 256;
constexpr std::size_t SLOTS = 4;

// The second decodes to the same 16 bytes as the first; the third has the same CRC-64.
constexpr const char* UUIDS[SLOTS] = {
    "3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37", "3B9F6A527C1E4D809F2BE4A1C05D8E37@host",
    "3b9f6a52-7c1e-4d81-dddb-054a69b7b8a4", "00010203-0405-0607-0809-0a0b0c0d0e0f"};

// ---- the host and what the module does in it --------------------------------------

class Stage {
  public:
    // The process has one. It is never destroyed, because the fuzzer reads the module's counters
    // until the process ends.
    static Stage& instance() {
        static Stage* const stage = make();
        return *stage;
    }

    qv::host::EmbeddedHost& host() { return host_; }
    const std::string& build() const { return build_; }

    void load() { host_.load_module(QUORVANE_RELOCATED_MODULE); }
    void unload() { host_.unload_module("mod_quorvane"); }

    std::string api(const std::string& arguments) {
        qv::host::AnswerStream stream;
        const switch_status_t status =
            host_.call_api("quorvane", arguments.c_str(), nullptr, stream.get());
        qv::fuzz::require(status == SWITCH_STATUS_SUCCESS, "an API command always succeeds");
        return stream.text();
    }

    const void* code_of_module() const { return code_; }

    void settle() { host_.events().wait_drained(); }

    // Lines and datagrams of this thread, in their order; lines of other threads; events.
    Texts take_output() { return std::exchange(output_, {}); }
    Texts take_event_lines() { return std::exchange(event_lines_, {}); }
    std::vector<EventModel> take_events() { return std::exchange(events_, {}); }

    void watch_events(bool on) {
        if (on && watcher_ == nullptr) {
            host_.events().bind("fuzz", SWITCH_EVENT_ALL, note_event, this, &watcher_);
        } else if (!on && watcher_ != nullptr) {
            host_.events().unbind(&watcher_);
        }
    }

  private:
    // This thread and that of the events take turns several times per input, which costs least on
    // one processor. The threads that the host starts inherit the choice.
    static Stage* make() {
        cpu_set_t here;
        CPU_ZERO(&here);
        CPU_SET(::sched_getcpu(), &here);
        ::sched_setaffinity(0, sizeof(here), &here);
        return new Stage;
    }

    Stage() {
        host_.log().set_recording(false);
        host_.log().set_listener([this](const qv::host::LogLine& line) { note_line(line); });
        system_double().datagram_sink = [this](std::string text) {
            output_.push_back(std::move(text));
        };
        load();
        // The fuzzer's counters are in the module's object, so it stays mapped.
        void* const module = ::dlopen(QUORVANE_RELOCATED_MODULE, RTLD_NOW);
        qv::fuzz::require(module != nullptr, "the module can be loaded");
        code_ = ::dlsym(module, "mod_quorvane_module_interface");
        build_ = api("version");
        qv::fuzz::require(build_.size() > 32 && build_[6] == ':' && build_[13] == ' ' &&
                              build_[30] == '@' && build_.back() == '\n',
                          "the version has its form");
        build_.pop_back();
        unload();
        settle();
        take_output();
    }

    void note_line(const qv::host::LogLine& line) {
        if (line.by_host) {
            return;
        }
        std::string session = line.userdata.value_or("");
        if ((line.channel == SWITCH_CHANNEL_ID_SESSION) != line.userdata.has_value()) {
            session += "?";
        }
        std::string text = qv::fuzz::line_text(line.level, session, line.text);
        if (line.format != "[quorvane]: %s\n" && line.format != "DUMP\n%s\n" &&
            line.format != line.text) {
            text += " with the format " + line.format;
        }
        (std::this_thread::get_id() == thread_ ? output_ : event_lines_).push_back(std::move(text));
    }

    static std::optional<std::string> header(switch_event_t* event, const char* name) {
        const char* value = switch_event_get_header_idx(event, name, -1);
        return value == nullptr ? std::nullopt : std::optional<std::string>(value);
    }

    static void note_event(switch_event_t* event) {
        EventModel noted;
        noted.id = event->event_id;
        char* text = nullptr;
        if (switch_event_serialize(event, &text, SWITCH_FALSE) == SWITCH_STATUS_SUCCESS) {
            noted.serialized = text;
            std::free(text);
        }
        noted.name = header(event, "Event-Name");
        noted.uuid = header(event, "Unique-ID");
        noted.state = header(event, "Channel-State");
        noted.call_state = header(event, "Channel-Call-State");
        static_cast<Stage*>(event->bind_user_data)->events_.push_back(std::move(noted));
    }

    const std::thread::id thread_ = std::this_thread::get_id();
    Texts output_;
    Texts event_lines_;  // By the thread of the events; settle() waits for it.
    std::vector<EventModel> events_;
    switch_event_node_t* watcher_ = nullptr;
    const void* code_ = nullptr;
    std::string build_;
    qv::host::EmbeddedHost host_;
};

// ---- one input --------------------------------------------------------------------

// The number at the beginning of a text.
unsigned number_of(const std::string& text, unsigned limit) {
    const qv::fuzz::NumberModel number = qv::fuzz::read_number(text);
    return static_cast<unsigned>(number.magnitude % (std::uint64_t{limit} + 1));
}

// The bytes of frames. A frame begins anywhere in it.
const std::vector<std::uint8_t>& audio() {
    static const std::vector<std::uint8_t> bytes = [] {
        std::vector<std::uint8_t> made(FRAME_MAX + 256);
        std::uint32_t state = 1;
        for (std::uint8_t& byte : made) {
            state = state * 1664525 + 1013904223;
            byte = static_cast<std::uint8_t>(state >> 24);
        }
        return made;
    }();
    return bytes;
}

class Run {
  public:
    Run() : model_(stage_.build()) {
        model_.calls.resize(SLOTS);
        for (CallModel& call : model_.calls) {
            call.alive = false;
        }
        system_double().steady_us = 1000000;
        system_double().room_at_us = 0;
        system_double().file = {};
        set_sends("");
        set_faults("");
    }

    void step(const std::string& line) {
        ++steps_;
        system_.attempts.clear();
        begin_us_ = system_.steady_us;
        wall_us_ = qv::fuzz::real_wall_us();
        system_.wall_us = wall_us_;
        act(line[0], line.substr(1));
        system_.wall_us = 0;
    }

    // Ends everything that is left, so that the next input finds the module as this one did.
    void finish() {
        step("!");
        step("S");
        step("Q0");
        const bool anything_left = !model_.registered_names().empty() ||
                                   std::any_of(model_.calls.begin(), model_.calls.end(),
                                               [](const CallModel& call) { return call.alive; });
        if (anything_left && !model_.loaded()) {
            step("f");
            step("L");
        }
        for (std::size_t slot = 0; slot < SLOTS; ++slot) {
            if (model_.calls[slot].alive) {
                step("H" + std::to_string(slot));
            }
        }
        for (const std::string& name : model_.registered_names()) {
            step("D" + name);
        }
        qv::fuzz::require(model_.registered_names().empty(), "nothing stays registered");
        step("U");
        leave_failed_load();
        require_clean();
    }

  private:
    using Call = std::unique_ptr<qv::host::Call>;

    void act(char what, const std::string& rest) {
        switch (what) {
            case 'F':
                system_.file.text += rest + "\n";
                break;
            case 'f':
                set_file(rest);
                break;
            case 'L':
                load(rest);
                break;
            case 'U':
                stage_.unload();
                compare([this] { model_.unload(); });
                stage_.watch_events(false);
                break;
            case 'A':
                api(rest);
                break;
            case 'O':
                api_without_memory(rest);
                break;
            case 'D':
                send_destroy(rest);
                break;
            case 'd':
                send_destroy(std::nullopt);
                break;
            case 'e':
                send_event(rest);
                break;
            case 'S':
                set_sends(rest);
                break;
            case 'Q':
                system_.room_at_us = system_.steady_us + 1000 * std::int64_t{number_of(rest, 500)};
                model_.room_at_us = system_.room_at_us;
                break;
            case 'T':
                system_.steady_us += 1000 * std::int64_t{number_of(rest, 100000)};
                break;
            case '!':
                set_faults(rest);
                break;
            default:
                act_on_call(what, rest);
                break;
        }
    }

    void act_on_call(char what, const std::string& rest) {
        if (rest.empty()) {
            return;
        }
        const std::size_t slot = static_cast<unsigned char>(rest[0]) % SLOTS;
        const std::string more = rest.substr(1);
        CallModel& model = model_.calls[slot];
        if (what == 'N') {
            begin_call(slot, more);
        } else if (calls_[slot] != nullptr && model.alive) {
            act_on_live_call(what, *calls_[slot], model, more);
        }
    }

    void act_on_live_call(char what, qv::host::Call& call, CallModel& model,
                          const std::string& rest) {
        switch (what) {
            case 'V':
                set_variable(call, model, rest);
                break;
            case 'G':
                set_variable(call, model,
                             "sip_call_id=" + std::string(number_of(rest, REFERENCE_MAX), 'r'));
                break;
            case 'X':
                call.execute("quorvane", "not read");
                compare([&] { model_.run_application(model); });
                break;
            case 'M':
                run_without_memory(call, model);
                break;
            case 'R':
            case 'W':
                feed(call, model, what == 'R' ? 0 : 1, number_of(rest, FRAME_MAX));
                break;
            case 'B':
                call.raise(other_event(number_of(rest, 6)));
                compare([] {});
                break;
            case 'K':
                call.remove_bugs();
                compare([&] { model_.remove_bugs(model); });
                break;
            case 'H':
                call.hangup();
                compare([&] { model_.hang_up(model); });
                break;
            case 'J':
                advance_counters(call, model);
                break;
            case 'E':
                send_destroy(model.uuid);
                break;
            case 'a':
                api(model.uuid + " " + rest);
                break;
            default:
                break;
        }
    }

    // ---- steps

    void set_file(const std::string& what) {
        system_.file = {};
        system_.file.kind = what == "m"   ? ConfigurationFile::Kind::MISSING
                            : what == "f" ? ConfigurationFile::Kind::FOLDER
                                          : ConfigurationFile::Kind::TEXT;
    }

    void load(const std::string& faults) {
        if (model_.loaded()) {
            return;
        }
        system_.socket_error = model_.socket_error = faults == "s" ? EMFILE : 0;
        system_.bind_error = model_.bind_error = faults == "b" ? EADDRINUSE : 0;
        stage_.load();
        model_.last_socket = system_.last_socket;
        system_.socket_error = system_.bind_error = 0;
        compare([this] { model_.load(system_.file); });
        stage_.watch_events(model_.dumps_events());
    }

    void begin_call(std::size_t slot, const std::string& rest) {
        const std::size_t blank = rest.find(' ');
        const std::string letters = rest.substr(0, blank);
        std::string uuid = blank == std::string::npos ? "" : rest.substr(blank + 1);
        std::string name;
        if (const std::size_t second = uuid.find(' '); second != std::string::npos) {
            name = uuid.substr(second + 1);
            uuid.resize(second);
        }
        if (uuid.empty()) {
            uuid = UUIDS[slot];
        }
        // As the host does.
        uuid.resize(std::min(uuid.size(), UUID_MAX));
        for (const CallModel& other : model_.calls) {
            if (other.alive && (other.uuid == uuid || &other == &model_.calls[slot])) {
                return;
            }
            // The host would find either of the two.
            name = other.alive && other.external_id == name ? "" : name;
        }
        const auto asked = [&letters](char c) { return letters.find(c) != std::string::npos; };
        CallModel model;
        model.uuid = uuid;
        model.external_id = name;
        model.outbound = asked('o');
        model.media = asked('r')   ? Media::REFUSED
                      : asked('d') ? Media::ON_DEMAND
                      : asked('e') ? Media::EARLY
                                   : Media::ANSWERED;
        model.variables = {{"uuid", uuid},
                           {"channel_name", "embedded/" + uuid},
                           {"direction", model.outbound ? "outbound" : "inbound"}};
        if (!asked('t')) {
            model.created_us = 1600000000000000 + steps_;
        }
        if (!asked('c')) {
            model.codec = "L16";
        }
        calls_[slot] = stage_.host().start_call(options_of(model));
        model_.calls[slot] = std::move(model);
        compare([] {});
    }

    static qv::host::CallOptions options_of(const CallModel& call) {
        qv::host::CallOptions options;
        options.uuid = call.uuid;
        options.external_id = call.external_id;
        options.direction =
            call.outbound ? SWITCH_CALL_DIRECTION_OUTBOUND : SWITCH_CALL_DIRECTION_INBOUND;
        options.media = call.media == Media::REFUSED     ? qv::host::MediaState::REFUSED
                        : call.media == Media::ON_DEMAND ? qv::host::MediaState::ON_DEMAND
                        : call.media == Media::EARLY     ? qv::host::MediaState::EARLY
                                                         : qv::host::MediaState::ANSWERED;
        options.created = static_cast<switch_time_t>(call.created_us.value_or(1));
        options.timetable = call.created_us.has_value();
        options.codec = call.codec;
        return options;
    }

    static void set_variable(qv::host::Call& call, CallModel& model, const std::string& rest) {
        const std::size_t sign = rest.find('=');
        const std::string name = rest.substr(0, sign);
        if (sign == std::string::npos || name.empty()) {
            return;
        }
        const std::string value = rest.substr(sign + 1);
        std::string lower = name;
        for (char& c : lower) {
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        }
        // The host holds back frames while this one is set.
        if (lower != "media_bug_answer_req") {
            call.set_variable(name, value);
            model.variables[lower] = value;
        }
    }

    // The record is the first that the application allocates, if the call has none yet.
    void run_without_memory(qv::host::Call& call, CallModel& model) {
        const bool allocates = model_.needs_memory_for(model);
        if (allocates) {
            qv::fuzz::fail_allocation(0, stage_.code_of_module());
        }
        call.execute("quorvane", "not read");
        qv::fuzz::require(qv::fuzz::stop_failing() || !allocates, "a new call needs memory");
        compare([&] { model_.run_application(model, !allocates); });
    }

    void feed(qv::host::Call& call, CallModel& model, int leg, std::size_t size) {
        const std::uint8_t* const data = audio().data() + steps_ % 256;
        call.feed(leg == 0 ? qv::host::Direction::READ : qv::host::Direction::WRITE, data, size);
        compare([&] { model_.frame(model, leg, data, size); });
    }

    // A kind of event that the module does not act on, or that comes without a frame.
    static switch_abc_type_t other_event(unsigned number) {
        constexpr switch_abc_type_t others[] = {SWITCH_ABC_TYPE_READ,
                                                SWITCH_ABC_TYPE_WRITE,
                                                SWITCH_ABC_TYPE_READ_REPLACE,
                                                SWITCH_ABC_TYPE_WRITE_REPLACE,
                                                SWITCH_ABC_TYPE_READ_PING,
                                                SWITCH_ABC_TYPE_TAP_NATIVE_READ,
                                                SWITCH_ABC_TYPE_TAP_NATIVE_WRITE};
        return others[number];
    }

    // As after weeks of audio.
    static void advance_counters(const qv::host::Call& call, CallModel& model) {
        if (model.bugs.empty()) {
            return;
        }
        auto* context = static_cast<qv::freeswitch::AppContext*>(call.bugs().back().user_data);
        for (int leg = 0; leg < 2; ++leg) {
            context->legs[leg].sequence_number = model.bugs.back()->legs[leg].sequence = 0xFFFFFFFE;
            context->legs[leg].sample_offset = model.bugs.back()->legs[leg].offset = 0xFFFFFF00;
            context->legs[leg].bytes_sent = model.bugs.back()->legs[leg].bytes = 0xFFFFFE00;
        }
    }

    void api(const std::string& arguments) {
        if (!model_.loaded()) {
            return;
        }
        const std::string answer = stage_.api(arguments);
        std::string expected;
        compare([&] { expected = model_.api(arguments); });
        qv::fuzz::require_equal("answer", answer, expected);
    }

    // The command either fails as a whole and says so, or it is carried out.
    void api_without_memory(const std::string& rest) {
        const std::size_t blank = rest.find(' ');
        if (!model_.loaded() || blank == std::string::npos) {
            return;
        }
        const std::string arguments = rest.substr(blank + 1);
        qv::fuzz::fail_allocation(number_of(rest, 20), stage_.code_of_module());
        const std::string answer = stage_.api(arguments);
        const bool failed = qv::fuzz::stop_failing();
        std::string expected = answer;
        compare([&] {
            if (failed && answer.empty()) {
                model_.report_missing_memory();
            } else if (!failed || answer != "-ERR, out of memory\n") {
                expected = model_.api(arguments);
            }
        });
        qv::fuzz::require_equal("answer", answer, expected);
    }

    void send_destroy(const std::optional<std::string>& uuid) {
        qv::host::Event event;
        event.id = SWITCH_EVENT_CHANNEL_DESTROY;
        event.headers = {{"Event-Name", "CHANNEL_DESTROY"}};
        if (uuid) {
            event.headers.emplace_back("Unique-ID", *uuid);
        }
        stage_.host().events().fire(std::move(event));
        compare([&] { model_.fire_destroy(uuid); });
    }

    void send_event(const std::string& rest) {
        qv::host::Event event;
        event.id = static_cast<int>(number_of(rest, 40));
        if (event.id == SWITCH_EVENT_CHANNEL_DESTROY) {
            return;
        }
        if (rest.find(',') == std::string::npos) {
            event.headers.emplace_back("Event-Name", "TEST");
        }
        if (const std::size_t blank = rest.find(' '); blank != std::string::npos) {
            event.headers.emplace_back("Unique-ID", rest.substr(blank + 1));
            event.headers.emplace_back("Channel-State", "CS_TEST");
        }
        stage_.host().events().fire(std::move(event));
        compare([] {});
    }

    void set_sends(const std::string& letters) {
        std::deque<SendOutcome> outcomes;
        for (const char c : letters) {
            if (c >= '0' && c <= '9') {
                outcomes.push_back({SendOutcome::Kind::SHORT, 1 + 13 * (c - '0')});
            } else if (c == '.') {
                outcomes.push_back({});
            } else {
                constexpr int errors[] = {EAGAIN, ECONNREFUSED, ENOBUFS, EINTR,
                                          EPERM,  ENETUNREACH,  ENOMEM,  EMSGSIZE};
                outcomes.push_back(
                    {SendOutcome::Kind::FAILS, errors[static_cast<unsigned char>(c) % 8]});
            }
        }
        system_.outcomes = model_.sends = outcomes;
    }

    void set_faults(const std::string& letters) {
        qv::host::Faults& host = stage_.host().faults();
        host.clear();
        // Otherwise the host would keep the same completions once more after each load.
        host.set(Fault::COMPLETION_FAILS);
        model_.faults = {};
        const auto set = [&](char letter, Fault fault, bool& in_model) {
            in_model = letters.find(letter) != std::string::npos;
            host.set(fault, in_model);
        };
        qv::fuzz::HostFaults& model = model_.faults;
        set('t', Fault::NO_TIMETABLE, model.no_timetable);
        set('m', Fault::MEDIA_NOT_READY, model.media_not_ready);
        set('b', Fault::BUG_REFUSED, model.bug_refused);
        set('l', Fault::BUG_LOST, model.bug_lost);
        set('c', Fault::REFUSED_BUG_CLOSED, model.refused_bug_closed);
        set('s', Fault::SESSION_NOT_FOUND, model.session_not_found);
        set('u', Fault::UUID_GARBAGE, model.uuid_garbage);
        set('f', Fault::NULL_FRAME, model.no_frame);
        set('o', Fault::OUT_OF_MEMORY, model.no_memory);
        set('d', Fault::BIND_CHANNEL_DESTROY_FAILS, model.bind_destroy_fails);
        set('a', Fault::BIND_ALL_FAILS, model.bind_all_fails);
    }

    // ---- comparison

    // Runs the model, with `predict` for the step itself, and compares.
    template <typename Predict>
    void compare(Predict predict) {
        stage_.settle();
        model_.begin(begin_us_, wall_us_, system_.attempts);
        predict();
        predict_events();
        qv::fuzz::require_equal("output", stage_.take_output(), model_.take_output());
        qv::fuzz::require_equal("lines about events", stage_.take_event_lines(),
                                model_.take_event_lines());
        qv::fuzz::require(model_.sends_are_explained(), "every send is expected");
        const qv::host::Report report = stage_.host().report();
        qv::fuzz::require_equal("read locks held", report.read_locks_held, 0u);
        qv::fuzz::require_equal("unlocks without lock", report.unlocks_without_lock, 0u);
        qv::fuzz::require_equal("frames altered", report.frames_altered, 0u);
    }

    void predict_events() {
        const auto destroyed = model_.take_destroyed();
        const std::vector<EventModel> events = stage_.take_events();
        if (!model_.dumps_events()) {
            for (const auto& uuid : destroyed) {
                model_.destroy_event(uuid);
            }
            return;
        }
        std::size_t seen = 0;
        for (const EventModel& event : events) {
            if (event.id == SWITCH_EVENT_CHANNEL_DESTROY) {
                qv::fuzz::require(seen < destroyed.size() && event.uuid == destroyed[seen],
                                  "the host's destroy events are expected");
                ++seen;
            }
            model_.dumped_event(event);
        }
        qv::fuzz::require_equal("destroy events", seen, destroyed.size());
    }

    // A load that failed late leaves its hook and its socket behind, until the next one succeeds.
    void leave_failed_load() {
        if (model_.hears_destroy() || model_.has_socket()) {
            step("f");
            step("L");
            step("U");
        }
    }

    void require_clean() {
        const qv::host::Report report = stage_.host().report();
        qv::fuzz::require_equal("sessions alive", report.sessions_alive, 0u);
        qv::fuzz::require_equal("sessions destroyed locked", report.sessions_destroyed_locked, 0u);
        qv::fuzz::require_equal("bugs attached", report.bugs_attached, 0u);
        qv::fuzz::require_equal("event bindings", report.bindings_alive, 0u);
        qv::fuzz::require_equal("API calls inside", report.api_calls_inside, 0u);
    }

    Stage& stage_ = Stage::instance();
    qv::fuzz::SystemDouble& system_ = system_double();
    ModuleModel model_;
    std::array<Call, SLOTS> calls_;
    std::size_t steps_ = 0;
    std::int64_t begin_us_ = 0;
    std::int64_t wall_us_ = 0;
};

}  // namespace

// An input frees little, so the sanitizer need not keep hundreds of megabytes of freed memory,
// and a few callers of an allocation name it. Both save half of the time.
// NOLINTNEXTLINE: the name is the sanitizer's.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() {
    return "quarantine_size_mb=8:malloc_context_size=6";
}

// Loads the module before the fuzzer runs the first input.
// NOLINTNEXTLINE(readability-identifier-naming): the name is the fuzzer's.
extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    Stage::instance();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Run run;
    std::string line;
    std::size_t steps = 0;
    for (std::size_t i = 0; i <= size && steps < STEPS_MAX; ++i) {
        if (i < size && data[i] != '\n') {
            // The host passes texts without zero bytes. It would interpret a "%" in an event that
            // is dumped in its short form.
            const char c = static_cast<char>(data[i]);
            line += c == '\0' || c == '%' ? ' ' : c;
            continue;
        }
        if (!line.empty()) {
            run.step(line);
            ++steps;
        }
        line.clear();
    }
    run.finish();
    return 0;
}
