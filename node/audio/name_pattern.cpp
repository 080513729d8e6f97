#include "node/audio/name_pattern.h"

#include <algorithm>
#include <functional>
#include <optional>

namespace qv::node {

namespace {

constexpr const char* UNKNOWN = "unknown";
constexpr std::size_t MOST_NAME = 200;

bool is_safe(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '_' || c == '.' || c == '+' || c == '@';
}

std::string safe_text(std::string text, std::size_t most) {
    text.resize(std::min(text.size(), most));
    std::replace_if(
        text.begin(), text.end(), [](char c) { return !is_safe(c); }, '_');
    return text.empty() ? UNKNOWN : text;
}

// What stands for the word in braces; nothing if there is no such word.
std::optional<std::string> value_of(const std::string& word, const NamePattern::Fields& fields) {
    if (word == "uuid") {
        return fields.uuid;
    }
    if (word == "reference") {
        return safe_text(fields.reference, NamePattern::MOST_REFERENCE);
    }
    if (word == "date") {
        return fields.utc_time.substr(0, 10);
    }
    if (word == "time") {
        return fields.utc_time.substr(11, 2) + fields.utc_time.substr(14, 2) +
               fields.utc_time.substr(17, 2);
    }
    return std::nullopt;
}

// Calls `on_text` for each character outside of braces, and `on_word` for each word in braces.
// Returns false if a brace has no other.
bool take_apart(const std::string& pattern, const std::function<void(char)>& on_text,
                const std::function<void(const std::string&)>& on_word) {
    for (std::size_t i = 0; i < pattern.size(); ++i) {
        if (pattern[i] == '}') {
            return false;
        }
        if (pattern[i] != '{') {
            on_text(pattern[i]);
            continue;
        }
        const std::size_t end = pattern.find_first_of("{}", i + 1);
        if (end == std::string::npos || pattern[end] == '{') {
            return false;
        }
        on_word(pattern.substr(i + 1, end - i - 1));
        i = end;
    }
    return true;
}

}  // namespace

std::string NamePattern::complaint(const std::string& text) {
    if (text.empty()) {
        return "a name needs at least one character";
    }
    if (text.size() > MOST_PATTERN) {
        return "a name pattern has at most " + std::to_string(MOST_PATTERN) + " characters";
    }
    std::string complaint;
    const Fields any{"u", "r", "2026-01-31T23:59:59"};
    const bool braces = take_apart(
        text,
        [&](char c) {
            if (!is_safe(c)) {
                complaint = std::string("'") + c +
                            "' cannot be in a name: use letters, digits "
                            "and - _ . + @";
            }
        },
        [&](const std::string& word) {
            if (!value_of(word, any).has_value()) {
                complaint = "{" + word + "} is none of {uuid}, {reference}, {date}, {time}";
            }
        });
    return braces ? complaint : "a brace stands alone in '" + text + "'";
}

std::string NamePattern::expand(const Fields& fields) const {
    std::string name;
    take_apart(
        text_, [&](char c) { name += c; },
        [&](const std::string& word) { name += value_of(word, fields).value_or(UNKNOWN); });
    if (name[0] == '.' || name[0] == '-') {
        name[0] = '_';  // Neither hidden nor an option.
    }
    name.resize(std::min(name.size(), MOST_NAME));
    return name;
}

}  // namespace qv::node
