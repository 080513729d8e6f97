// Registers the module's application, its API command and its console completions with the
// host.
//
// Load calls these once, on the host's module-loading thread. The host owns what is
// registered and removes it when it unloads the module.
#pragma once

#include <switch.h>

namespace qv::freeswitch {

void register_application(switch_loadable_module_interface_t* module_interface,
                          switch_application_function_t function);
void register_api(switch_loadable_module_interface_t* module_interface,
                  switch_api_function_t function);
void register_completions();

}  // namespace qv::freeswitch
