// The two entry points that the host finds through `mod_quorvane_module_interface`.
//
// The host calls load and shutdown on its module-loading thread. The functions that load
// registers run on other threads of the host.
#pragma once

#include <switch.h>

namespace qv::freeswitch {

switch_status_t mod_quorvane_load(switch_loadable_module_interface_t** module_interface,
                                  switch_memory_pool_t* pool);
switch_status_t mod_quorvane_shutdown();

}  // namespace qv::freeswitch
