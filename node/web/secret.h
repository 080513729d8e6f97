// Secrets: comparing them, reading them from a file, and making them up. No state; any thread may
// call these functions.
#pragma once

#include <string>
#include <string_view>

namespace qv::node::web {

// Whether both are the same. How long it takes depends only on the length of `given`, so that the
// time does not show how much of a guess is right.
bool is_same_secret(std::string_view given, std::string_view secret);

// Reads a token: the only line of a file that nobody but its owner and its group may read. Returns
// what is wrong, or an empty text.
std::string read_token(const std::string& path, std::string& token);

// Returns 64 random hexadecimal digits, which nobody can guess. Throws std::system_error if the
// system has none.
std::string new_secret();

}  // namespace qv::node::web
