// The module in the embedded host, for targets that run the whole module.
//
// A program that links it sends no datagram: it keeps what the module passes to the system. The
// module runs on the calling thread, except for its event handlers; settle() waits for these.
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
    // The process has one; the first use makes it and loads the module, which is configured with
    // audio activity of the terminator as the default.
    static ModuleHost& instance();

    host::EmbeddedHost& host() { return host_; }
    std::string api(const std::string& arguments);
    void settle() { host_.events().wait_drained(); }

    // The module's log lines and datagrams since the last call.
    std::vector<std::string> take_lines();
    std::vector<Datagram> take_datagrams();

    // Requires that the host has nothing left of any call.
    void require_clean() const;

  private:
    ModuleHost();

    host::EmbeddedHost host_;
    std::vector<std::string> lines_;
};

}  // namespace qv::fuzz
