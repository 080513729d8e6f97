// The two entry points that the host finds through `mod_quorvane_module_interface`.
//
// Load and shutdown run on the host's module-loading thread; everything that load
// registers runs on the host's threads.
#pragma once

#include <switch.h>

namespace qv::freeswitch {

switch_status_t mod_quorvane_load(switch_loadable_module_interface_t** module_interface,
                                  switch_memory_pool_t* pool);
switch_status_t mod_quorvane_shutdown();

}  // namespace qv::freeswitch
