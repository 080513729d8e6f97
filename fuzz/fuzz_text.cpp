// Fuzzes trimming, replacing and splitting. The input is a delimiter or set of up to three
// bytes, a zero byte, and the text.
#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/support/require.h"
#include "quorvane_lib/utils_str.h"

namespace {

namespace str = qv::utils::str;
using Pieces = std::vector<std::string>;

std::string join(const Pieces& pieces, const std::string& delimiter) {
    std::string text;
    for (std::size_t i = 0; i < pieces.size(); ++i) {
        text += (i == 0 ? "" : delimiter) + pieces[i];
    }
    return text;
}

Pieces filled(Pieces pieces) {
    pieces.erase(std::remove(pieces.begin(), pieces.end(), std::string()), pieces.end());
    return pieces;
}

template <typename Delimiter>
Pieces split(const std::string& text, const Delimiter& delimiter, bool keep_empty) {
    Pieces pieces;
    str::split(text, delimiter, pieces, keep_empty);
    return pieces;
}

Pieces split_any(const std::string& text, const std::string& set, bool keep_empty) {
    Pieces pieces;
    str::split_any(text, set, pieces, keep_empty);
    return pieces;
}

void check_split_at_character(const std::string& text, char delimiter) {
    const Pieces pieces = split(text, delimiter, true);
    const bool closed = !text.empty() && text.back() == delimiter;
    qv::fuzz::require_equal("joined at a character",
                            join(pieces, {delimiter}) + (closed ? std::string{delimiter} : ""),
                            text);
    for (const std::string& piece : pieces) {
        qv::fuzz::require(piece.find(delimiter) == std::string::npos, "pieces hold no delimiter");
    }
    qv::fuzz::require_equal("filled pieces", split(text, delimiter, false), filled(pieces));
}

void check_split_at_text(const std::string& text, const std::string& delimiter) {
    const Pieces pieces = split(text, delimiter, true);
    qv::fuzz::require_equal("joined at a text", join(pieces, delimiter), text);
    for (const std::string& piece : pieces) {
        qv::fuzz::require(piece.find(delimiter) == std::string::npos, "pieces hold no delimiter");
    }
    qv::fuzz::require_equal("filled pieces", split(text, delimiter, false), filled(pieces));
    qv::fuzz::require_equal("pieces at a C text", split(text, delimiter.c_str(), true), pieces);
}

void check_split_any(const std::string& text, const std::string& set) {
    std::string one_delimiter = text;
    for (char& c : one_delimiter) {
        c = set.find(c) == std::string::npos ? c : set[0];
    }
    const Pieces pieces = split_any(text, set, true);
    qv::fuzz::require_equal("joined at any", join(pieces, {set[0]}), one_delimiter);
    qv::fuzz::require_equal("number of pieces", pieces.size(),
                            text.empty()
                                ? 0u
                                : 1u + static_cast<std::size_t>(std::count(
                                           one_delimiter.begin(), one_delimiter.end(), set[0])));
    qv::fuzz::require_equal("filled pieces", split_any(text, set, false), filled(pieces));
}

void check_trim(const std::string& text, const std::string& set) {
    std::string left = text;
    while (!left.empty() && set.find(left.front()) != std::string::npos) {
        left.erase(0, 1);
    }
    std::string right = text;
    while (!right.empty() && set.find(right.back()) != std::string::npos) {
        right.pop_back();
    }
    qv::fuzz::require_equal("trimmed on the left", str::trim_left(text, set), left);
    qv::fuzz::require_equal("trimmed on the right", str::trim_right(text, set), right);
}

void check_replace(const std::string& text, const std::string& what, const std::string& with) {
    const std::string expected = join(split(text, what, true), with);
    std::string in_place = text;
    qv::fuzz::require_equal("replaced copy", str::replace(text, what, with), expected);
    qv::fuzz::require_equal("replaced in place", str::replace(in_place, what, with), expected);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input = qv::fuzz::as_text(data, size);
    const std::string set = input.substr(0, input.find('\0'));
    if (set.empty() || set.size() > 3 || set.size() == input.size()) {
        return 0;
    }
    const std::string text = input.substr(set.size() + 1);
    check_split_at_character(text, set[0]);
    check_split_at_text(text, set);
    check_split_any(text, set);
    check_trim(text, set);
    check_replace(text, set, "");
    check_replace(text, set, set + set);
    qv::fuzz::require_equal("trimmed of blanks", str::trim_right(str::trim_left(text)),
                            str::trim_right(str::trim_left(text, " \t\n\r"), " \t\n\r"));
    return 0;
}
