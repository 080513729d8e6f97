// Converts hexadecimal text and call UUIDs to bytes.
//
// The functions keep no state; any thread may call them.
#pragma once

#include <cstddef>
#include <vector>

namespace qv::tag {

// Selects decoding directly into the caller's buffer, which may be partly overwritten after
// a failure.
struct direct_update_t {};

}  // namespace qv::tag

namespace qv::utils::bytes {

// Bytes of a decoded UUID.
constexpr std::size_t UUID_SIZE = 16;

// Decodes the `length` hexadecimal digits at `text`, upper or lower case. Empty for an odd
// length and for any other character.
std::vector<unsigned char> decode(const char* text, unsigned long length);

// Decodes the zero-terminated UUID `text` into the UUID_SIZE bytes at `uuid`; false unless it has
// all 32 digits. Dashes are allowed only at their four canonical places and may be left out. What
// follows the 32nd digit is ignored.
bool decode_uuid(const char* text, unsigned char* uuid, qv::tag::direct_update_t tag);

}  // namespace qv::utils::bytes
