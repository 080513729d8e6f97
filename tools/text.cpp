#include "tools/text.h"

#include <cmath>

#include "tools/format.h"

namespace qv::tools {

std::string grouped(std::uint64_t value) {
    std::string digits = std::to_string(value);
    for (std::size_t at = digits.size(); at > 3;) {
        at -= 3;
        digits.insert(at, 1, ',');
    }
    return digits;
}

std::string counted(std::uint64_t count, std::string_view noun) {
    return grouped(count).append(" ").append(noun).append(count == 1 ? "" : "s");
}

std::string duration_text(double seconds) {
    if (seconds < 59.95) {
        return format("%.1f s", seconds);
    }
    const long whole = std::lround(seconds);
    if (whole < 3600) {
        return format("%ld min %02ld s", whole / 60, whole % 60);
    }
    return format("%ld h %02ld min", whole / 3600, whole / 60 % 60);
}

}  // namespace qv::tools
