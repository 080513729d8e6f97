// UUIDs for tests with many calls. They are numbered, so that any thread can name any call.
//
// The function keeps no state; any thread may call it.
#pragma once

#include <cstdio>
#include <string>

namespace qv::tests {

inline std::string uuid_of(unsigned number) {
    char text[37];
    std::snprintf(text, sizeof(text), "c0ffee00-0000-4000-8000-%012x", number);
    return text;
}

}  // namespace qv::tests
