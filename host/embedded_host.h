// A small switch core inside the process that links it: loads modules with dlopen,
// gives them the host functions of switch.h, and runs calls on them, without a
// telephony server. The demonstration, the tests, the benchmarks and the fuzzers run
// the module in it, so it has to behave as the real host does.
//
// A process has one EmbeddedHost at a time, since the host functions act on it. Any
// thread may call its functions; loading and unloading wait for one another.
//
//     qv::host::EmbeddedHost host;
//     auto loaded = host.load_module("build/mod_quorvane.so");
//     if (!loaded.loaded) ... loaded.error ...
//     auto call = host.start_call();
//     call->execute("quorvane");
//     call->feed(qv::host::Direction::READ, samples, 320);
//     host.api("quorvane " + call->uuid() + " features").text;
//     call->hangup();
//
// An executable gets it with the CMake function quorvane_use_host(TARGET), which also
// lets modules find the host functions in the executable.
//
// Locks, in the order in which they are taken: the loader's, a session's thread lock, its
// plan lock, a media leg's, the bug lock of the session; a module's own locks come after
// these. Then the session table's lock and a session's read lock; those of the media
// threads, channel, registry, events, faults and log are taken last, one at a time.
#pragma once

#include <switch.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/call.h"
#include "host/events.h"
#include "host/faults.h"
#include "host/log.h"
#include "host/report.h"

namespace qv::host {

struct HostOptions {
    // Threads of the pool per direction. They start with the first call that uses the pool.
    unsigned media_threads = 1;
    // How long a hang-up waits for read locks before it logs that and goes on.
    std::chrono::milliseconds lock_patience{30000};
};

struct LoadResult {
    bool loaded = false;
    std::string name;                       // "mod_quorvane": file name up to its first dot
    std::string error;                      // empty when loaded
    std::optional<switch_status_t> status;  // what the load function returned
    std::optional<std::string> exception;   // text of the exception that it threw
    bool left_memory = false;               // after a failed load: the object is unmapped
    std::size_t bindings_dropped = 0;       // after a failed load: bindings that remained
};

struct UnloadResult {
    bool unloaded = false;
    std::string error;                      // empty when unloaded
    std::optional<switch_status_t> status;  // what the shutdown function returned
    std::optional<std::string> exception;   // text of the exception that it threw
    bool left_memory = false;               // the object is unmapped
    std::size_t bindings_dropped = 0;       // bindings that remained after the shutdown
    std::size_t bugs_dropped = 0;           // bugs whose code is unmapped; they get no CLOSE
};

struct ApiAnswer {
    switch_status_t status = SWITCH_STATUS_SUCCESS;
    std::string text;
};

struct ApplicationInfo {
    std::string name, short_desc, long_desc, syntax;
    std::uint32_t flags = 0;
};

struct ApiInfo {
    std::string name, desc, syntax;
};

class EmbeddedHost {
  public:
    explicit EmbeddedHost(HostOptions options = {});  // std::logic_error: another one exists
    ~EmbeddedHost();                                  // hangs up all calls, unloads all modules
    EmbeddedHost(const EmbeddedHost&) = delete;
    EmbeddedHost& operator=(const EmbeddedHost&) = delete;

    // Opens the object (RTLD_NOW, RTLD_LOCAL), finds NAME_module_interface in it, checks
    // its API version and runs its load function. On a failure the object is closed
    // again without a shutdown, as the real host does.
    LoadResult load_module(const std::string& path);
    // Runs the shutdown function (unless shutdown_module did), drops what the module
    // registered and closes the object. Refused while an application or an API command
    // of the module runs.
    UnloadResult unload_module(const std::string& name);
    // Only the shutdown function: the object stays open and its bugs stay attached.
    UnloadResult shutdown_module(const std::string& name);

    // In the order of registration.
    std::vector<ApplicationInfo> applications() const;
    std::vector<ApiInfo> apis() const;
    std::vector<std::string> completions() const;

    // std::invalid_argument: a call with this UUID is alive.
    std::unique_ptr<Call> start_call(CallOptions options = {});
    // A call's own variable overrides the global one of the same name.
    void set_global_variable(const std::string& name, const std::string& value);

    // Runs "COMMAND ARGUMENTS" as the console does: blanks around both are cut off, a
    // command without arguments gets the empty text.
    ApiAnswer api(const std::string& command_line);
    // Calls the function of an API command with exactly these arguments, also null ones.
    // SWITCH_STATUS_NOTFOUND when there is no such command.
    switch_status_t call_api(const std::string& command, const char* arguments,
                             switch_core_session_t* session, switch_stream_handle_t* stream);

    Log& log();
    EventBus& events();
    Faults& faults();
    Report report() const;

    struct Parts;  // for the host's own sources
    Parts& parts() { return *parts_; }

  private:
    const std::unique_ptr<Parts> parts_;
};

}  // namespace qv::host
