#include "module/leftover_contexts.h"

#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <utility>

namespace qv::freeswitch {

namespace {

// The contexts that only the registry references: their keys and the UUIDs of their sessions.
std::map<std::uint64_t, std::string> idle_contexts(ModuleContext& state) {
    std::map<std::uint64_t, std::string> idle;
    const RegistryGuard guard(state.contexts_lock);
    for (const auto& [id, context] : state.contexts) {
        if (context != nullptr && context->is_only_registered() &&
            *context->session_uuid() != '\0') {
            idle.emplace(id, context->session_uuid());
        }
    }
    return idle;
}

// The name may have been used for another session since.
bool was_made_for(const AppContext& context, std::uint64_t session_key) QV_REQUIRES(registry_rank) {
    CallIdentity session;
    return identify(context.session_uuid(), session) && session.id == session_key;
}

bool is_alive(const std::string& session_uuid, const LogPlace& caller) {
    switch_core_session_t* session = switch_core_session_perform_locate(
        session_uuid.c_str(), caller.file, caller.function, caller.line);
    if (session != nullptr) {
        switch_core_session_rwunlock(session);
    }
    return session != nullptr;
}

void forget_other_names_without_context(ModuleContext& state) {
    const RegistryGuard guard(state.contexts_lock);
    for (auto name = state.other_names.begin(); name != state.other_names.end();) {
        const bool gone = find_context(state.contexts, name->second) == nullptr;
        name = gone ? state.other_names.erase(name) : std::next(name);
    }
}

}  // namespace

ContextReference take_context(ModuleContext& state, std::uint64_t id) {
    const RegistryGuard guard(state.contexts_lock);
    std::optional<ContextReference> entry = remove_context(state.contexts, id);
    return entry ? std::move(*entry) : ContextReference();
}

void remove_contexts_of_other_names(ModuleContext& state, std::uint64_t session_key) {
    const RegistryGuard guard(state.contexts_lock);
    const auto [first, last] = state.other_names.equal_range(session_key);
    for (auto name = first; name != last; ++name) {
        const AppContext* context = find_context(state.contexts, name->second);
        if (context != nullptr && context->created_time == 0 &&
            was_made_for(*context, session_key)) {
            remove_context(state.contexts, name->second);
        }
    }
    state.other_names.erase(first, last);
}

void drop_contexts_of_ended_calls(ModuleContext& state, const LogPlace& caller) {
    // Sessions are located without the registry lock: a session's read lock is taken first.
    for (const auto& [id, session_uuid] : idle_contexts(state)) {
        if (!is_alive(session_uuid, caller)) {
            const RegistryGuard guard(state.contexts_lock);
            remove_context(state.contexts, id);
        }
    }
    forget_other_names_without_context(state);
}

void free_left_contexts(ModuleContext& state) {
    const RegistryGuard guard(state.contexts_lock);
    while (!state.contexts.empty()) {
        remove_context(state.contexts, state.contexts.begin()->first);
    }
}

}  // namespace qv::freeswitch
