// Checks properties of the code under test. A property that does not hold ends the process, so
// that the fuzzer keeps the input.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

namespace qv::fuzz {

inline void show(std::ostream& out, const std::string& text) {
    out << '"';
    for (const char c : text) {
        if (c >= ' ' && c <= '~') {
            out << c;
        } else {
            char code[8];
            std::snprintf(code, sizeof(code), "\\x%02X", static_cast<unsigned char>(c));
            out << code;
        }
    }
    out << '"';
}

inline void show(std::ostream& out, const std::vector<std::string>& texts) {
    for (const std::string& text : texts) {
        out << "\n    ";
        show(out, text);
    }
}

template <typename Number>
void show(std::ostream& out, const Number& number) {
    out << +number;
}

[[noreturn]] inline void fail(const std::string& why) {
    std::fprintf(stderr, "\n%s\n", why.c_str());
    std::abort();
}

// Requires that `what` holds for every input.
inline void require(bool holds, const char* what) {
    if (!holds) {
        fail(std::string("does not hold: ") + what);
    }
}

// Requires that the code under test and the second implementation agree on `what`.
template <typename Actual, typename Expected>
void require_equal(const char* what, const Actual& actual, const Expected& expected) {
    if (!(actual == expected)) {
        std::ostringstream out;
        out << what << " differs\n  is:       ";
        show(out, actual);
        out << "\n  should be: ";
        show(out, expected);
        fail(out.str());
    }
}

inline std::string as_text(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

}  // namespace qv::fuzz

// Every target defines this function.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
