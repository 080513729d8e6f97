// Writes the module's log lines to the host's log.
//
// Stateless; any thread may call it. Every line is passed to the host with the format
// "[quorvane]: %s\n"; the text is an argument, so the host does not interpret a "%" in it. If
// there is no memory for a line, a fixed line replaces it: logging never throws.
#pragma once

#include <switch.h>

#include <ostream>
#include <type_traits>

#include "quorvane_lib/log.h"

namespace qv::freeswitch {

class Logger {
  public:
    // The sink that the module installs in qv::log. `context` is not used.
    static void write(void* context, const char* file, int line, const log::Message& message);
};

// The source position of a line, as the host shows it.
struct LogPlace {
    const char* file;  // Base name.
    const char* function;
    int line;
};

// Pass a finished message to the host: without a call, or for the call of `session`. The
// caller has checked that the log level admits it.
void write_line(const LogPlace& place, const log::Message& message);
void write_session_line(switch_core_session_t* session, const LogPlace& place,
                        const log::Message& message);

// How a piece of a line is passed: numbers and pointers by value, so that a caller need not
// store them in memory for a line that is not composed.
template <typename Piece>
using PassPiece = std::conditional_t<std::is_scalar_v<Piece>, Piece, const Piece&>;

// Appends a piece of a line. A null text ends the line. It sets the stream's fail bit, not the
// bad bit as the standard library would: the bad bit means that there was no memory.
template <typename Piece>
void insert(std::ostream& stream, const Piece& piece) {
    if constexpr (std::is_same_v<Piece, const char*>) {
        if (piece == nullptr) {
            stream.setstate(std::ios_base::failbit);
            return;
        }
    }
    stream << piece;
}

// Composes a line and writes it. It is a function of its own, so that the code that only checks
// the log level stays small.
template <typename... Pieces>
[[gnu::noinline, gnu::cold]] void compose_line(log::Level level, LogPlace place,
                                               PassPiece<Pieces>... pieces) {
    log::Message message(level);
    (insert(message.stream, pieces), ...);
    write_line(place, message);
}

template <typename... Pieces>
[[gnu::noinline, gnu::cold]] void compose_session_line(log::Level level,
                                                       switch_core_session_t* session,
                                                       LogPlace place,
                                                       PassPiece<Pieces>... pieces) {
    log::Message message(level);
    (insert(message.stream, pieces), ...);
    write_session_line(session, place, message);
}

// Compose a line from the pieces and write it. If the log level does not admit it, nothing is
// composed and the call costs one comparison.
template <log::Level LEVEL, typename... Pieces>
void log_line(LogPlace place, const Pieces&... pieces) {
    if (log::Logger::admits(LEVEL)) {
        compose_line<Pieces...>(LEVEL, place, pieces...);
    }
}

template <log::Level LEVEL, typename... Pieces>
void log_session_line(switch_core_session_t* session, LogPlace place, const Pieces&... pieces) {
    if (log::Logger::admits(LEVEL)) {
        compose_session_line<Pieces...>(LEVEL, session, place, pieces...);
    }
}

}  // namespace qv::freeswitch

// The LogPlace of this source line: under the function name `name`, or that of the enclosing
// function.
#define QV_PLACE_IN(name)                                       \
    ::qv::freeswitch::LogPlace {                                \
        ::qv::log::source_base_name(__FILE__), (name), __LINE__ \
    }
#define QV_PLACE QV_PLACE_IN(__func__)
