#include "node/audio/keep_limits.h"

#include <algorithm>

namespace qv::node {

namespace {

constexpr std::uint64_t MOST_DAYS = 36'500;
constexpr std::uint64_t MOST_NUMBER = 1'000'000'000;
constexpr const char* SIZES = "KMGT";

}  // namespace

std::string read_keep_limit(const std::string& text, KeepLimits& limits) {
    std::string complaint =
        "'" + text + "' is neither a number of days, such as 30d, nor of bytes, such as 200G";
    const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
    if (digits == 0 || digits > 9 || digits + 1 != text.size()) {
        return complaint;
    }
    const std::uint64_t number = std::stoull(text.substr(0, digits));
    const char unit = text[digits];
    if (number == 0) {
        return "'" + text + "' would keep nothing";
    }
    if (unit == 'd') {
        if (number > MOST_DAYS) {
            return "'" + text + "' is more than " + std::to_string(MOST_DAYS) + " days";
        }
        limits.age = std::chrono::hours(24 * number);
        return {};
    }
    const std::string sizes = SIZES;
    const std::size_t size = sizes.find(unit);
    if (size == std::string::npos) {
        return complaint;
    }
    if (unit == 'T' && number > MOST_NUMBER / 1000) {
        return "'" + text + "' is more than 1000000T";
    }
    limits.bytes = number << (10 * (size + 1));
    return {};
}

}  // namespace qv::node
