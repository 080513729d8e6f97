// Records the log lines of a test: becomes the sink of the logger, and restores the previous state
// at the end.
//
// One at a time. Any thread may log; read `lines` when they have finished.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "quorvane_lib/log.h"
#include "quorvane_lib/mutex.h"

namespace qv::tests {

struct LogLine {
    log::Level level;
    std::string text;

    bool operator==(const LogLine& other) const {
        return level == other.level && text == other.text;
    }
};

inline std::ostream& operator<<(std::ostream& out, const LogLine& line) {
    return out << "\n  " << log::level_to_string[line.level] << " " << line.text;
}

class LogRecorder {
  public:
    LogRecorder() {
        log::Logger::m_instance.context = this;
        log::Logger::m_instance.write = record;
    }
    LogRecorder(const LogRecorder&) = delete;
    LogRecorder& operator=(const LogRecorder&) = delete;
    ~LogRecorder() {
        log::Logger::m_instance.context = nullptr;
        log::Logger::m_instance.write = log::LoggerImpl::dummy_write;
    }

    std::vector<LogLine> lines;
    std::vector<std::string> files;  // The source file of each line, and the place in it.
    std::vector<int> places;

  private:
    static void record(void* context, const char* file, int line, const log::Message& message) {
        auto& recorder = *static_cast<LogRecorder*>(context);
        const LockGuard guard(recorder.mutex_);
        recorder.lines.push_back({message.level, message.stream.str()});
        recorder.files.emplace_back(file);
        recorder.places.push_back(line);
    }

    Mutex mutex_;  // One thread records at a time.
};

}  // namespace qv::tests
