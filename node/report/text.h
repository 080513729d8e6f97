// Words for what the receiver reports, beside those of tools/text.h. No state but the time of
// report_as_of(), which each thread has of its own; any thread may call.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "node/calls/types.h"
#include "quorvane/media_packet.h"
#include "tools/address.h"
#include "tools/text.h"

namespace qv::node {

using tools::address_text;
using tools::counted;
using tools::duration_text;
using tools::grouped;

// "0x" and 16 digits.
std::string key_text(std::uint64_t call_key);

// "-33 dB"
std::string decibel_text(double level);
// The same, or "silent" for digital silence.
std::string level_text(double level);

// Foreign text made safe for a terminal and for XML: in quotation marks, with a backslash before
// quotation marks and backslashes. Bytes that are not UTF-8 or belong to characters that are not
// printable become \xNN. A text of more than `columns` columns is cut and ends in "..."
std::string quoted_text(std::string_view text, std::size_t columns = 200);

// "audio activity on originator, off terminator; recording on both", or "no features".
std::string features_text(media::features16_t features);

// From now on it is this time, since 1970, for the two functions below: while a capture is read,
// the time of its packets. Without a time it is the system's again.
void report_as_of(std::optional<Micros> time);

// "2026-01-31T23:59:59.123456Z", of now.
std::string utc_time();

// Now, since 1970.
Micros wall_time();

// "2026-01-31", "hh:mm:ss", "hh:mm:ss.t": local time of a moment since 1970, rounded down.
std::string local_date(Micros time);
std::string local_time(Micros time);
std::string local_time_tenths(Micros time);
// "UTC+01:00", of the local time then.
std::string zone_text(Micros time);

// "hh:mm:ss.mmm", local time, of now.
std::string time_of_day();

}  // namespace qv::node
