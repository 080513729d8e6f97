// Tells the service manager that started the program how it is, in the protocol of sd_notify:
// one datagram to the socket that NOTIFY_SOCKET names. Without that variable nothing is sent.
// No state; any thread may call.
#pragma once

#include <string>

namespace qv::node {

// `state` are lines such as "READY=1". Returns why the manager cannot be told, or nothing.
std::string notify_service_manager(const std::string& state);

}  // namespace qv::node
