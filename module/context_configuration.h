// Configures a call's context from its channel variables.
//
// The application calls it on the call's thread, before it attaches the media bug.
#pragma once

#include <switch.h>

#include "module/app_context.h"
#include "module/module_options.h"

namespace qv::freeswitch {

// Fills the context from the session's channel variables, and from `defaults` where a
// variable is not set. Logs an error for each variable that it cannot parse. Returns false
// only if the media node cannot be parsed; the context must not be used then.
bool configure_context(AppContext& context, switch_core_session_t* session,
                       const Configuration& defaults);

}  // namespace qv::freeswitch
