// Fuzzes API commands, one per line, on two calls: A is tapped, B is not yet. A line "!run A"
// runs the application on the call, "!hangup B" ends it. After each line A gets a frame. Answers,
// log lines and datagrams are compared with a model of the two calls.
#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "fuzz/support/feature_model.h"
#include "fuzz/support/module_host.h"
#include "fuzz/support/require.h"
#include "fuzz/support/uuid_model.h"

namespace {

using Texts = std::vector<std::string>;
using qv::fuzz::ModuleHost;

constexpr std::size_t LINES_MAX = 24;
constexpr char USAGE[] =
    "-USAGE: version|dump_events|media_node|default_audio_activity|default_detection || <uuid> "
    "audio_acttivity|detection|features\n";

// The model of a call.
struct CallModel {
    std::string uuid;
    std::string id;         // Its key, decimal.
    unsigned variables[2];  // Supported and active features from its variables.
    bool names_reference;   // It has the variable sip_call_id.
    bool alive = true;
    bool context = false;
    bool started = false;
    unsigned supported = 0;  // The requested features.
    unsigned active = 0;
    std::uint32_t frames = 0;
};

class Calls {
  public:
    Calls()
        : a_{"f47ac10b-58cc-4372-a567-0e02b2c3d479", "2954362247320260167", {0xDC, 0xCC}, true},
          b_{"00010203-0405-0607-0809-0a0b0c0d0e0f", "17997560114553240405", {0, 0}, false} {
        qv::host::CallOptions options;
        options.uuid = b_.uuid;
        call_b_ = module_.host().start_call(options);
        options.uuid = a_.uuid;
        options.variables = {{"quorvane_rule_id", "7"},
                             {"quorvane_record", "yes"},
                             {"quorvane_audio_activity", "true"},
                             {"quorvane_detection", "orig::false"},
                             {"sip_call_id", "a@b"}};
        call_a_ = module_.host().start_call(options);
        act("!run A");
    }
    Calls(const Calls&) = delete;
    Calls& operator=(const Calls&) = delete;
    ~Calls() {
        act("!hangup A");
        act("!hangup B");
        module_.require_clean();
    }

    void act(const std::string& line) {
        const bool second = line == "!run B" || line == "!hangup B";
        CallModel& model = second ? b_ : a_;
        qv::host::Call& call = second ? *call_b_ : *call_a_;
        if (line == "!run A" || line == "!run B") {
            call.execute("quorvane");
            run(model);
        } else if (line == "!hangup A" || line == "!hangup B") {
            call.hangup();
            module_.settle();
            hang_up(model);
        } else {
            const std::string answer = module_.api(line);
            qv::fuzz::require_equal("answer", answer, answer_to(line));
        }
        feed_a();
        qv::fuzz::require_equal("log lines", module_.take_lines(), lines_);
        qv::fuzz::require_equal("datagrams", seen_datagrams(), datagrams_);
        lines_.clear();
        datagrams_.clear();
    }

  private:
    void note_datagram(const char* type, unsigned first, unsigned second) {
        datagrams_.push_back(std::string(type) + " " + std::to_string(first) + " " +
                             std::to_string(second));
    }

    Texts seen_datagrams() {
        Texts texts;
        for (const qv::fuzz::Datagram& datagram : module_.take_datagrams()) {
            qv::fuzz::require_equal("destination", datagram.destination(),
                                    std::string("127.0.0.1:5000"));
            texts.push_back(text_of(datagram.bytes));
        }
        return texts;
    }

    static std::string text_of(const std::vector<std::uint8_t>& bytes) {
        qv::fuzz::require(bytes.size() >= 40, "a datagram has a whole header");
        const auto two = [&bytes](std::size_t first, std::size_t second) {
            qv::fuzz::require(bytes.size() > second, "a datagram is long enough");
            return std::to_string(bytes[first]) + " " + std::to_string(bytes[second]);
        };
        switch (bytes[4]) {
            case 0x81:
                return "start " + two(78, 79);
            case 0x82:
                return "terminate " + two(6, 7);
            case 0x83:
                return "data " + two(40, 48);
            default:
                return "control " + two(40, 41);
        }
    }

    void run(CallModel& call) {
        if (!call.alive) {
            return;
        }
        lines_.push_back("application execution started");
        if (call.started) {
            lines_.push_back("app context already configured; ignoring");
            return;
        }
        lines_.push_back(call.context ? "app context found; configuring"
                                      : "app context added, id: " + call.id);
        if (!call.names_reference) {
            lines_.push_back("channel variable \"sip_call_id\" is not set; ignoring");
        }
        lines_.push_back("media transfer started");
        lines_.push_back("new media bug added");
        // What the API requested overrides the variables.
        const unsigned kept = call.variables[1] & ~call.supported;
        call.active = kept | (call.active & call.supported);
        call.supported |= call.variables[0];
        call.context = true;
        call.started = true;
        note_datagram("start", call.supported, call.active);
    }

    void hang_up(CallModel& call) {
        if (!call.alive) {
            return;
        }
        call.alive = false;
        if (call.started) {
            lines_.push_back("media transfer terminated");
            lines_.push_back("transfered " + std::to_string(4 * call.frames) + "/0 bytes of media");
            note_datagram("terminate", 0, 0);
        } else if (call.context) {
            lines_.push_back(call.uuid +
                             ": found app context on channel destroy however no app has been "
                             "executed");
        }
    }

    void feed_a() {
        call_a_->feed(qv::host::Direction::READ, "\1\2\3\4", 4);
        if (a_.alive && a_.started) {
            ++a_.frames;
            note_datagram("data", a_.frames & 0xFF, 2);
        }
    }

    static Texts words_of(const std::string& line) {
        Texts words;
        std::string word;
        for (const char c : line + " ") {
            if (c != ' ') {
                word += c;
            } else if (!word.empty()) {
                words.push_back(word);
                word.clear();
            }
        }
        return words;
    }

    std::string answer_to(const std::string& line) {
        if (line.empty()) {
            return std::string("-ERR, bad command!\n") + USAGE;
        }
        const Texts words = words_of(line);
        if (words.empty()) {
            return "-ERR, arguments are not specified\n";
        }
        if (words[0] == "version") {
            return version();
        }
        if (words[0] == "dump_events") {
            return "none\n";
        }
        if (words[0] == "media_node") {
            return "127.0.0.1:5000\n";
        }
        if (words[0] == "default_audio_activity") {
            return "term::true\n";
        }
        return words[0] == "default_detection" ? "\n" : session_answer_to(words);
    }

    // Only its form is known beforehand.
    std::string version() {
        std::string text = module_.api("version");
        qv::fuzz::require(text.size() > 32 && text[6] == ':' && text[13] == ' ' &&
                              text[30] == '@' && text.back() == '\n',
                          "the version has its form");
        return text;
    }

    std::string session_answer_to(const Texts& words) {
        std::string digits;
        if (!qv::fuzz::read_uuid(words[0], digits)) {
            return "-ERR, neither uuid nor known command \"" + words[0] + "\"!\n" + USAGE;
        }
        if (words.size() < 2) {
            return "-ERR, there should be at least 2 arguments for uuid-based command (<uuid> "
                   "<cmd>), specified 1 args\n";
        }
        if (words[1] == "audio_activity") {
            return switch_feature(words, 0x04, 0x08);
        }
        if (words[1] == "detection") {
            return switch_feature(words, 0x10, 0x20);
        }
        if (words[1] == "features") {
            return features_of(words[0]);
        }
        return "-ERR, unknown command \"" + words[1] + "\"!\n" + USAGE;
    }

    // The call whose session the host finds; without one, expects the log line about that.
    CallModel* find(const std::string& uuid) {
        for (CallModel* call : {&a_, &b_}) {
            if (call->alive && call->uuid == uuid) {
                return call;
            }
        }
        lines_.push_back("session is not found: " + uuid);
        return nullptr;
    }

    std::string features_of(const std::string& uuid) {
        const CallModel* call = find(uuid);
        if (call == nullptr) {
            return "";
        }
        if (!call->context) {
            return "-ERR, features: session context not found, uuid/id: " + uuid + "/" + call->id;
        }
        std::string codes;
        for (unsigned bit = 0x80; bit >= 0x04; bit /= 2) {
            const bool supported = (call->supported & bit) != 0;
            const bool active = (call->active & bit) != 0;
            const std::string on = bit >= 0x40 ? "RR" : bit >= 0x10 ? "sS" : "aA";
            codes += !supported ? (active && bit < 0x40 ? '?' : '-') : on[active ? 1 : 0];
        }
        return codes + "\n";
    }

    std::string switch_feature(const Texts& words, unsigned orig, unsigned term) {
        const std::string& name = words[1];
        if (words.size() < 3) {
            return "-ERR, " + name + ": not enough args (2), should be at least (3)";
        }
        unsigned mask = 0;
        unsigned active = 0;
        for (std::size_t i = 2; i < words.size(); ++i) {
            const bool is_leg = i % 2 == 1;
            const std::string beginning = words[i].substr(0, 4);
            const bool known =
                is_leg ? beginning == "orig" || beginning == "term" || beginning == "both"
                       : words[i] == "start" || words[i] == "stop";
            if (!known) {
                return "-ERR, " + name + ": unknown arg \"" + words[i] + "\" at pos (" +
                       std::to_string(i) + ")";
            }
            if (is_leg || i + 1 == words.size()) {
                const unsigned legs = !is_leg               ? orig | term
                                      : beginning == "orig" ? orig
                                      : beginning == "term" ? term
                                                            : orig | term;
                mask |= legs;
                active |= words[is_leg ? i - 1 : i] == "start" ? legs : 0;
            }
        }
        CallModel* call = find(words[0]);
        return call == nullptr ? "" : update(*call, name, mask, active, orig | term);
    }

    std::string update(CallModel& call, const std::string& name, unsigned mask, unsigned active,
                       unsigned feature) {
        std::string answer;
        const bool created = !call.context;
        if (created) {
            call.context = true;
            lines_.push_back("app context added, id: " + call.id);
            answer = name + ": app context added, id: " + call.id;
        }
        if (call.started && (call.supported & feature) != mask) {
            const std::string refusal = name + ": not possible to change supported features (" +
                                        std::to_string(call.supported) + " -> " +
                                        std::to_string(mask) + ") when start packet had been sent";
            lines_.push_back(refusal);
            return answer + "-ERR, " + refusal;
        }
        const unsigned before = call.active;
        call.supported |= mask;
        call.active = (before & ~mask) | (active & mask);
        const std::string change =
            ": old = " + std::to_string(before) + ", new = " + std::to_string(call.active);
        if (before == call.active && !created) {
            return answer + "+OK, " + name + ": nothing to update" + change;
        }
        if (call.started) {
            note_datagram("control", call.supported, call.active);
            lines_.push_back(name + "control packet for feature update was sent");
            answer += name + ": control packet for feature update was sent";
        }
        return answer + "+OK, " + name + ": updated" + change;
    }

    ModuleHost& module_ = ModuleHost::instance();
    CallModel a_;
    CallModel b_;
    std::unique_ptr<qv::host::Call> call_a_;
    std::unique_ptr<qv::host::Call> call_b_;
    Texts lines_;      // Expected for the current line.
    Texts datagrams_;  // Expected for the current line.
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Calls calls;
    std::string line;
    std::size_t lines = 0;
    for (std::size_t i = 0; i <= size && lines < LINES_MAX; ++i) {
        if (i < size && data[i] != '\n') {
            // The host passes commands without zero bytes.
            line += data[i] == 0 ? ' ' : static_cast<char>(data[i]);
            continue;
        }
        calls.act(line);
        line.clear();
        ++lines;
    }
    return 0;
}
