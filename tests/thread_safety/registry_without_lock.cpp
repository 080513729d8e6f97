// refused: 'contexts' requires holding mutex 'module.contexts_lock'
#include "module/module_context.h"

using namespace qv::freeswitch;

void forget_all(ModuleContext& module) {
    module.contexts.clear();
}
