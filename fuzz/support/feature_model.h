// A second, simple parser for the texts that switch features on.
#pragma once

#include <cstring>
#include <string>

namespace qv::fuzz {

struct FeatureModel {
    bool valid = false;
    unsigned supported = 0;
    unsigned active = 0;
};

inline bool begins(const std::string& text, const char* keyword) {
    const std::size_t length = std::strlen(keyword);
    return text.size() >= length && std::memcmp(text.data(), keyword, length) == 0;
}

// Reads keyword by keyword, with the longer forms of a leg. `orig` and `term` are the bits of
// the legs.
inline FeatureModel read_features(const std::string& text, unsigned orig, unsigned term) {
    const std::size_t separator = text.find("::");
    const std::string name = text.substr(0, separator);
    const unsigned both = orig | term;
    if (name.size() < 4) {
        return {};
    }
    if (begins(name, "true") || begins(name, "enabled")) {
        return {true, both, both};
    }
    if (begins(name, "inactive")) {
        return {true, both, 0};
    }
    const bool terminator = begins(name, "term") || begins(name, "terminator");
    if (!terminator && !begins(name, "orig") && !begins(name, "originator")) {
        return {};
    }
    const unsigned leg = terminator ? term : orig;
    if (separator == std::string::npos) {
        return {true, leg, leg};
    }
    // No keyword contains "::", so the end of the value does not matter.
    const std::string value = text.substr(separator + 2);
    const bool active =
        begins(value, "true") || begins(value, "enabled") || begins(value, "active");
    return {true, leg, active ? leg : 0};
}

}  // namespace qv::fuzz
