// refused: calling function 'find_context' requires holding lock rank 'registry_rank'
#include "module/app_context.h"

using namespace qv::freeswitch;

AppContext* use(const ContextRegistry& contexts) {
    return find_context(contexts, 7);
}
