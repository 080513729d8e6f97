// What the channel variables of a call ask for.
//
// Called by the application, on the thread of the call, before its media bug is attached.
#pragma once

#include <switch.h>

#include "module/app_context.h"
#include "module/module_options.h"

namespace qv::freeswitch {

// Fills the context from the channel variables of the session, and from `defaults` where a
// variable is not set. False only for a media node that cannot be parsed; the context is not
// to be used then. Reports each variable that cannot be used in the host's log.
bool configure_context(AppContext& context, switch_core_session_t* session,
                       const Configuration& defaults);

}  // namespace qv::freeswitch
