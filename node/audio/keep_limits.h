// How long or how much of the recordings is kept: the values of --keep. Plain values; any thread
// may use them.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace qv::node {

struct KeepLimits {
    std::optional<std::chrono::seconds> age;
    std::optional<std::uint64_t> bytes;

    bool any() const { return age.has_value() || bytes.has_value(); }
};

// Reads a number of days, such as "30d", or of bytes, such as "200G" (K, M, G and T are powers of
// 1024), into one of the limits. Returns why the text is neither, or an empty text.
std::string read_keep_limit(const std::string& text, KeepLimits& limits);

}  // namespace qv::node
