#include "tests/support/own_network.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace qv::tests {

namespace {

bool write_to(const char* path, const std::string& text) {
    std::ofstream file(path);
    file << text << std::flush;
    return static_cast<bool>(file);
}

bool run(const std::string& command) {
    return std::system(("{ " + command + "; } >/dev/null 2>&1").c_str()) == 0;
}

// An ordinary user may create a network only as root of a user namespace of their own.
bool become_root_of_own_users() {
    const std::string user = std::to_string(::geteuid());
    const std::string group = std::to_string(::getegid());
    return ::unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0 &&
           write_to("/proc/self/setgroups", "deny") &&
           write_to("/proc/self/uid_map", "0 " + user + " 1") &&
           write_to("/proc/self/gid_map", "0 " + group + " 1");
}

}  // namespace

OwnNetwork::OwnNetwork() : before_(::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC)) {
    if (::unshare(CLONE_NEWNET) != 0 && !become_root_of_own_users()) {
        why_not_ = "no network of its own: " + std::generic_category().message(errno);
    } else if (!run("ip link set lo up") || !run("ip link add link0 type veth peer name link1") ||
               !run("ip address add 10.9.0.1/24 dev link0") || !run("ip link set link0 up") ||
               !run("ip link set link1 up && ip route add unreachable default table 7")) {
        why_not_ = "no link in a network of its own: 'ip' (iproute2) or the kernel refuses";
    } else if (!write_to("/proc/sys/net/ipv4/neigh/link0/retrans_time_ms", "10000")) {
        // Otherwise the kernel would give up after three seconds and empty the send buffer.
        why_not_ = "a neighbour's patience cannot be set in a network of its own";
    }
}

OwnNetwork::~OwnNetwork() {
    if (before_ >= 0) {
        ::setns(before_, CLONE_NEWNET);
        ::close(before_);
    }
}

void OwnNetwork::answer_from(int host) const {
    if (!run("ip neighbour replace 10.9.0." + std::to_string(host) +
             " lladdr 02:00:00:00:00:01 dev link0")) {
        throw std::runtime_error("no neighbour 10.9.0." + std::to_string(host));
    }
}

void OwnNetwork::bar_loopback(const std::string& kind) const {
    // By default the rule for local addresses comes first. It must come after the rules of the
    // test.
    if (!run("ip rule add pref 100 lookup local && ip rule del pref 0") ||
        !run("ip rule add pref 10 to 127.0.0.1 " + kind)) {
        throw std::runtime_error("the loopback cannot be barred by '" + kind + "'");
    }
}

void OwnNetwork::open_loopback() const {
    if (!run("ip rule add pref 0 lookup local && ip rule del pref 100 && ip rule del pref 10")) {
        throw std::runtime_error("the loopback cannot be opened");
    }
}

}  // namespace qv::tests
