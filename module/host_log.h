// The module's log lines on their way into the host's log.
//
// Stateless; any thread may call it. Every line reaches the host as "[quorvane]: %s\n".
// The text is always an argument, so that a "%" in it means nothing. A line that
// finds no memory is replaced by a fixed one: logging never throws.
#pragma once

#include <switch.h>

#include <ostream>
#include <type_traits>

#include "quorvane_lib/log.h"

namespace qv::freeswitch {

class Logger {
  public:
    // The sink that the module installs into qv::log. `context` is not used.
    static void write(void* context, const char* file, int line, const log::Message& message);
};

// Where a line comes from, as the host shows it.
struct LogPlace {
    const char* file;  // Base name.
    const char* function;
    int line;
};

// Hand a finished message to the host, filed under no call or under that of `session`.
// The caller has seen that its level is admitted.
void write_line(const LogPlace& place, const log::Message& message);
void write_session_line(switch_core_session_t* session, const LogPlace& place,
                        const log::Message& message);

// How a piece of a line is handed on: numbers and pointers by value, so that they need
// not stand in memory for a line that is not composed.
template <typename Piece>
using PassPiece = std::conditional_t<std::is_scalar_v<Piece>, Piece, const Piece&>;

// Inserts a piece of a line. A null text ends the line, as it does by itself, but not by
// the stream's bad bit: that one says that there was no memory.
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

// Composes a line, out of the way of the code that only asks whether to.
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

// Compose a line of the pieces and write it; with a level that is not admitted, nothing
// is composed and the call costs one comparison.
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

// The place of this line in the function called `name`, or in the one it stands in.
#define QV_PLACE_IN(name)                                       \
    ::qv::freeswitch::LogPlace {                                \
        ::qv::log::source_base_name(__FILE__), (name), __LINE__ \
    }
#define QV_PLACE QV_PLACE_IN(__func__)
