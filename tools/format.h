// Formats values like printf. No state; any thread may call it.
#pragma once

#include <cstdio>
#include <string>

namespace qv::tools {

// Returns the text that printf would write, cut after 127 bytes.
template <typename... Values>
std::string format(const char* pattern, Values... values) {
    char text[128];
    std::snprintf(text, sizeof text, pattern, values...);
    return text;
}

}  // namespace qv::tools
