// Hexadecimal text and call UUIDs into bytes.
//
// The functions keep no state; any thread may call them.
#pragma once

#include <vector>

namespace qv::tag {

// Says that a result is written straight into the caller's buffer as decoding goes
// on: after a failure the buffer may be partly overwritten.
struct direct_update_t {};

}  // namespace qv::tag

namespace qv::utils::bytes {

// The bytes that the `length` hexadecimal digits at `text` name, either case. Empty
// for an odd length and for any character that is no such digit.
std::vector<unsigned char> decode(const char* text, unsigned long length);

// Decodes the zero-terminated UUID `text` into the 16 bytes at `uuid`; returns whether
// all 16 were there. Dashes may stand at their four canonical places and may be left
// out; what follows the 32nd digit is not looked at.
bool decode_uuid(const char* text, unsigned char* uuid, qv::tag::direct_update_t tag);

}  // namespace qv::utils::bytes
