// The golden datagrams of tests/data: packets written by hand, for the tests of senders and
// receivers. tests/data/README.md describes the files.
//
// The functions read files and keep no state; any thread may call them. A file
// that is missing or malformed is an error of the test and throws std::runtime_error, which
// names the file and the line.
#pragma once

#include <cctype>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#ifndef QUORVANE_TEST_DATA_DIR
#error "QUORVANE_TEST_DATA_DIR must name the folder of the golden datagrams"
#endif

namespace qv::tests {

using Bytes = std::vector<unsigned char>;

// The value of a hexadecimal digit, -1 for any other character.
inline int hex_digit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

// Appends the bytes of one line; comments and blanks are ignored. Returns false if the line
// contains anything but whole pairs of hexadecimal digits.
inline bool append_hex_line(const std::string& line, Bytes& bytes) {
    const std::string text = line.substr(0, line.find('#'));
    std::size_t at = 0;
    while (at < text.size()) {
        if (std::isspace(static_cast<unsigned char>(text[at])) != 0) {
            ++at;
            continue;
        }
        const int high = hex_digit(text[at]);
        const int low = at + 1 < text.size() ? hex_digit(text[at + 1]) : -1;
        if (high < 0 || low < 0) {
            return false;
        }
        bytes.push_back(static_cast<unsigned char>(high * 16 + low));
        at += 2;
    }
    return true;
}

// The bytes of tests/data/NAME.hex.
inline Bytes golden(const std::string& name) {
    const std::string path = std::string(QUORVANE_TEST_DATA_DIR) + "/" + name + ".hex";
    std::ifstream file(path);
    if (!file) {
        throw std::runtime_error("cannot open golden datagram " + path);
    }
    Bytes bytes;
    std::string line;
    for (unsigned number = 1; std::getline(file, line); ++number) {
        if (!append_hex_line(line, bytes)) {
            throw std::runtime_error(path + ":" + std::to_string(number) + ": not hexadecimal");
        }
    }
    return bytes;
}

// The names of the datagrams of one whole call, in the order of sending.
inline std::vector<std::string> golden_call() {
    return {"call_1_start", "call_2_read",    "call_3_write",    "call_4_read",
            "call_5_write", "call_6_control", "call_7_terminate"};
}

// The names of the datagrams that a receiver must refuse.
inline std::vector<std::string> golden_malformed() {
    return {"malformed_control_trailing",
            "malformed_control_truncated",
            "malformed_data_audio_truncated",
            "malformed_data_too_many_samples",
            "malformed_data_trailing",
            "malformed_data_truncated",
            "malformed_empty",
            "malformed_header_truncated",
            "malformed_magic",
            "malformed_magic_swapped",
            "malformed_start_reference_absent",
            "malformed_start_reference_open",
            "malformed_start_reference_truncated",
            "malformed_start_too_long",
            "malformed_start_trailing",
            "malformed_start_truncated",
            "malformed_terminate_trailing",
            "malformed_type",
            "malformed_version"};
}

}  // namespace qv::tests
