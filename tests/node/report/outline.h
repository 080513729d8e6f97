// What tests compare of the lines that the node writes for people: kinds, figures and names. The
// words around them may change.
#pragma once

#include <algorithm>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace qv::tests {

using Lines = std::vector<std::string>;

// The lines of `text` without the time of day and the call's UUID.
inline Lines plain_lines(const std::string& text) {
    static const std::regex ahead("^\\d\\d:\\d\\d:\\d\\d\\.\\d{3}  ([0-9a-f-]{36}  )?");
    std::istringstream all(text);
    Lines lines;
    for (std::string line; std::getline(all, line);) {
        lines.push_back(std::regex_replace(line, ahead, ""));
    }
    return lines;
}

// Each quoted text of `words` and each word with a digit, without the punctuation behind it.
inline std::string figures(const std::string& words) {
    static const std::regex figure(R"("(\\.|[^"\\])*"|[^\s;()]*\d[^\s;(),:]*)");
    std::string found;
    for (std::sregex_iterator match(words.begin(), words.end(), figure), end; match != end;
         ++match) {
        found += (found.empty() ? "" : " ") + match->str();
    }
    return found;
}

// "KIND: FIGURE FIGURE ..." for each line, or "KIND" if it has no figures.
inline Lines outlines(const std::string& text) {
    constexpr std::size_t CALL = 38;  // The column of the kind in lines of calls,
    constexpr std::size_t KIND = 13;  // and the width of such a kind.
    std::istringstream all(text);
    Lines lines = plain_lines(text);
    for (std::string& line : lines) {
        std::string whole;
        std::getline(all, whole);
        const bool of_call = whole.size() - line.size() > CALL;
        const std::string kind = line.substr(0, of_call ? KIND : CALL);
        const std::string found = figures(line.substr(kind.size()));
        line = kind.substr(0, kind.find_last_not_of(' ') + 1) + (found.empty() ? "" : ": " + found);
    }
    return lines;
}

}  // namespace qv::tests
