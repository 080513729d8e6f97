// The module-wide state, shared by the entry points, the media bugs and the API command.
//
// It is built when the host opens the module and destroyed when the object leaves memory. There
// is one, `global` in mod_quorvane.cpp; everything else gets a reference to it.
#pragma once

#include <cstdint>
#include <unordered_map>

#include "module/app_context.h"
#include "module/media_transfer.h"
#include "module/module_options.h"
#include "quorvane_lib/mutex.h"
#include "quorvane_lib/net_socket.h"

namespace qv::freeswitch {

// One socket and one sender serve all calls without a lock.
class ModuleContext {
  public:
    net::Socket socket;
    MediaTransfer transfer{&socket};
    Configuration config;

    // What is still registered when the module goes away is left alone.
    ContextRegistry contexts QV_GUARDED_BY(contexts_lock);

    // The registry lock.
    Mutex contexts_lock;

    // The API finds a session by other names than its UUID, too, and its context then has the
    // key of that name. From the session's own key to those: a session's end names its UUID.
    std::unordered_multimap<std::uint64_t, std::uint64_t> other_names QV_GUARDED_BY(contexts_lock);
};

}  // namespace qv::freeswitch
