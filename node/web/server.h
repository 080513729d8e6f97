// Serves a site and its live pages over HTTP and websockets: the only unit that knows the library
// for it. Each page has a thread that sends to it. A page that takes nothing for too long is cut
// off.
//
// Belongs to one thread.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "node/web/http.h"
#include "node/web/live_page.h"

namespace qv::node::web {

class Server {
  public:
    // The threads of the server call these.
    struct Handlers {
        std::function<Response(const Request& request)> answer;
        // Whether this request may become a live page: nullopt if so, and otherwise the answer.
        std::function<std::optional<Response>(const Request& request)> refuse_live;
        std::function<std::unique_ptr<LivePage>(const Request& request)> open_page;
        // Whether the page that this request has opened may stay open; asked every second.
        std::function<bool(const Request& request)> may_stay;
        // Null unless connections come through a relay on this machine, which takes TLS off them:
        // who is behind the connection that comes from this address and port. Nullopt: it is not
        // the relay's, and is refused.
        std::function<std::optional<std::string>(const std::string& from)> relayed_peer;
    };

    // Port 0 takes a free port. Throws std::runtime_error with the reason if the address cannot be
    // used.
    Server(const sockaddr_in& address, Handlers handlers);
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;
    // Cuts off what is still connected.
    ~Server();

    std::uint16_t port() const;

  private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace qv::node::web
