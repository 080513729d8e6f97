// What is read from a host event, and the short line of an event dump.
//
// No state; any thread may call. The event belongs to the host and is only read.
#pragma once

#include <switch.h>

#include <string>

namespace qv::freeswitch {

// The host's own text of the header; null when the event has none of that name.
const char* event_header(switch_event_t* event, const char* name);

bool is_channel_event(const switch_event_t* event);

// "[quorvane]: UUID NAME: state=..., call-state=...", with the line end. A missing event
// name ends the line after the UUID. Throws std::bad_alloc.
std::string short_event_line(switch_event_t* event);

}  // namespace qv::freeswitch
