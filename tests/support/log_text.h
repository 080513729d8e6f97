// The host's log lines as text, for comparing:
//
//     LEVEL CHANNEL FILE:FUNCTION TEXT
//
// CHANNEL is "log", or "session" and the call's UUID; FUNCTION is "-" if there is none. TEXT is
// the message. If the format was not "[quorvane]: %s\n", TEXT is "RAW " and the whole text.
#pragma once

#include <string>
#include <vector>

#include "host/log.h"

namespace qv::tests {

using Lines = std::vector<std::string>;

inline std::string level_text(switch_log_level_t level) {
    switch (level) {
        case SWITCH_LOG_CRIT:
            return "CRIT";
        case SWITCH_LOG_ERROR:
            return "ERROR";
        case SWITCH_LOG_WARNING:
            return "WARNING";
        case SWITCH_LOG_NOTICE:
            return "NOTICE";
        case SWITCH_LOG_INFO:
            return "INFO";
        case SWITCH_LOG_DEBUG:
            return "DEBUG";
        case SWITCH_LOG_DEBUG1:
            return "DEBUG1";
        default:
            return "level " + std::to_string(static_cast<int>(level));
    }
}

inline std::string channel_text(const host::LogLine& line) {
    const std::string data = line.userdata.value_or("");
    if (line.channel == SWITCH_CHANNEL_ID_SESSION) {
        return "session " + (line.userdata ? data : "without one");
    }
    const std::string name = line.channel == SWITCH_CHANNEL_ID_LOG ? "log" : "other channel";
    return line.userdata ? name + " with user data " + data : name;
}

inline std::string message_text(const host::LogLine& line) {
    const std::string prefix = "[quorvane]: ";
    const bool usual = line.format == "[quorvane]: %s\n" && line.text.rfind(prefix, 0) == 0 &&
                       line.text.back() == '\n';
    return usual ? line.text.substr(prefix.size(), line.text.size() - prefix.size() - 1)
                 : "RAW " + line.text;
}

inline std::string to_text(const host::LogLine& line) {
    return level_text(line.level) + " " + channel_text(line) + " " + line.file.value_or("no file") +
           ":" + line.function.value_or("-") + " " + message_text(line);
}

}  // namespace qv::tests
