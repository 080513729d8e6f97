// Words for what the receiver tells, beside those of tools/text.h. No state; any thread may call.
#pragma once

#include <string>
#include <string_view>

#include "node/calls/types.h"
#include "quorvane/media_packet.h"
#include "tools/text.h"

namespace qv::node {

using tools::counted;
using tools::duration_text;
using tools::grouped;

// The 36-character form.
std::string uuid_text(const Uuid& uuid);
// "0x" and 16 digits.
std::string key_text(std::uint64_t call_key);
// "a.b.c.d:port"
std::string address_text(const unsigned char* address, std::uint16_t port);

// Foreign text made fit for a terminal and for XML: in quotation marks, these and the backslash
// with a backslash; bytes that are no UTF-8, and of characters that are not printable, as \xNN;
// cut with "..." behind so many columns.
std::string quoted_text(std::string_view text, std::size_t columns = 200);

// "audio activity on originator, off terminator; recording on both", or "no features".
std::string features_text(media::features16_t features);

// "2026-01-31T23:59:59.123456Z", of now.
std::string utc_time();

// "hh:mm:ss.mmm", local time, of now.
std::string time_of_day();

}  // namespace qv::node
