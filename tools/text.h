// Numbers and times as people read them, for all tools. No state; any thread may call these
// functions.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace qv::tools {

// "12,345,678"
std::string grouped(std::uint64_t value);

// "1 call", "2 calls", "1,000 calls".
std::string counted(std::uint64_t count, std::string_view noun);

// "5.0 s", "3 min 20 s", "2 h 05 min".
std::string duration_text(double seconds);

}  // namespace qv::tools
