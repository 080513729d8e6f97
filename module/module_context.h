// The module-wide state, shared by the entry points, the media bugs and the API command.
//
// It is constructed when the module's shared object is mapped and destroyed when the object is
// unmapped. There is one, `global` in mod_quorvane.cpp; other units get a reference to it.
#pragma once

#include <cstdint>
#include <unordered_map>

#include "module/app_context.h"
#include "module/media_transfer.h"
#include "module/module_options.h"
#include "quorvane_lib/mutex.h"
#include "quorvane_lib/net_socket.h"

namespace qv::freeswitch {

// One socket and one sender serve all calls; sending takes no lock.
class ModuleContext {
  public:
    net::Socket socket;
    MediaTransfer transfer{&socket};
    Configuration config;

    ContextRegistry contexts QV_GUARDED_BY(contexts_lock);

    // The registry lock.
    Mutex contexts_lock;

    // The API also finds a session by other names than its UUID; the context then has the key of
    // that name. This maps a session's own key to the keys of such names, because the event of a
    // session's end contains only its UUID.
    std::unordered_multimap<std::uint64_t, std::uint64_t> other_names QV_GUARDED_BY(contexts_lock);
};

}  // namespace qv::freeswitch
