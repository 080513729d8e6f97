// The text of a printf-like function of the host. No state; any thread may call it.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>

namespace qv::host {

// Nothing when the C library cannot format the text, for example without memory.
[[gnu::format(printf, 1, 0)]] inline std::optional<std::string> formatted(const char* format,
                                                                          va_list arguments) {
    char* text = nullptr;
    const int size = vasprintf(&text, format, arguments);
    if (size < 0) {
        return std::nullopt;
    }
    const std::unique_ptr<char, decltype(&std::free)> owner(text, &std::free);
    return std::string(text, static_cast<std::size_t>(size));
}

}  // namespace qv::host
