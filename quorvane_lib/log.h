// Log messages and the one logger record that carries them to a sink.
//
// The library itself writes nowhere. The record `Logger::m_instance` passes a finished message
// to the sink that the owner of the process installed; the default sink discards it. A message
// belongs to the thread that builds it. The load of the module writes the record: it installs the
// sink before other threads log, and sets the level, which may change while they log. The sink
// decides whether several threads may call it at the same time.
#pragma once

#include <cstdint>
#include <ostream>
#include <sstream>
#include <string>

namespace qv::log {

// A smaller number is more important. SYSTEM is for start-up and configuration
// notices, which are always logged.
enum Level : std::int32_t {
    SYSTEM = 0,
    ERROR = 1,
    WARNING = 2,
    INFO = 3,
    DEBUG = 4,
    TRACE = 5,
};

constexpr int LEVEL_COUNT = 6;

// Indexed by Level: the name, and the blanks that pad it to seven characters.
inline const std::string level_to_string[LEVEL_COUNT] = {"SYSTEM", "ERROR", "WARNING",
                                                         "INFO",   "DEBUG", "TRACE"};
inline const std::string level_to_spaces[LEVEL_COUNT] = {" ", "  ", "", "   ", "  ", "  "};

inline const std::string message_delimiter = " | ";
// Not used here; kept for its users.
inline const std::string default_directory = "/var/log/delmaren/quorvane";

// A log line under construction: insert the text into `stream`, then hand the message to the
// logger. The destructor logs nothing.
class Message {
  public:
    // The stream gets a text of its own, though an empty one: it then has room from the start, and
    // a stream that is full when it goes bad is one that found no memory.
    explicit Message(Level message_level) : level(message_level), stream(std::string()) {}
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;
    virtual ~Message() = default;

    Level level;
    std::stringstream stream;
};

struct SystemMessage : Message {
    SystemMessage() : Message(SYSTEM) {}
};
struct ErrorMessage : Message {
    ErrorMessage() : Message(ERROR) {}
};
struct WarningMessage : Message {
    WarningMessage() : Message(WARNING) {}
};
struct InfoMessage : Message {
    InfoMessage() : Message(INFO) {}
};
struct DebugMessage : Message {
    DebugMessage() : Message(DEBUG) {}
};
struct TraceMessage : Message {
    TraceMessage() : Message(TRACE) {}
};

// The logger record: a sink as plain function pointers, and the threshold.
struct LoggerImpl {
    using Release = void (*)(void* context);
    using Write = void (*)(void* context, const char* file, int line, const Message& message);

    constexpr LoggerImpl() = default;
    LoggerImpl(const LoggerImpl&) = delete;
    LoggerImpl& operator=(const LoggerImpl&) = delete;
    ~LoggerImpl();

    static void dummy_write(void* context, const char* file, int line, const Message& message);

    void* context = nullptr;    // The sink's own data, passed back on every call.
    Release release = nullptr;  // Called with `context` on destruction, unless null.
    Write write = dummy_write;  // `file` is the base name of the calling source file.
    Level level = INFO;         // The most detailed level that is to be written.
};

class Logger {
  public:
    static LoggerImpl m_instance;

    // Whether a message of `level` would be logged. Call it before building a DEBUG or TRACE
    // text, which then costs one comparison while its level is off.
    static bool admits(Level level) {
        return level <= __atomic_load_n(&m_instance.level, __ATOMIC_RELAXED);
    }

    // Sets the threshold; other threads may be logging.
    static void set_level(Level level) {
        __atomic_store_n(&m_instance.level, level, __ATOMIC_RELAXED);
    }

    // Installs a sink. No other thread may be logging, unless the sink is installed already: then
    // nothing changes.
    static void install(LoggerImpl::Write write, LoggerImpl::Release release, void* context);
};

// Stores the level named `text` and returns true. Names are exact and in upper case; for any
// other text, returns false and does not change `level`.
bool try_parse_level(const std::string& text, Level& level);

// Writes "LEVEL | file:line | text" with the level padded to seven characters and
// no line end. A null `file` puts `out` into the bad state, which loses the rest.
std::ostream& format_message(std::ostream& out, const char* file, int line, const Message& message);

// The local time as "YYYY.MM.DD hh:mm:ss.uuuuuu", with the time of day as the locale writes
// it.
std::string format_time();

// The part of a source path behind its last '/'.
constexpr const char* source_base_name(const char* path) {
    const char* name = path;
    for (const char* at = path; *at != '\0'; ++at) {
        if (*at == '/') {
            name = at + 1;
        }
    }
    return name;
}

}  // namespace qv::log

// Passes `message` to the logger with the line number `line` of this file. Functions that log for
// others pass the line of their caller.
#define QV_LOG_WRITE_AT(line, message)                                         \
    ::qv::log::Logger::m_instance.write(::qv::log::Logger::m_instance.context, \
                                        ::qv::log::source_base_name(__FILE__), (line), (message))

// The same with the number of the calling source line.
#define QV_LOG_WRITE(message) QV_LOG_WRITE_AT(__LINE__, message)
