#include "quorvane_lib/utils_str.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <limits>
#include <sstream>

#include "quorvane_lib/utils_bytes.h"

namespace qv::utils::str {

namespace {

constexpr const char* WHITESPACE = " \t\n\r";

void split_at(const std::string& s, const char* delimiter, std::size_t length,
              std::vector<std::string>& out, bool keep_empty) {
    if (length == 0) {
        out.push_back(s);
        return;
    }
    std::size_t position = 0;
    std::size_t found = s.find(delimiter, position, length);
    while (found != std::string::npos) {
        if (keep_empty || found != position) {
            out.push_back(s.substr(position, found - position));
        }
        position = found + length;
        found = s.find(delimiter, position, length);
    }
    if (keep_empty || position < s.size()) {
        out.push_back(s.substr(position));
    }
}

}  // namespace

std::string trim_left(const std::string& s) {
    return trim_left(s, WHITESPACE);
}

std::string trim_left(const std::string& s, const std::string& set) {
    const std::size_t first = s.find_first_not_of(set);
    return first == std::string::npos ? std::string() : s.substr(first);
}

std::string trim_right(const std::string& s) {
    return trim_right(s, WHITESPACE);
}

std::string trim_right(const std::string& s, const std::string& set) {
    const std::size_t last = s.find_last_not_of(set);
    return last == std::string::npos ? std::string() : s.substr(0, last + 1);
}

std::string& replace(std::string& s, const std::string& what, const std::string& with) {
    if (what.empty()) {
        return s;
    }
    std::size_t found = s.find(what);
    while (found != std::string::npos) {
        s.replace(found, what.size(), with);
        found = s.find(what, found + with.size());
    }
    return s;
}

std::string replace(const std::string& s, const std::string& what, const std::string& with) {
    std::string copy = s;
    return replace(copy, what, with);
}

void split(const std::string& s, char delimiter, std::vector<std::string>& out, bool keep_empty) {
    std::istringstream stream(s);
    std::string piece;
    while (std::getline(stream, piece, delimiter)) {
        if (keep_empty || !piece.empty()) {
            out.push_back(piece);
        }
    }
}

void split(const std::string& s, const char* delimiter, std::vector<std::string>& out,
           bool keep_empty) {
    split_at(s, delimiter, std::strlen(delimiter), out, keep_empty);
}

void split(const std::string& s, const std::string& delimiter, std::vector<std::string>& out,
           bool keep_empty) {
    split_at(s, delimiter.data(), delimiter.size(), out, keep_empty);
}

void split_any(const std::string& s, const std::string& delimiters, std::vector<std::string>& out,
               bool keep_empty) {
    if (s.empty()) {
        return;
    }
    std::size_t start = 0;
    std::size_t end = s.find_first_of(delimiters);
    while (end != std::string::npos) {
        if (keep_empty || end != start) {
            out.push_back(s.substr(start, end - start));
        }
        start = end + 1;
        end = s.find_first_of(delimiters, start);
    }
    if (keep_empty || start < s.size()) {
        out.push_back(s.substr(start));
    }
}

template <typename T, int Base>
GenericResult<try_parse_status, try_parse_status::ok> try_parse_value(const char* text, T& value) {
    if (text == nullptr) {
        return try_parse_status::null_input;
    }
    errno = 0;
    char* end = nullptr;
    const unsigned long number = std::strtoul(text, &end, Base);
    const int error = errno;
    errno = 0;
    if (number > std::numeric_limits<T>::max() || error == ERANGE) {
        return try_parse_status::out_of_range;
    }
    if (error != 0) {
        return try_parse_status::conversion_error;
    }
    if (end == text) {
        return try_parse_status::invalid_format;
    }
    // Characters behind the number are an error, but the number is stored. See docs/design.md,
    // Odd on purpose: numbers.
    value = static_cast<T>(number);
    return *end == '\0' ? try_parse_status::ok : try_parse_status::invalid_format;
}

template GenericResult<try_parse_status, try_parse_status::ok> try_parse_value<unsigned short, 10>(
    const char* text, unsigned short& value);
template GenericResult<try_parse_status, try_parse_status::ok> try_parse_value<unsigned long, 10>(
    const char* text, unsigned long& value);

void print_uuid(std::ostream& out, const unsigned char* uuid) {
    const std::ios_base::fmtflags flags = out.flags();
    const char fill = out.fill('0');
    out << std::hex << std::nouppercase << std::right << std::noshowbase;
    for (std::size_t i = 0; i < bytes::UUID_SIZE; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) {
            out << '-';
        }
        out << std::setw(2) << static_cast<unsigned>(uuid[i]);
    }
    out.fill(fill);
    out.flags(flags);
}

std::string print_uuid(const unsigned char* uuid) {
    std::ostringstream out;
    print_uuid(out, uuid);
    return out.str();
}

}  // namespace qv::utils::str
