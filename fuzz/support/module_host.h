// The module in the embedded host, for targets that run it whole.
//
// A program that links it sends no datagram: what the module hands to the system is kept
// here. The module runs on the calling thread, except for its event handlers; settle()
// waits for these.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "host/embedded_host.h"

namespace qv::fuzz {

struct Datagram {
    sockaddr_in to{};
    std::vector<std::uint8_t> bytes;

    std::string destination() const;
};

class ModuleHost {
  public:
    // One for the process; made, and the module loaded, at the first use. Audio activity of
    // the terminator is the default that the module is configured with.
    static ModuleHost& instance();

    host::EmbeddedHost& host() { return host_; }
    std::string api(const std::string& arguments);
    void settle() { host_.events().wait_drained(); }

    // The module's log lines and datagrams since the last call.
    std::vector<std::string> take_lines();
    std::vector<Datagram> take_datagrams();

    // Nothing of a call is left in the host.
    void require_clean() const;

  private:
    ModuleHost();

    host::EmbeddedHost host_;
    std::vector<std::string> lines_;
};

}  // namespace qv::fuzz
