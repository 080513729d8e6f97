// Words and numbers as people read them. No state; any thread may call.
#pragma once

#include <string>
#include <string_view>

#include "module/media_packet.h"
#include "tools/node/types.h"

namespace qv::tools::node {

// The 36-character form.
std::string uuid_text(const Uuid& uuid);
// "0x" and 16 digits.
std::string key_text(std::uint64_t call_key);
// "a.b.c.d:port"
std::string address_text(const unsigned char* address, std::uint16_t port);

// Foreign text made fit for a terminal: bytes below blank, DEL and the quotation mark
// and backslash as \xNN or with a backslash; cut with "..." at 200 bytes.
std::string quoted_text(std::string_view text);

// "audio activity on originator, off terminator; recording on both", or "no features".
std::string features_text(media::features16_t features);

// "5.0 s", "3 min 20 s", "2 h 05 min".
std::string duration_text(double seconds);

// "12,345,678"
std::string grouped(std::uint64_t value);

// "1 packet", "2 packets".
std::string counted(std::uint64_t count, const char* noun);

// "2026-01-31T23:59:59.123456Z", of now.
std::string utc_time();

// "hh:mm:ss.mmm", local time, of now.
std::string time_of_day();

}  // namespace qv::tools::node
