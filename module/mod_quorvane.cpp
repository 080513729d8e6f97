#include "module/mod_quorvane.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>  // The standard streams stand before the objects below, and after them.
#include <iterator>
#include <new>
#include <optional>
#include <string>

#include "build_identifier.h"
#include "module/api_command.h"
#include "module/attached_bugs.h"
#include "module/context_configuration.h"
#include "module/event_text.h"
#include "module/host_log.h"
#include "module/leftover_contexts.h"
#include "module/module_context.h"
#include "module/module_interface.h"
#include "module/undestroyed.h"
#include "quorvane_lib/utils_path.h"

namespace qv::freeswitch {

const char* const modname = "mod_quorvane";

namespace {

const std::string CONFIG_FILE_PATH =
    conf::default_base_directory + utils::path::LINUX_PATH_SEPARATOR::STR + "quorvane" +
    utils::path::LINUX_PATH_SEPARATOR::STR + "freeswitch_mod" + conf::default_conf_ext;

// Everything that the module keeps while it is mapped. The media bugs may outlive the unloading.
struct ModuleState {
    ModuleContext context;
    AttachedBugs bugs{context.socket};
    switch_event_node_t* g_channel_destroy_hook = nullptr;
    switch_event_node_t* g_dump_event_hook = nullptr;
};

Undestroyed<ModuleState> state_room;
ModuleState& module_state = state_room.object;
ModuleContext& global = state_room.object.context;

// What load gives to the host, in the order in which the host calls it.
SWITCH_STANDARD_APP(execute_quorvane_app);
switch_bool_t media_handler(switch_media_bug_t* bug, void* user_data, switch_abc_type_t type);
SWITCH_STANDARD_API(execute_quorvane_api);
void channel_destroy_handler(switch_event_t* event);
// The handler of every event in this mode; null if there is none.
switch_event_callback_t dump_handler(DumpMode mode);

// ---- load -------------------------------------------------------------------------

constexpr const char* LOAD = "mod_quorvane_load";

// A shared object that stayed mapped after an unload keeps its state. The settings return to
// their defaults; contexts, hooks and the socket stay as they are.
void reset_settings() {
    log::Logger::install(Logger::write, nullptr, nullptr);
    log::Logger::set_level(log::INFO);
    global.config = Configuration();
}

bool read_configuration() {
    // Always empty: the host passes no arguments to a module.
    const std::string arguments;
    if (!global.config.parse_file(CONFIG_FILE_PATH)) {
        return false;
    }
    // A folder can be opened like a file, but contains no lines.
    struct stat status {};
    if (::stat(CONFIG_FILE_PATH.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
        log_line<log::WARNING>(QV_PLACE_IN(LOAD), "config file [", CONFIG_FILE_PATH,
                               "] is a folder: default values are used");
    }
    return arguments.empty() || global.config.parse_args(arguments);
}

void unbind(switch_event_node_t*& hook) {
    if (hook != nullptr) {
        switch_event_unbind(&hook);
    }
}

bool bind(const char* owner, switch_event_types_t event, switch_event_callback_t callback,
          switch_event_node_t*& hook) {
    // An earlier load that failed may have left its hook bound.
    unbind(hook);
    return switch_event_bind_removable(owner, event, SWITCH_EVENT_SUBCLASS_ANY, callback, nullptr,
                                       &hook) == SWITCH_STATUS_SUCCESS;
}

bool bind_events() {
    if (!bind("mod_quorvane", SWITCH_EVENT_CHANNEL_DESTROY, channel_destroy_handler,
              module_state.g_channel_destroy_hook)) {
        switch_log_printf(SWITCH_CHANNEL_ID_LOG, log::source_base_name(__FILE__), LOAD, __LINE__,
                          nullptr, SWITCH_LOG_ERROR,
                          "[quorvane]: couldn't bind channel destroy event hook!\n");
        return false;
    }
    const switch_event_callback_t dump_callback = dump_handler(global.config.dump_mode);
    if (dump_callback != nullptr &&
        !bind(modname, SWITCH_EVENT_ALL, dump_callback, module_state.g_dump_event_hook)) {
        switch_log_printf(SWITCH_CHANNEL_ID_LOG, log::source_base_name(__FILE__), LOAD, __LINE__,
                          nullptr, SWITCH_LOG_ERROR, "[quorvane]: couldn't bind event hook!\n");
        // The first hook stays bound although the host now closes this shared object.
        module_state.bugs.load_left_a_hook();
        return false;
    }
    return true;
}

}  // namespace

// A step is not undone when a later one fails. See docs/design.md, Odd on purpose: load.
switch_status_t mod_quorvane_load(switch_loadable_module_interface_t** module_interface,
                                  switch_memory_pool_t* pool) try {
    reset_settings();
    log_line<log::SYSTEM>(QV_PLACE, "build version: \"", QUORVANE_BUILD_IDENTIFIER, "\"");
    if (!read_configuration()) {
        log_line<log::ERROR>(QV_PLACE, "failed to load config file [", CONFIG_FILE_PATH, "]");
        return SWITCH_STATUS_TERM;
    }
    if (global.config.level < log::ERROR) {
        // The module does not catch this std::string. See docs/design.md, Odd on purpose: load.
        throw std::string("impossible to set log level stricter than 'error' level");
    }
    log::Logger::set_level(global.config.level);
    log_line<log::SYSTEM>(QV_PLACE, "configuration loaded");

    if (!module_state.bugs.open_socket()) {
        return SWITCH_STATUS_TERM;
    }
    log_line<log::SYSTEM>(QV_PLACE, "transfer socket opened");

    *module_interface = switch_loadable_module_create_module_interface(pool, modname);
    register_application(*module_interface, execute_quorvane_app);
    register_api(*module_interface, execute_quorvane_api);
    register_completions();
    if (!bind_events()) {
        return SWITCH_STATUS_TERM;
    }
    drop_contexts_of_ended_calls(global, QV_PLACE);
    module_state.bugs.loaded();
    log_line<log::SYSTEM>(QV_PLACE, "module has been loaded");
    return SWITCH_STATUS_SUCCESS;
} catch (const std::bad_alloc&) {
    switch_log_printf(SWITCH_CHANNEL_ID_LOG, log::source_base_name(__FILE__), LOAD, __LINE__,
                      nullptr, SWITCH_LOG_ERROR, "[quorvane]: no memory to load the module\n");
    if (module_state.g_channel_destroy_hook != nullptr) {
        module_state.bugs.load_left_a_hook();
    }
    return SWITCH_STATUS_TERM;
}

// ---- application ------------------------------------------------------------------

namespace {

// The host's read-replace and write-replace flags, and bit 30. Current host headers have no name
// for bit 30; the host stores it and does not use it.
constexpr switch_media_bug_flag_t MEDIA_BUG_FLAGS = 0x4000000C;
static_assert((MEDIA_BUG_FLAGS & (SMBF_READ_REPLACE | SMBF_WRITE_REPLACE)) == 0xC);

constexpr const char* APPLICATION = "execute_quorvane_app";

// Creates the context of the call `id`.
AppContext* create_context(switch_core_session_t* session, std::uint64_t id)
    QV_REQUIRES(global.contexts_lock, registry_rank) {
    AppContext* context = add_context(global.contexts, id);
    if (context == nullptr) {
        log_session_line<log::ERROR>(session, QV_PLACE_IN(APPLICATION),
                                     "app context allocation failure (is there enough memory?)");
        return nullptr;
    }
    log_session_line<log::SYSTEM>(session, QV_PLACE_IN(APPLICATION), "app context added, id: ", id);
    return context;
}

// Finds or creates the call's context and marks it as configured. Returns null if the
// application has run on this call before or there is no memory. The reference keeps the context
// alive, because a channel-destroy event, which anybody can send, may erase its registry entry.
ContextReference claim_context(switch_core_session_t* session, std::uint64_t id) {
    const RegistryGuard guard(global.contexts_lock);
    const auto found = global.contexts.find(id);
    AppContext* context = nullptr;
    if (found == global.contexts.end()) {
        context = create_context(session, id);
    } else if (found->second == nullptr) {
        log_session_line<log::ERROR>(session, QV_PLACE_IN(APPLICATION),
                                     "MAGIC: app context is null but exists in a map: possible "
                                     "memory corruption!");
        context = create_context(session, id);
    } else if (found->second->created_time != 0) {
        log_session_line<log::WARNING>(session, QV_PLACE_IN(APPLICATION),
                                       "app context already configured; ignoring");
    } else {
        context = found->second;
        log_session_line<log::SYSTEM>(session, QV_PLACE_IN(APPLICATION),
                                      "app context found; configuring");
    }
    if (context != nullptr) {
        context->set_session_uuid(switch_core_session_get_uuid(session));
        context->mark_configured(session);
    }
    return ContextReference(context);
}

void report_refused_bug(switch_core_session_t* session, switch_channel_t* channel) {
    const auto cause = static_cast<int>(switch_channel_get_cause(channel));
    const auto state = static_cast<int>(switch_channel_get_state(channel));
    const std::uint32_t media = switch_channel_test_flag(channel, CF_MEDIA_SET);
    const int ready = switch_channel_test_ready(channel, SWITCH_TRUE, SWITCH_TRUE);
    log_session_line<log::ERROR>(session, QV_PLACE_IN(APPLICATION),
                                 "failed to add new media bug; media ready: ", ready,
                                 ", CF_MEDIA: ", media, ", state: ", state, ", cause: ", cause);
}

void attach(AppContext& context) {
    module_state.bugs.add();
    context.lend_to_bug();
}

// Takes back the reference of a bug that the host refused, unless its close event did: then more
// bugs have closed than `closed`. The references that are still lent belong to other bugs.
void forget_refused_bug(AppContext& context, unsigned closed) {
    if (context.closed_bugs() == closed && context.take_back_from_bug()) {
        module_state.bugs.remove();
    }
}

void attach_media_bug(switch_core_session_t* session, switch_channel_t* channel,
                      AppContext& context) {
    if (!switch_channel_test_ready(channel, SWITCH_TRUE, SWITCH_TRUE)) {
        log_session_line<log::WARNING>(session, QV_PLACE_IN(APPLICATION),
                                       "session media is not ready!");
    }
    switch_media_bug_t* bug = nullptr;
    const unsigned closed = context.closed_bugs();
    attach(context);
    const switch_status_t status = switch_core_media_bug_add(
        session, "quorvane", nullptr, media_handler, &context, 0, MEDIA_BUG_FLAGS, &bug);
    if (status == SWITCH_STATUS_SUCCESS) {
        log_session_line<log::INFO>(session, QV_PLACE_IN(APPLICATION), "new media bug added");
    } else {
        report_refused_bug(session, channel);
        forget_refused_bug(context, closed);
    }
}

void start_application(switch_core_session_t* session) {
    log_session_line<log::INFO>(session, QV_PLACE_IN(APPLICATION), "application execution started");
    switch_channel_t* channel = switch_core_session_get_channel(session);
    const char* uuid_text = switch_core_session_get_uuid(session);
    CallIdentity call;
    if (!identify(uuid_text, call)) {
        log_session_line<log::ERROR>(session, QV_PLACE_IN(APPLICATION),
                                     "MAGIC: failed to parse session uuid: ", uuid_text);
        return;
    }
    const ContextReference context = claim_context(session, call.id);
    if (!context) {
        return;
    }
    std::copy(std::begin(call.uuid), std::end(call.uuid), context->uuid);
    context->id = call.id;
    if (!configure_context(*context, session, global.config)) {
        log_session_line<log::ERROR>(session, QV_PLACE_IN(APPLICATION),
                                     "failed to configure application context");
        return;
    }
    attach_media_bug(session, channel, *context);
}

// The application takes no arguments: its options are channel variables.
SWITCH_STANDARD_APP(execute_quorvane_app) {
    (void)data;
    try {
        start_application(session);
    } catch (const std::bad_alloc&) {
        log_session_line<log::ERROR>(session, QV_PLACE, "out of memory: call is not tapped");
    }
}

// ---- media bug --------------------------------------------------------------------

constexpr const char* MEDIA_HANDLER = "media_handler";

bool start_transfer(switch_core_session_t* session, AppContext& context) {
    global.transfer.wait_to_start();
    const ContextGuard guard(context.context_lock);
    // Requests that API commands made before the call's media started take effect now.
    media::merge_features(context.features, context.requested_features);
    context.requested_features = context.features;
    context.start_sent = global.transfer.media_start(session, context);
    return context.start_sent;
}

switch_bool_t handle_init(switch_core_session_t* session, AppContext& context) {
    if (!start_transfer(session, context)) {
        log_session_line<log::ERROR>(session, QV_PLACE_IN(MEDIA_HANDLER),
                                     "media transfer start failed");
        return SWITCH_FALSE;
    }
    log_session_line<log::INFO>(session, QV_PLACE_IN(MEDIA_HANDLER), "media transfer started");
    return SWITCH_TRUE;
}

void handle_frame(switch_core_session_t* session, AppContext& context, std::uint8_t leg,
                  const switch_frame_t* frame) {
    if (!global.transfer.media_data(session, context, leg, frame)) {
        log_session_line<log::ERROR>(session, QV_PLACE_IN(MEDIA_HANDLER),
                                     "media transfer failed to send ",
                                     leg == media::READ_LEG ? "read" : "write", " frame");
    }
}

void report_transfer(switch_core_session_t* session, const AppContext& context) {
    const LegStream& read = context.legs[media::READ_LEG];
    const LegStream& write = context.legs[media::WRITE_LEG];
    const std::uint32_t odd_frames = read.odd_frames + write.odd_frames;
    if (odd_frames != 0) {
        log_session_line<log::ERROR>(session, QV_PLACE_IN(MEDIA_HANDLER), "detected (", odd_frames,
                                     ") odd frames");
    }
    // The spelling of "transfered" is kept. See docs/design.md, Odd on purpose: texts.
    log_session_line<log::INFO>(session, QV_PLACE_IN(MEDIA_HANDLER), "transfered ", read.bytes_sent,
                                "/", write.bytes_sent, " bytes of media");
}

// Returns false if the call has no registry entry.
bool unregister(const AppContext& context) {
    std::optional<ContextReference> entry;
    const RegistryGuard guard(global.contexts_lock);
    entry = remove_context(global.contexts, context.id);
    return entry.has_value();
}

// Returns the reference of a closing bug. If the host had refused the bug, its reference was
// returned already, and the bug is counted again until its event ends.
ContextReference detach(AppContext& context) {
    context.count_close();
    ContextReference reference = context.take_back_from_bug();
    if (!reference) {
        module_state.bugs.add();
        reference = ContextReference(&context);
    }
    return reference;
}

// Handles the last event of a bug. The caller drops the bug's reference afterwards.
void handle_close(switch_core_session_t* session, const ContextReference& context) {
    if (global.transfer.media_terminate(session, *context)) {
        log_session_line<log::INFO>(session, QV_PLACE_IN(MEDIA_HANDLER),
                                    "media transfer terminated");
    } else {
        log_session_line<log::ERROR>(session, QV_PLACE_IN(MEDIA_HANDLER),
                                     "media transfer termination failed");
    }
    report_transfer(session, *context);
    if (!unregister(*context)) {
        log_session_line<log::ERROR>(session, QV_PLACE_IN(MEDIA_HANDLER),
                                     "MAGIC: app context is not found on media transfer "
                                     "termination");
    }
}

// Only reads the frames: the call's audio stays unchanged.
switch_bool_t media_handler(switch_media_bug_t* bug, void* user_data, switch_abc_type_t type) {
    if (bug == nullptr || user_data == nullptr) {
        return SWITCH_FALSE;
    }
    auto* context = static_cast<AppContext*>(user_data);
    switch_core_session_t* session = switch_core_media_bug_get_session(bug);
    switch (type) {
        case SWITCH_ABC_TYPE_INIT:
            return handle_init(session, *context);
        case SWITCH_ABC_TYPE_WRITE_REPLACE:
            handle_frame(session, *context, media::WRITE_LEG,
                         switch_core_media_bug_get_write_replace_frame(bug));
            break;
        case SWITCH_ABC_TYPE_READ_REPLACE:
            handle_frame(session, *context, media::READ_LEG,
                         switch_core_media_bug_get_read_replace_frame(bug));
            break;
        case SWITCH_ABC_TYPE_CLOSE:
            handle_close(session, detach(*context));
            module_state.bugs.remove();
            break;
        default:
            break;
    }
    return SWITCH_TRUE;
}

// ---- API --------------------------------------------------------------------------

SWITCH_STANDARD_API(execute_quorvane_api) {
    (void)session;
    try {
        run_api_command(cmd, global, stream);
    } catch (const std::bad_alloc&) {
        stream->write_function(stream, "-ERR, out of memory\n");
    }
    return SWITCH_STATUS_SUCCESS;
}

// ---- events -----------------------------------------------------------------------

// Frees contexts whose bug was never attached or whose application never ran. The event's UUID
// may be wrong: a context that is in use loses only its registry entry.
void channel_destroy_handler(switch_event_t* event) {
    const char* uuid_text = event_header(event, "Unique-ID");
    if (uuid_text == nullptr) {
        log_line<log::ERROR>(QV_PLACE,
                             "MAGIC: unable to extract \"Unique-ID\" from channel destroy event");
        return;
    }
    CallIdentity call;
    if (!identify(uuid_text, call)) {
        log_line<log::ERROR>(QV_PLACE, "MAGIC: failed to parse session uuid: ", uuid_text);
        return;
    }
    const ContextReference context = take_context(global, call.id);
    remove_contexts_of_other_names(global, call.id);
    if (!context) {
        return;
    }
    if (context->created_time != 0) {
        log_line<log::WARNING>(QV_PLACE, uuid_text,
                               ": found configured app context on channel destroy: possible "
                               "memory leak or logic error!");
    } else {
        log_line<log::SYSTEM>(QV_PLACE, uuid_text,
                              ": found app context on channel destroy however no app has been "
                              "executed");
    }
}

void dump(switch_event_t* event, const LogPlace& place) {
    char* text = nullptr;
    if (switch_event_serialize(event, &text, SWITCH_FALSE) != SWITCH_STATUS_SUCCESS) {
        return;
    }
    switch_log_printf(SWITCH_CHANNEL_ID_LOG, place.file, place.function, place.line, nullptr,
                      SWITCH_LOG_CRIT, "DUMP\n%s\n", text);
    std::free(text);
}

void dump_all_event_handler(switch_event_t* event) {
    dump(event, QV_PLACE);
}

void dump_channel_event_handler(switch_event_t* event) {
    if (is_channel_event(event)) {
        dump(event, QV_PLACE);
    }
}

void dump_channel_event_short_handler(switch_event_t* event) {
    if (!is_channel_event(event)) {
        return;
    }
    try {
        // The line is passed as the format, so the host interprets a "%" in a header. See
        // docs/design.md, Odd on purpose: short event dump.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
        switch_log_printf(SWITCH_CHANNEL_ID_LOG, log::source_base_name(__FILE__), __func__,
                          __LINE__, nullptr, SWITCH_LOG_CRIT, short_event_line(event).c_str());
#pragma GCC diagnostic pop
    } catch (const std::bad_alloc&) {
        log_line<log::ERROR>(QV_PLACE, "out of memory: event is not dumped");
    }
}

switch_event_callback_t dump_handler(DumpMode mode) {
    switch (mode) {
        case DumpMode::ALL:
            return dump_all_event_handler;
        case DumpMode::CHANNEL:
            return dump_channel_event_handler;
        case DumpMode::CHANNEL_SHORT:
            return dump_channel_event_short_handler;
        case DumpMode::NONE:
            break;
    }
    return nullptr;
}

}  // namespace

// ---- shutdown ---------------------------------------------------------------------

// Sends nothing and frees no context. Tapped calls end on their own; the shared object stays
// mapped until the last of them has ended.
switch_status_t mod_quorvane_shutdown() {
    module_state.bugs.close_socket();
    unbind(module_state.g_dump_event_hook);
    unbind(module_state.g_channel_destroy_hook);
    log_line<log::SYSTEM>(QV_PLACE, "module has been shutdown");
    module_state.bugs.unloaded();
    return SWITCH_STATUS_SUCCESS;
}

// ---- unmapping --------------------------------------------------------------------

namespace {

// Destroys the state when the shared object is unmapped. If the host ends the process with
// exit() while calls are tapped, their threads run until the process is gone, so the state is kept.
struct EndOfState {
    EndOfState() = default;
    EndOfState(const EndOfState&) = delete;
    EndOfState& operator=(const EndOfState&) = delete;
    ~EndOfState() {
        if (module_state.bugs.may_be_called()) {
            return;
        }
        // No context that is still registered has a media bug at this point.
        free_left_contexts(global);
        module_state.~ModuleState();
    }
};
EndOfState end_of_state;

}  // namespace

}  // namespace qv::freeswitch

// The only symbol that the host looks up; all others are hidden.
extern "C" {
__attribute__((visibility("default")))
switch_loadable_module_function_table_t mod_quorvane_module_interface = {
    SWITCH_API_VERSION,
    qv::freeswitch::mod_quorvane_load,
    qv::freeswitch::mod_quorvane_shutdown,
    nullptr,
    SMODF_NONE,
};
}
