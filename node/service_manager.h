// Reports the program's state to the service manager that started it, with the protocol of
// sd_notify: one datagram to the socket that NOTIFY_SOCKET names. Without that variable nothing is
// sent. No state; any thread may call it.
#pragma once

#include <string>

namespace qv::node {

// `state` consists of lines such as "READY=1". Returns why the manager cannot be reached, or an
// empty text.
std::string notify_service_manager(const std::string& state);

}  // namespace qv::node
