#include "quorvane_lib/log.h"

#include <sys/time.h>

#include <array>
#include <cstdio>
#include <ctime>

namespace qv::log {

LoggerImpl Logger::m_instance;

LoggerImpl::~LoggerImpl() {
    if (release != nullptr) {
        release(context);
    }
}

void LoggerImpl::dummy_write(void* /*context*/, const char* /*file*/, int /*line*/,
                             const Message& /*message*/) {}

void Logger::install(LoggerImpl::Write write, LoggerImpl::Release release, void* context) {
    if (m_instance.write == write && m_instance.release == release &&
        m_instance.context == context) {
        return;
    }
    m_instance.write = write;
    m_instance.release = release;
    m_instance.context = context;
}

bool try_parse_level(const std::string& text, Level& level) {
    for (int candidate = SYSTEM; candidate < LEVEL_COUNT; ++candidate) {
        if (text == level_to_string[candidate]) {
            level = static_cast<Level>(candidate);
            return true;
        }
    }
    return false;
}

std::ostream& format_message(std::ostream& out, const char* file, int line,
                             const Message& message) {
    return out << level_to_string[message.level] << level_to_spaces[message.level]
               << message_delimiter << file << ":" << std::to_string(line) << message_delimiter
               << message.stream.str();
}

std::string format_time() {
    timeval now{};
    ::gettimeofday(&now, nullptr);

    // localtime_r, unlike localtime, does not have to read TZ again.
    ::tzset();
    std::tm local{};
    ::localtime_r(&now.tv_sec, &local);

    std::array<char, 64> text{};
    const std::size_t length = std::strftime(text.data(), text.size(), "%Y.%m.%d %X", &local);

    std::array<char, 16> microseconds{};
    std::snprintf(microseconds.data(), microseconds.size(), ".%06d", static_cast<int>(now.tv_usec));
    return std::string(text.data(), length) + microseconds.data();
}

}  // namespace qv::log
