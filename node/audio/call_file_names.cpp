#include "node/audio/call_file_names.h"

#include <algorithm>
#include <array>
#include <regex>

#include "node/audio/name_pattern.h"

namespace qv::node {

namespace {

constexpr std::size_t LONGEST = 255;  // Names of files, on every system.

constexpr std::array<const char*, 5> ENDINGS = {".wav", ".flac", ".opus", ".svg", ".json"};

// What stands for a word of a pattern.
std::string expression_of(const std::string& word) {
    if (word == "uuid") {
        return "[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}";
    }
    if (word == "date") {
        return "[0-9]{4}-[0-9]{2}-[0-9]{2}";
    }
    if (word == "time") {
        return "[0-9]{6}";
    }
    return "[A-Za-z0-9_.+@-]{1," + std::to_string(NamePattern::MOST_REFERENCE) + "}";
}

// A name does not begin like a hidden file or an option.
std::string first_made_safe(std::string pattern) {
    if (pattern[0] == '.' || pattern[0] == '-') {
        pattern[0] = '_';
    }
    return pattern;
}

std::string expression_of_pattern(const std::string& pattern) {
    std::string expression;
    for (std::size_t i = 0; i < pattern.size(); ++i) {
        if (pattern[i] == '{') {
            const std::size_t end = pattern.find('}', i);
            expression += expression_of(pattern.substr(i + 1, end - i - 1));
            i = end;
        } else {
            expression += std::string("[") + pattern[i] + ']';
        }
    }
    return expression;
}

bool is_ending(const std::string& ending) {
    return std::find(ENDINGS.begin(), ENDINGS.end(), ending) != ENDINGS.end();
}

bool is_audio(const std::string& ending) {
    return ending != ".svg" && ending != ".json";
}

}  // namespace

struct CallFileNames::Expressions {
    std::regex stem;
    std::regex side;  // A stem with what the name of a side adds.
};

// The stem may have a sign that tells it from the name of a side, and a number.
CallFileNames::CallFileNames(const std::string& pattern)
    : expressions_(new Expressions{
          std::regex(expression_of_pattern(first_made_safe(pattern)) + "_?(-[0-9]+)?",
                     std::regex::optimize),
          std::regex("(.*?)(-split)?-(originator|terminator)(-part[0-9]+)?(-[0-9]+)?",
                     std::regex::optimize)}) {}

CallFileNames::~CallFileNames() = default;

std::optional<CallFileNames::Name> CallFileNames::parse(const std::string& name) const {
    const std::size_t dot = name.rfind('.');
    // A list may hold any names, and a long one would overflow the stack in std::regex_match().
    if (name.size() > LONGEST || dot == std::string::npos || !is_ending(name.substr(dot))) {
        return std::nullopt;
    }
    Name parsed{name.substr(0, dot), name.substr(dot), false};
    std::smatch parts;
    if (is_audio(parsed.ending) && std::regex_match(parsed.stem, parts, expressions_->side)) {
        parsed.stem = std::string(parts[1]);
        parsed.of_side = true;
    }
    if (!std::regex_match(parsed.stem, expressions_->stem)) {
        return std::nullopt;
    }
    return parsed;
}

}  // namespace qv::node
