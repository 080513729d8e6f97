#include "node/web/byte_range.h"

#include <algorithm>
#include <string_view>

#include "tools/number.h"

namespace qv::node::web {

namespace {

constexpr std::string_view UNIT = "bytes=";

ByteRange part(std::uint64_t begin, std::uint64_t end, std::uint64_t size) {
    if (begin >= std::min(end, size)) {
        return {ByteRange::Kind::NOT_SATISFIABLE, 0, 0};
    }
    return {ByteRange::Kind::PART, begin, std::min(end, size)};
}

}  // namespace

ByteRange read_byte_range(const std::string& header, std::uint64_t size) {
    const std::string_view text = header;
    if (text.substr(0, UNIT.size()) != UNIT) {
        return {};
    }
    const std::string_view range = text.substr(UNIT.size());
    const std::size_t dash = range.find('-');
    if (dash == std::string_view::npos) {
        return {};
    }
    const auto first = tools::parse_number<std::uint64_t>(range.substr(0, dash));
    const auto last = tools::parse_number<std::uint64_t>(range.substr(dash + 1));
    const bool is_open = dash + 1 == range.size();
    if (dash == 0 && last.has_value()) {  // The last so many bytes.
        return part(size - std::min(*last, size), size, size);
    }
    if (!first.has_value() || (!last.has_value() && !is_open) ||
        (last.has_value() && *last < *first)) {
        return {};
    }
    const std::uint64_t end = is_open || *last >= size ? size : *last + 1;
    return part(*first, end, size);
}

}  // namespace qv::node::web
