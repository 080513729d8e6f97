// refused: 'media_start' requires holding mutex 'context.context_lock'
#include "module/media_transfer.h"

using namespace qv::freeswitch;

bool start(MediaTransfer& transfer, const AppContext& context) {
    return transfer.media_start(nullptr, context);
}
