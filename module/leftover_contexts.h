// Removes the contexts that no closing media bug will remove: those of calls that were never
// tapped, or whose end the module has missed.
//
// Stateless; any thread may call it. Every function takes the registry lock itself.
#pragma once

#include <cstdint>

#include "module/app_context.h"
#include "module/host_log.h"
#include "module/module_context.h"

namespace qv::freeswitch {

// Takes the context of `id` out of the registry. Null if there is none.
ContextReference take_context(ModuleContext& state, std::uint64_t id);

// API commands may have added contexts under other names of the session. They end with it.
void remove_contexts_of_other_names(ModuleContext& state, std::uint64_t session_key);

// A shared object that stayed mapped received no channel-destroy events while the module was
// unloaded, so contexts of calls without a media bug are left over. Call it once the hook is
// bound again: later events are not missed. The host records `caller` with the read locks of
// the sessions.
void drop_contexts_of_ended_calls(ModuleContext& state, const LogPlace& caller);

// Frees every registered context. None of them may have a media bug.
void free_left_contexts(ModuleContext& state);

}  // namespace qv::freeswitch
