// Text helpers: trimming, replacing, splitting, decimal numbers, UUID text.
//
// Texts are bytes without a character set. The functions keep no state; any thread
// may call them. Unless a function says otherwise it leaves its input alone.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace qv::utils {

// A status that converts to true when it is SuccessValue.
template <typename Status, Status SuccessValue>
struct GenericResult {
    constexpr GenericResult(Status result) : status(result) {}
    constexpr explicit operator bool() const { return status == SuccessValue; }
    constexpr bool operator==(Status other) const { return status == other; }
    constexpr bool operator!=(Status other) const { return status != other; }

    Status status;
};

}  // namespace qv::utils

namespace qv::utils::str {

enum class try_parse_status : std::int32_t {
    ok = 0,                // Parsed, the whole text was used.
    null_input = 1,        // The text pointer was null.
    invalid_format = 2,    // No digits at the start, or characters left after the number.
    out_of_range = 3,      // The number does not fit the target type.
    conversion_error = 4,  // The conversion reported another error.
};

// Copies without leading or trailing characters of `set`. The set of the one-argument
// forms is blank, TAB, LF and CR; vertical tab and form feed stay.
std::string trim_left(const std::string& s);
std::string trim_left(const std::string& s, const std::string& set);
std::string trim_right(const std::string& s);
std::string trim_right(const std::string& s, const std::string& set);

// Replaces every `what` by `with`, left to right; replaced text is not searched
// again. An empty `what` replaces nothing.
std::string& replace(std::string& s, const std::string& what, const std::string& with);
std::string replace(const std::string& s, const std::string& what, const std::string& with);

// Append the pieces of `s` to `out`. Empty pieces are appended only if `keep_empty`.
//
// With a character the pieces are those of std::getline: a delimiter at the very end
// makes no empty last piece, and an empty text has no piece. With a text, a delimiter
// at the very end makes an empty last piece, and an empty text is one empty piece; an
// empty delimiter splits nothing.
void split(const std::string& s, char delimiter, std::vector<std::string>& out, bool keep_empty);
void split(const std::string& s, const char* delimiter, std::vector<std::string>& out,
           bool keep_empty);
void split(const std::string& s, const std::string& delimiter, std::vector<std::string>& out,
           bool keep_empty);

// Splits at every character that occurs in `delimiters`; an empty text has no piece. Not used here;
// kept for its users.
void split_any(const std::string& s, const std::string& delimiters, std::vector<std::string>& out,
               bool keep_empty);

// Reads `text` as strtoul does in base 10: leading white space and a sign are accepted,
// a minus sign wraps around. The number is stored in `value` for `ok`, and also when
// characters are left behind it (`invalid_format`); it is not stored otherwise.
// Exists for unsigned short and unsigned long.
template <typename T, int Base = 10>
GenericResult<try_parse_status, try_parse_status::ok> try_parse_value(const char* text, T& value);

// The 16 bytes at `uuid` as 8-4-4-4-12 lower-case hexadecimal digits. The stream's
// flags and fill character are left as they were.
void print_uuid(std::ostream& out, const unsigned char* uuid);
std::string print_uuid(const unsigned char* uuid);

}  // namespace qv::utils::str
