// The module's options, which the configuration file sets.
//
// Load writes them on the host's module-loading thread; after that they are only read, by any
// thread.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <sstream>
#include <string>

#include "quorvane_lib/conf_configuration.h"

namespace qv::freeswitch {

// Which host events are written to the host's log.
enum class DumpMode : std::int32_t {
    NONE = 0,
    ALL = 1,
    CHANNEL = 2,
    CHANNEL_SHORT = 3,
};

// The option value of `mode`; "not-specified" for a number that is no mode.
const char* dump_mode_name(DumpMode mode);

class Configuration : public conf::LogExtenstion<conf::Configuration> {
  public:
    Configuration();

    int set_flag(const std::string& name, std::stringstream& error) override;
    int set_value(const std::string& name, const std::string& value,
                  std::stringstream& error) override;

    std::string media_node_host = "127.0.0.1";  // As in the file.
    std::uint16_t media_node_port = 0;          // Host byte order.
    sockaddr_in media_node_addr{};              // 0.0.0.0 if the host is no dotted address.
    DumpMode dump_mode = DumpMode::NONE;
    std::string default_detection;       // As in the file; empty for no default.
    std::string default_audio_activity;  // The same.

  private:
    int set_media_node(const std::string& name, const std::string& value, std::stringstream& error);
    int set_dump_mode(const std::string& name, const std::string& value, std::stringstream& error);
};

}  // namespace qv::freeswitch
