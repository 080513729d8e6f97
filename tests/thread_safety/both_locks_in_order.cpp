// accepted
#include "module/module_context.h"

using namespace qv::freeswitch;

bool started(ModuleContext& module, std::uint64_t id) {
    const RegistryGuard registry(module.contexts_lock);
    AppContext* context = find_context(module.contexts, id);
    if (context == nullptr) {
        return false;
    }
    const ContextGuard guard(context->context_lock);
    return context->start_sent;
}
