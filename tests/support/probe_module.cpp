// A module for tests of the embedded host. It is built several times: PROBE_NAME is the name of
// the module, and one more definition may give it a fault.
//
//   PROBE_VERSION=N     the version in its table
//   PROBE_LOAD_STATUS=N what its load function returns
//   PROBE_THROWS        its load function throws a std::string
//   PROBE_NO_INTERFACE  its load function leaves no interface
//   PROBE_NO_LOAD       its table has no load function
//
// Its application "probe" attaches a bug that counts its events. The channel variable
// probe_refuse is the number of an event kind for which the bug returns false; probe_alter makes
// the bug write into every frame. Its API command "probe" answers with the arguments between
// brackets; with "wait" it sleeps for 0.3 seconds first.
#include <switch.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "quorvane_lib/mutex.h"

#ifndef PROBE_VERSION
#define PROBE_VERSION SWITCH_API_VERSION
#endif
#ifndef PROBE_LOAD_STATUS
#define PROBE_LOAD_STATUS SWITCH_STATUS_SUCCESS
#endif

#define PROBE_JOIN2(a, b) a##b
#define PROBE_JOIN(a, b) PROBE_JOIN2(a, b)
#define PROBE_TEXT2(a) #a
#define PROBE_TEXT(a) PROBE_TEXT2(a)

namespace {

void say(const std::string& text) {
    switch_log_printf(SWITCH_CHANNEL_ID_LOG, __FILE__, __func__, __LINE__, nullptr,
                      SWITCH_LOG_NOTICE, "probe: %s\n", text.c_str());
}

// Reports when the shared object is mapped and unmapped.
struct Lifetime {
    Lifetime() { say("constructed"); }
    ~Lifetime() { say("destroyed"); }
};
const Lifetime LIFETIME;

switch_event_node_t* g_destroy_node = nullptr;

// What the bug of one call has recorded.
struct Seen {
    int refused_event = -1;
    bool alter = false;
    std::atomic<int> reads{0};
    std::atomic<int> writes{0};
    std::thread::id read_thread;
    std::thread::id write_thread;
};

// What all bugs have recorded. CLOSE removes an entry; bugs that never get CLOSE keep theirs until
// the module is unloaded.
qv::Mutex g_lock;
std::map<const Seen*, std::unique_ptr<Seen>> g_seen QV_GUARDED_BY(g_lock);

Seen* keep(std::unique_ptr<Seen> seen) {
    const qv::LockGuard guard(g_lock);
    Seen* kept = seen.get();
    g_seen[kept] = std::move(seen);
    return kept;
}

void forget(const Seen& seen) {
    const qv::LockGuard guard(g_lock);
    g_seen.erase(&seen);
}

std::string summary(const Seen& seen) {
    const bool apart = seen.read_thread != seen.write_thread;
    return "closed after " + std::to_string(seen.reads) + " read and " +
           std::to_string(seen.writes) + " write frames" +
           (apart ? " on two threads" : " on one thread");
}

void take(Seen& seen, switch_frame_t* frame) {
    if (frame && seen.alter && frame->datalen > 0) {
        static_cast<unsigned char*>(frame->data)[0] ^= 1u;
    }
}

switch_bool_t on_bug(switch_media_bug_t* bug, void* user_data, switch_abc_type_t type) {
    auto& seen = *static_cast<Seen*>(user_data);
    const switch_bool_t answer = type == seen.refused_event ? SWITCH_FALSE : SWITCH_TRUE;
    switch (type) {
        case SWITCH_ABC_TYPE_READ_REPLACE:
            ++seen.reads;
            seen.read_thread = std::this_thread::get_id();
            take(seen, switch_core_media_bug_get_read_replace_frame(bug));
            break;
        case SWITCH_ABC_TYPE_WRITE_REPLACE:
            ++seen.writes;
            seen.write_thread = std::this_thread::get_id();
            take(seen, switch_core_media_bug_get_write_replace_frame(bug));
            break;
        case SWITCH_ABC_TYPE_CLOSE:
            say(summary(seen));
            forget(seen);
            break;
        default:
            break;
    }
    return answer;
}

int number(switch_channel_t* channel, const char* variable, int otherwise) {
    const char* value = switch_channel_get_variable_dup(channel, variable, SWITCH_FALSE, -1);
    return value ? std::atoi(value) : otherwise;  // NOLINT(cert-err34-c)
}

void run_application(switch_core_session_t* session, const char* data) {
    switch_channel_t* channel = switch_core_session_get_channel(session);
    Seen* seen = keep(std::make_unique<Seen>());
    seen->refused_event = number(channel, "probe_refuse", -1);
    seen->alter = number(channel, "probe_alter", 0) != 0;
    switch_media_bug_t* bug = nullptr;
    const switch_status_t status = switch_core_media_bug_add(
        session, "probe", nullptr, on_bug, seen, 0, SMBF_READ_REPLACE | SMBF_WRITE_REPLACE, &bug);
    if (status != SWITCH_STATUS_SUCCESS) {
        forget(*seen);
    }
    say(std::string("ran with [") + data + "], bug status " + std::to_string(status));
}

switch_status_t run_api(const char* cmd, switch_core_session_t* /*session*/,
                        switch_stream_handle_t* stream) {
    if (std::string(cmd) == "wait") {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
    }
    stream->write_function(stream, "[%s]", cmd);
    return std::string(cmd) == "fail" ? SWITCH_STATUS_FALSE : SWITCH_STATUS_SUCCESS;
}

void on_destroy(switch_event_t* event) {
    const char* uuid = switch_event_get_header_idx(event, "Unique-ID", -1);
    say(std::string("destroy event of ") + (uuid ? uuid : "nobody"));
}

[[maybe_unused]] void create_interfaces(switch_loadable_module_interface_t** module_interface,
                                        switch_memory_pool_t* pool) {
    *module_interface =
        switch_loadable_module_create_module_interface(pool, PROBE_TEXT(PROBE_NAME));
    auto* app = static_cast<switch_application_interface_t*>(
        switch_loadable_module_create_interface(*module_interface, SWITCH_APPLICATION_INTERFACE));
    app->interface_name = "probe";
    app->application_function = run_application;
    app->short_desc = "short";
    app->long_desc = "long";
    app->syntax = "[text]";
    auto* api = static_cast<switch_api_interface_t*>(
        switch_loadable_module_create_interface(*module_interface, SWITCH_API_INTERFACE));
    api->interface_name = "probe";
    api->desc = "tries out the host";
    api->function = run_api;
    api->syntax = "wait|fail";
    switch_console_set_complete("add probe wait");
    switch_console_set_complete("add probe fail");
}

[[maybe_unused]] SWITCH_MODULE_LOAD_FUNCTION(probe_load) {
    say("loading");
    create_interfaces(module_interface, pool);
#ifdef PROBE_NO_INTERFACE
    *module_interface = nullptr;
#endif
    switch_event_bind_removable("probe", SWITCH_EVENT_CHANNEL_DESTROY, SWITCH_EVENT_SUBCLASS_ANY,
                                on_destroy, nullptr, &g_destroy_node);
#ifdef PROBE_THROWS
    throw std::string("no wish to load");
#endif
    return static_cast<switch_status_t>(PROBE_LOAD_STATUS);
}

SWITCH_MODULE_SHUTDOWN_FUNCTION(probe_shutdown) {
    say("shutting down");
    switch_event_unbind(&g_destroy_node);
    return SWITCH_STATUS_SUCCESS;
}

#ifdef PROBE_NO_LOAD
constexpr switch_module_load_t LOAD = nullptr;
#else
constexpr switch_module_load_t LOAD = probe_load;
#endif

}  // namespace

#define PROBE_TABLE PROBE_JOIN(PROBE_NAME, _module_interface)
extern "C" {
SWITCH_MOD_DECLARE_DATA switch_loadable_module_function_table_t PROBE_TABLE = {
    PROBE_VERSION, LOAD, probe_shutdown, nullptr, SMODF_NONE};
}
