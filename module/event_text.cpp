#include "module/event_text.h"

#include <new>

#include "module/host_log.h"
#include "quorvane_lib/log.h"

namespace qv::freeswitch {

namespace {

const char* header_or_empty(switch_event_t* event, const char* name) {
    const char* value = event_header(event, name);
    return value != nullptr ? value : "";
}

}  // namespace

const char* event_header(switch_event_t* event, const char* name) {
    return switch_event_get_header_idx(event, name, -1);
}

bool is_channel_event(const switch_event_t* event) {
    return event->event_id >= SWITCH_EVENT_CHANNEL_CREATE &&
           event->event_id <= SWITCH_EVENT_CHANNEL_UUID;
}

// If the event has no name, the line ends after the blank: the stream ignores whatever follows
// a null text. See docs/design.md, Odd on purpose: short event dump.
std::string short_event_line(switch_event_t* event) {
    log::InfoMessage line;
    line.stream << "[quorvane]: " << header_or_empty(event, "Unique-ID") << " ";
    insert(line.stream, event_header(event, "Event-Name"));
    line.stream << ": state=" << header_or_empty(event, "Channel-State")
                << ", call-state=" << header_or_empty(event, "Channel-Call-State") << "\n";
    if (line.stream.bad()) {
        throw std::bad_alloc();
    }
    return line.stream.str();
}

}  // namespace qv::freeswitch
