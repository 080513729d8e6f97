#include "tools/call/text.h"

#include <cmath>
#include <cstdlib>

#include "quorvane_lib/utils_str.h"
#include "tools/format.h"

namespace qv::tools::call {

std::optional<double> parse_number(const std::string& text) {
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    const bool whole = end == text.c_str() + text.size() && !text.empty() && text[0] != ' ';
    if (!whole || !std::isfinite(value)) {
        return std::nullopt;
    }
    return value;
}

std::string fill_placeholders(const std::string& text, const std::string& uuid,
                              std::size_t number) {
    std::string filled = text;
    utils::str::replace(filled, "{uuid}", uuid);
    utils::str::replace(filled, "{n}", std::to_string(number));
    return filled;
}

std::string fixed(double value, int digits) {
    return format("%.*f", digits, value);
}

std::string short_time(std::chrono::nanoseconds time) {
    const auto nanoseconds = static_cast<double>(time.count());
    if (nanoseconds < 1e3) {
        return fixed(nanoseconds, 0) + " ns";
    }
    if (nanoseconds < 1e6) {
        return fixed(nanoseconds / 1e3, 1) + " us";
    }
    if (nanoseconds < 1e9) {
        return fixed(nanoseconds / 1e6, 2) + " ms";
    }
    return fixed(nanoseconds / 1e9, 2) + " s";
}

std::string size_text(double bytes) {
    if (bytes < 1024) {
        return fixed(bytes, 0) + " bytes";
    }
    if (bytes < 1024 * 1024) {
        return fixed(bytes / 1024, 1) + " KiB";
    }
    return fixed(bytes / 1024 / 1024, 1) + " MiB";
}

std::string joined(const std::vector<std::string>& texts, const std::string& between) {
    std::string all;
    for (const std::string& text : texts) {
        if (!all.empty()) {
            all += between;
        }
        all += text;
    }
    return all;
}

}  // namespace qv::tools::call
