// Reads host events and formats the short line of an event dump.
//
// Stateless; any thread may call it. The host owns the event; it is only read.
#pragma once

#include <switch.h>

#include <string>

namespace qv::freeswitch {

// The value of the header `name`, owned by the event; null if the event has no such header.
const char* event_header(switch_event_t* event, const char* name);

bool is_channel_event(const switch_event_t* event);

// Returns "[quorvane]: UUID NAME: state=..., call-state=..." with the line end. If the event
// has no name, the line ends after the UUID. Throws std::bad_alloc.
std::string short_event_line(switch_event_t* event);

}  // namespace qv::freeswitch
