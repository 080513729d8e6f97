// refused: registry_rank' must be acquired before 'context_rank'
#include "module/module_context.h"

using namespace qv::freeswitch;

std::size_t contexts(ModuleContext& module, AppContext& context) {
    const ContextGuard guard(context.context_lock);
    const RegistryGuard registry(module.contexts_lock);
    return module.contexts.size();
}
