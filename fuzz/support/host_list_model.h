// A second, simple parser for host lists.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/support/number_model.h"

namespace qv::fuzz {

inline std::vector<std::string> pieces(const std::string& text, char delimiter) {
    std::vector<std::string> all(1);
    for (const char c : text) {
        if (c == delimiter) {
            all.emplace_back();
        } else {
            all.back() += c;
        }
    }
    std::vector<std::string> filled;
    for (const std::string& piece : all) {
        if (!piece.empty()) {
            filled.push_back(piece);
        }
    }
    return filled;
}

inline std::string trimmed(std::string text) {
    const std::string blanks = " \t\n\r";
    while (!text.empty() && blanks.find(text.front()) != std::string::npos) {
        text.erase(0, 1);
    }
    while (!text.empty() && blanks.find(text.back()) != std::string::npos) {
        text.pop_back();
    }
    return text;
}

inline std::uint16_t lenient_port(const std::string& text) {
    const NumberModel number = read_number(text);
    return static_cast<std::uint16_t>(number.magnitude > 65535 ? 65535 : number.magnitude);
}

struct HostItem {
    std::string host;
    std::uint16_t first = 0;
    std::uint16_t last = 0;
};

// The valid items of a list; the ranges are not expanded.
inline std::vector<HostItem> read_hosts(const std::string& text, bool strict) {
    std::vector<HostItem> items;
    for (const std::string& item : pieces(text, ',')) {
        const std::vector<std::string> parts = pieces(item, ':');
        if (parts.size() != 2) {
            continue;
        }
        const std::vector<std::string> ports = pieces(trimmed(parts[1]), '-');
        if (ports.empty() || ports.size() > 2) {
            continue;
        }
        HostItem result{trimmed(parts[0]), lenient_port(ports.front()), lenient_port(ports.back())};
        if (strict &&
            (!read_port(ports.front(), result.first) || !read_port(ports.back(), result.last))) {
            continue;
        }
        result.last = result.last < result.first ? result.first : result.last;
        items.push_back(result);
    }
    return items;
}

inline std::size_t entries_of(const std::vector<HostItem>& items) {
    std::size_t entries = 0;
    for (const HostItem& item : items) {
        entries += std::size_t{item.last} - item.first + 1;
    }
    return entries;
}

}  // namespace qv::fuzz
