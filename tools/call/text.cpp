#include "tools/call/text.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace qv::tools::call {
namespace {

void replace_all(std::string& text, const std::string& what, const std::string& with) {
    std::size_t at = 0;
    while ((at = text.find(what, at)) != std::string::npos) {
        text.replace(at, what.size(), with);
        at += with.size();
    }
}

}  // namespace

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
    replace_all(filled, "{uuid}", uuid);
    replace_all(filled, "{n}", std::to_string(number));
    return filled;
}

std::string fixed(double value, int digits) {
    char text[64];
    std::snprintf(text, sizeof(text), "%.*f", digits, value);
    return text;
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
