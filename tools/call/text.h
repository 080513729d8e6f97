// Numbers and times as people read and write them, and placeholders in their texts.
//
// No state; any thread may call.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qv::tools::call {

// A whole text as a finite decimal number.
std::optional<double> parse_number(const std::string& text);

// `text` with "{uuid}" and "{n}" replaced by the call's UUID and its number, from 1.
std::string fill_placeholders(const std::string& text, const std::string& uuid, std::size_t number);

// "12,345,678"
std::string grouped(std::uint64_t value);

// "1 call", "2 calls", "1,000 calls".
std::string counted(std::uint64_t count, const std::string& noun);

// With so many digits behind the point.
std::string fixed(double value, int digits);

// "850 ns", "12.3 us", "4.56 ms", "1.23 s".
std::string short_time(std::chrono::nanoseconds time);

// "5.0 s", "3 min 20 s", "2 h 05 min".
std::string duration_text(double seconds);

// "850 bytes", "12.3 KiB", "4.5 MiB".
std::string size_text(double bytes);

// The texts, one after the other, with `between` between them.
std::string joined(const std::vector<std::string>& texts, const std::string& between);

}  // namespace qv::tools::call
