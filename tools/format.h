// Values put into a text by a pattern of printf. No state; any thread may call.
#pragma once

#include <cstdio>
#include <string>

namespace qv::tools {

// The text that printf would write, of at most 127 bytes.
template <typename... Values>
std::string format(const char* pattern, Values... values) {
    char text[128];
    std::snprintf(text, sizeof text, pattern, values...);
    return text;
}

}  // namespace qv::tools
