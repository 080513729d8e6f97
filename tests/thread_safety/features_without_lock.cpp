// refused: 'requested_features' requires holding mutex 'context.context_lock'
#include "module/app_context.h"

using namespace qv::freeswitch;

std::uint8_t active(const AppContext& context) {
    return context.requested_features.active;
}
