#include "module/module_interface.h"

#include <array>

#include "module/api_command.h"

namespace qv::freeswitch {

namespace {

constexpr std::array<const char*, 8> COMPLETIONS = {
    "add quorvane version",
    "add quorvane dump_events",
    "add quorvane media_node",
    "add quorvane default_audio_activity",
    "add quorvane default_detection",
    "add quorvane ::console::list_uuid features",
    "add quorvane ::console::list_uuid audio_activity "
    "::[start:stop ::[both:orig:originator:term:terminator",
    "add quorvane ::console::list_uuid detection "
    "::[start:stop ::[both:orig:originator:term:terminator",
};

}  // namespace

void register_application(switch_loadable_module_interface_t* module_interface,
                          switch_application_function_t function) {
    auto* application = static_cast<switch_application_interface_t*>(
        switch_loadable_module_create_interface(module_interface, SWITCH_APPLICATION_INTERFACE));
    application->interface_name = "quorvane";
    application->application_function = function;
    application->short_desc = "Start quorvane detection";
    application->long_desc = "Start quorvane detection on the corresponding session";
    application->syntax = "";
    application->flags = 0;
}

void register_api(switch_loadable_module_interface_t* module_interface,
                  switch_api_function_t function) {
    auto* api = static_cast<switch_api_interface_t*>(
        switch_loadable_module_create_interface(module_interface, SWITCH_API_INTERFACE));
    api->interface_name = "quorvane";
    api->desc = "quorvane analyzes and detection";
    api->function = function;
    api->syntax = API_USAGE;
}

void register_completions() {
    for (const char* completion : COMPLETIONS) {
        switch_console_set_complete(completion);
    }
}

}  // namespace qv::freeswitch
