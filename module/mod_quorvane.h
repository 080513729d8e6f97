// The module's spine: its options, its one module-wide state, and the two entry points
// that the host finds through `mod_quorvane_module_interface`.
//
// The state is built when the host opens the module and destroyed when the host closes
// it. Load and shutdown run on the host's module-loading thread; everything that load
// registers runs on the host's threads.
#pragma once

#include <netinet/in.h>
#include <switch.h>

#include <cstdint>
#include <mutex>
#include <sstream>
#include <string>

#include "module/app_context.h"
#include "module/media_transfer.h"
#include "quorvane_lib/conf_configuration.h"
#include "quorvane_lib/net_socket.h"

namespace qv::freeswitch {

// Which host events are copied into the host's log.
enum class DumpMode : std::int32_t {
    NONE = 0,
    ALL = 1,
    CHANNEL = 2,
    CHANNEL_SHORT = 3,
};

// The option value that stands for `mode`; "not-specified" for no mode.
const char* dump_mode_name(DumpMode mode);

// The module's options. Written only while the module is being loaded, then only read,
// by any thread.
class Configuration : public conf::LogExtenstion<conf::Configuration> {
  public:
    Configuration();

    int set_flag(const std::string& name, std::stringstream& error) override;
    int set_value(const std::string& name, const std::string& value,
                  std::stringstream& error) override;

    std::string media_node_host = "127.0.0.1";  // As written.
    std::uint16_t media_node_port = 0;          // Host byte order.
    sockaddr_in media_node_addr{};              // 0.0.0.0 when the host is no dotted address.
    DumpMode dump_mode = DumpMode::NONE;
    std::string default_detection;       // As written; empty for no default.
    std::string default_audio_activity;  // The same.

  private:
    int set_media_node(const std::string& name, const std::string& value, std::stringstream& error);
    int set_dump_mode(const std::string& name, const std::string& value, std::stringstream& error);
};

// The module-wide state. One socket and one sender serve all calls without a lock.
class ModuleContext {
  public:
    net::Socket socket;
    MediaTransfer transfer{&socket};
    Configuration config;

    // What is still registered when the module goes away is left alone.
    ContextRegistry contexts;

    // The registry lock: guards `contexts`.
    std::mutex contexts_lock;
};

switch_status_t mod_quorvane_load(switch_loadable_module_interface_t** module_interface,
                                  switch_memory_pool_t* pool);
switch_status_t mod_quorvane_shutdown();

}  // namespace qv::freeswitch
