// Numbers and times as people read and write them, in addition to tools/text.h, and placeholders in
// texts.
//
// No state; any thread may call these functions.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/text.h"

namespace qv::tools::call {

// Returns the finite decimal number if the whole text is one.
std::optional<double> parse_number(const std::string& text);

// Returns `text` with "{uuid}" and "{n}" replaced by the call's UUID and its number, counted from
// 1.
std::string fill_placeholders(const std::string& text, const std::string& uuid, std::size_t number);

// With `digits` digits after the decimal point.
std::string fixed(double value, int digits);

// "850 ns", "12.3 us", "4.56 ms", "1.23 s".
std::string short_time(std::chrono::nanoseconds time);

// "850 bytes", "12.3 KiB", "4.5 MiB".
std::string size_text(double bytes);

// Returns the texts joined, with `between` between them.
std::string joined(const std::vector<std::string>& texts, const std::string& between);

}  // namespace qv::tools::call
