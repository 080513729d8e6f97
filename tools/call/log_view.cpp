#include "tools/call/log_view.h"

#include <strings.h>

#include <cstdio>
#include <ctime>

namespace qv::tools::call {
namespace {

// How many errors are shown by default; later ones are only counted.
constexpr std::uint64_t UNASKED_ERRORS = 10;

constexpr const char* LEVEL_NAMES[] = {"CONSOLE", "ALERT",  "CRIT", "ERR",
                                       "WARNING", "NOTICE", "INFO", "DEBUG"};

std::string time_text(switch_time_t microseconds) {
    const auto seconds = static_cast<time_t>(microseconds / 1000000);
    tm local{};
    localtime_r(&seconds, &local);
    char text[64];
    const std::size_t length = std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &local);
    std::snprintf(text + length, sizeof(text) - length, ".%06d",
                  static_cast<int>(microseconds % 1000000));
    return text;
}

std::string base_name(const std::string& path) {
    return path.substr(path.find_last_of('/') + 1);
}

std::string without_line_end(std::string text) {
    while (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    return text;
}

}  // namespace

std::string level_name(switch_log_level_t level) {
    const auto index = static_cast<std::size_t>(level);
    return index < std::size(LEVEL_NAMES) ? LEVEL_NAMES[index] : "LEVEL " + std::to_string(index);
}

std::optional<switch_log_level_t> level_of(const std::string& name) {
    for (std::size_t i = 0; i < std::size(LEVEL_NAMES); ++i) {
        if (strcasecmp(name.c_str(), LEVEL_NAMES[i]) == 0) {
            return static_cast<switch_log_level_t>(i);
        }
    }
    if (strcasecmp(name.c_str(), "ERROR") == 0) {
        return SWITCH_LOG_ERROR;
    }
    return std::nullopt;
}

std::string shown_line(const host::LogLine& line, switch_time_t now) {
    std::string text;
    if (line.userdata && !line.userdata->empty()) {
        text = *line.userdata + " ";
    }
    text += time_text(now) + " [" + level_name(line.level) + "] ";
    if (line.file) {
        text += base_name(*line.file) + ":" + std::to_string(line.line) + " ";
    }
    return text + without_line_end(line.text);
}

void LogView::listen(host::Log& log) {
    log.set_recording(false);
    log.set_listener([this](const host::LogLine& line) { on_line(line); });
}

void LogView::on_line(const host::LogLine& line) {
    const bool error = !line.by_host && line.level <= SWITCH_LOG_ERROR;
    const std::uint64_t errors = error ? ++errors_ : 0;
    if (!line.by_host) {
        ++lines_;
    }
    if (!line.by_host && line.level == SWITCH_LOG_WARNING) {
        ++warnings_;
    }
    if (most_detailed_) {
        if (line.level <= *most_detailed_) {
            console_.line(shown_line(line, switch_time_now()));
        }
    } else if (error) {
        show_error(shown_line(line, switch_time_now()), errors);
    }
}

void LogView::show_error(const std::string& text, std::uint64_t number) {
    if (number <= UNASKED_ERRORS) {
        console_.line(text);
    } else if (number == UNASKED_ERRORS + 1) {
        console_.line("(further errors are only counted; --show-log ERR shows all)");
    }
}

}  // namespace qv::tools::call
