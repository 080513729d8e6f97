// Words and times for what the node reports, in addition to tools/text.h. The only state is the
// time of report_as_of(), which each thread has for itself; any thread may call these functions.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "node/calls/running.h"
#include "node/calls/types.h"
#include "quorvane/media_packet.h"
#include "tools/address.h"
#include "tools/text.h"

namespace qv::node {

using tools::address_text;
using tools::counted;
using tools::duration_text;
using tools::grouped;

// Appends ", 1,234 reordered", or nothing if the count is 0.
void append_count(std::string& text, std::uint64_t count, const char* what);

// "0x" and 16 digits.
std::string key_text(std::uint64_t call_key);

// "-33 dB"
std::string decibel_text(double level);
// The same, or "silent" for digital silence.
std::string level_text(double level);

// Makes foreign text safe for a terminal and for XML: adds quotation marks, and puts a backslash
// before quotation marks and backslashes. Bytes that are not UTF-8 or belong to unprintable
// characters become \xNN. A text of more than `columns` columns is cut and ends in "...".
std::string quoted_text(std::string_view text, std::size_t columns = 200);

// Returns the text with U+FFFD in place of each byte that is not UTF-8.
std::string utf8_text(std::string_view text);

// "audio activity on originator, off terminator; recording on both", or "no features".
std::string features_text(media::features16_t features);

// "audio activity, recording". Empty if nothing runs.
std::string running_text(Running running);

// From now on, the functions below use this time, since 1970, as the present: the time of the
// packets while a capture is read. Without a time they use the system's again.
void report_as_of(std::optional<Micros> time);

// The present time, as "2026-01-31T23:59:59.123456Z".
std::string utc_time();
// A moment since 1970, as "2026-01-31T23:59:59.123Z".
std::string utc_time_ms(Micros time);

// The present time since 1970.
Micros wall_time();

// The local time of a moment since 1970, rounded down: "2026-01-31", "hh:mm:ss", "hh:mm:ss.t".
std::string local_date(Micros time);
std::string local_time(Micros time);
std::string local_time_tenths(Micros time);
// The time zone at that moment, as "UTC+01:00".
std::string zone_text(Micros time);

// The present local time, as "hh:mm:ss.mmm".
std::string time_of_day();

}  // namespace qv::node
