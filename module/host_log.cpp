#include "module/host_log.h"

#include <array>
#include <cstdint>
#include <new>
#include <sstream>

namespace qv::freeswitch {

namespace {

// Indexed by log::Level. SYSTEM, the most important level, is below WARNING in the host. See
// docs/design.md, Odd on purpose: log bridge.
constexpr std::array<std::int32_t, log::LEVEL_COUNT> level_to_fslevel = {
    SWITCH_LOG_NOTICE, SWITCH_LOG_ERROR, SWITCH_LOG_WARNING,
    SWITCH_LOG_INFO,   SWITCH_LOG_DEBUG, SWITCH_LOG_DEBUG1,
};

// Gives access to the protected write position of a string buffer.
class PutArea : public std::stringbuf {
  public:
    static bool is_full(const std::stringbuf& buffer) {
        return (buffer.*(&PutArea::pptr))() == (buffer.*(&PutArea::epptr))();
    }
};

// True if the text was cut off because there was no memory: the stream then is bad and its
// buffer full. A stream can also be bad for another reason, such as a null text; its text then
// ends where it should.
bool is_cut(const std::stringstream& stream) {
    return stream.bad() && PutArea::is_full(*stream.rdbuf());
}

void print(switch_text_channel_t channel, const void* user_data, const LogPlace& place,
           const log::Message& message) {
    const auto level =
        static_cast<switch_log_level_t>(level_to_fslevel[static_cast<std::size_t>(message.level)]);
    const auto* data = static_cast<const char*>(user_data);
    try {
        if (!is_cut(message.stream)) {
            switch_log_printf(channel, place.file, place.function, place.line, data, level,
                              "[quorvane]: %s\n", message.stream.str().c_str());
            return;
        }
    } catch (const std::bad_alloc&) {  // There was no memory for the copy of the text either.
    }
    switch_log_printf(channel, place.file, place.function, place.line, data, level,
                      "[quorvane]: a line was lost: out of memory\n");
}

}  // namespace

void Logger::write(void* /*context*/, const char* file, int line, const log::Message& message) {
    if (log::Logger::admits(message.level)) {
        write_line({file, nullptr, line}, message);
    }
}

void write_line(const LogPlace& place, const log::Message& message) {
    print(SWITCH_CHANNEL_ID_LOG, nullptr, place, message);
}

void write_session_line(switch_core_session_t* session, const LogPlace& place,
                        const log::Message& message) {
    print(SWITCH_CHANNEL_ID_SESSION, session, place, message);
}

}  // namespace qv::freeswitch
