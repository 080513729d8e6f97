// The SHA-256 digest of a file. Plain functions without state; any thread may call them.
#pragma once

#include <string>

namespace qv::node {

// Returns 64 hexadecimal digits, as sha256sum(1) prints them. If the file cannot be read, returns
// an empty text and sets `error` to the reason.
std::string sha256_of_file(const std::string& path, std::string& error);
// The same for an open file, from its beginning.
std::string sha256_of_file(int descriptor, std::string& error);

}  // namespace qv::node
