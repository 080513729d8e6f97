// The API of the model.
#include "fuzz/support/module_model.h"

namespace qv::fuzz {

namespace {

constexpr char USAGE[] =
    "-USAGE: version|dump_events|media_node|default_audio_activity|default_detection || <uuid> "
    "audio_acttivity|detection|features\n";

unsigned legs_of(const std::string& word, unsigned orig, unsigned term) {
    const std::string beginning = word.substr(0, 4);
    return beginning == "orig"   ? orig
           : beginning == "term" ? term
           : beginning == "both" ? orig | term
                                 : 0;
}

std::string number(std::uint64_t value) {
    return std::to_string(value);
}

}  // namespace

std::string ModuleModel::api(const std::string& text) {
    if (text.empty()) {
        return std::string("-ERR, bad command!\n") + USAGE;
    }
    const Texts words = pieces(text, ' ');
    if (words.empty()) {
        return "-ERR, arguments are not specified\n";
    }
    if (words[0] == "version") {
        return build_ + "\n";
    }
    if (words[0] == "dump_events") {
        return options_.dump_events + "\n";
    }
    if (words[0] == "media_node") {
        return options_.host + ":" + number(options_.node.port) + "\n";
    }
    if (words[0] == "default_audio_activity") {
        return options_.default_audio_activity + "\n";
    }
    if (words[0] == "default_detection") {
        return options_.default_detection + "\n";
    }
    return answer_for_session(words);
}

std::string ModuleModel::answer_for_session(const Texts& words) {
    const IdentityModel identity = identity_of(words[0]);
    if (!identity.valid) {
        return "-ERR, neither uuid nor known command \"" + words[0] + "\"!\n" + USAGE;
    }
    if (words.size() < 2) {
        return "-ERR, there should be at least 2 arguments for uuid-based command (<uuid> <cmd>), "
               "specified 1 args\n";
    }
    if (words[1] == "audio_activity" || words[1] == "detection") {
        return switch_feature(words, identity.key);
    }
    if (words[1] == "features") {
        return feature_codes(words[0], identity.key);
    }
    return "-ERR, unknown command \"" + words[1] + "\"!\n" + USAGE;
}

std::string ModuleModel::feature_codes(const std::string& name, std::uint64_t key) {
    if (find_session(name) == nullptr) {
        line(Level::ERROR, nullptr, "session is not found: " + name);
        return "";
    }
    const auto found = registry_.find(key);
    if (found == registry_.end()) {
        return "-ERR, features: session context not found, uuid/id: " + name + "/" + number(key);
    }
    const FeatureSet& features = found->second->requested;
    std::string codes;
    for (unsigned bit = 0x80; bit >= 0x04; bit /= 2) {
        const bool supported = (features.supported & bit) != 0;
        const bool active = (features.active & bit) != 0;
        if (bit >= 0x40) {
            codes += supported ? 'R' : '-';
        } else if (supported) {
            codes += (bit >= 0x10 ? "sS" : "aA")[active ? 1 : 0];
        } else {
            codes += active ? '?' : '-';
        }
    }
    return codes + "\n";
}

std::string ModuleModel::switch_feature(const Texts& words, std::uint64_t key) {
    const std::string& name = words[1];
    const unsigned orig = name == "detection" ? 0x10 : 0x04;
    const unsigned term = 2 * orig;
    if (words.size() < 3) {
        return "-ERR, " + name + ": not enough args (2), should be at least (3)";
    }
    const auto unknown = [&](std::size_t position) {
        return "-ERR, " + name + ": unknown arg \"" + words[position] + "\" at pos (" +
               number(position) + ")";
    };
    FeatureSet wanted;
    for (std::size_t i = 2; i < words.size(); i += 2) {
        if (words[i] != "start" && words[i] != "stop") {
            return unknown(i);
        }
        const bool last = i + 1 == words.size();
        const unsigned legs = last ? orig | term : legs_of(words[i + 1], orig, term);
        if (legs == 0) {
            return unknown(i + 1);
        }
        wanted.supported |= legs;
        wanted.active |= words[i] == "start" ? legs : 0;
    }
    const CallModel* session = find_session(words[0]);
    if (session == nullptr) {
        line(Level::ERROR, nullptr, "session is not found: " + words[0]);
        return "";
    }
    const bool created = registry_.count(key) == 0;
    std::string answer;
    if (created) {
        const std::string session_name = faults.uuid_garbage ? "not-a-uuid" : session->uuid;
        const auto tap = std::make_shared<TapModel>();
        tap->legs[1].word = 0x8000;
        tap->name = words[0];
        tap->session = session_name;
        registry_[key] = tap;
        line(Level::SYSTEM, nullptr, "app context added, id: " + number(key));
        answer = name + ": app context added, id: " + number(key);
    }
    return answer + update(*session, *registry_[key], created, name, wanted, orig | term);
}

void ModuleModel::report_missing_memory() {
    line(Level::ERROR, nullptr, "app context allocation failure (is there enough memory?)");
}

std::string ModuleModel::update(const CallModel& session, TapModel& tap, bool created,
                                const std::string& name, const FeatureSet& wanted,
                                unsigned feature) {
    if (tap.start_sent && (tap.requested.supported & feature) != wanted.supported) {
        const std::string refusal = name + ": not possible to change supported features (" +
                                    number(tap.requested.supported) + " -> " +
                                    number(wanted.supported) + ") when start packet had been sent";
        line(Level::ERROR, nullptr, refusal);
        return "-ERR, " + refusal;
    }
    const unsigned before = tap.requested.active;
    tap.requested.merge(wanted);
    const std::string change =
        ": old = " + number(before) + ", new = " + number(tap.requested.active);
    if (before == tap.requested.active && !created) {
        return "+OK, " + name + ": nothing to update" + change;
    }
    std::string answer;
    if (tap.start_sent) {
        send_control(session, tap);
        line(Level::SYSTEM, nullptr, name + "control packet for feature update was sent");
        answer = name + ": control packet for feature update was sent";
    }
    return answer + "+OK, " + name + ": updated" + change;
}

}  // namespace qv::fuzz
