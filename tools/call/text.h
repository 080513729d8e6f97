// Numbers and times as people read and write them, beside those of tools/text.h, and
// placeholders in their texts.
//
// No state; any thread may call.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/text.h"

namespace qv::tools::call {

// The finite decimal number that the whole text is.
std::optional<double> parse_number(const std::string& text);

// `text` with "{uuid}" and "{n}" replaced by the call's UUID and its number, from 1.
std::string fill_placeholders(const std::string& text, const std::string& uuid, std::size_t number);

// With `digits` digits behind the point.
std::string fixed(double value, int digits);

// "850 ns", "12.3 us", "4.56 ms", "1.23 s".
std::string short_time(std::chrono::nanoseconds time);

// "850 bytes", "12.3 KiB", "4.5 MiB".
std::string size_text(double bytes);

// The texts in one, with `between` between them.
std::string joined(const std::vector<std::string>& texts, const std::string& between);

}  // namespace qv::tools::call
