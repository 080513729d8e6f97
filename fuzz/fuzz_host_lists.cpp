// Fuzzes the text of a host list, for the lenient and the strict parser.
#include <arpa/inet.h>

#include <cstdint>
#include <cstring>
#include <list>
#include <string>
#include <vector>

#include "fuzz/support/host_list_model.h"
#include "fuzz/support/number_model.h"
#include "fuzz/support/require.h"
#include "quorvane_lib/net_socket.h"

namespace {

using qv::fuzz::entries_of;
using qv::fuzz::HostItem;
using qv::fuzz::read_hosts;

// Longer results would only take time.
constexpr std::size_t ENTRIES_MAX = 3000;

// Calls `check(entry, host, port)` for every entry with the expected host and port.
template <typename Entry, typename Check>
void compare(const std::list<Entry>& entries, const std::vector<HostItem>& items, Check check) {
    qv::fuzz::require_equal("number of entries", entries.size(), entries_of(items));
    auto entry = entries.begin();
    for (const HostItem& item : items) {
        for (unsigned port = item.first; port <= item.last; ++port, ++entry) {
            qv::fuzz::require(entry->host == item.host, "the host is the item's");
            qv::fuzz::require_equal("port", entry->port, port);
            check(*entry);
        }
    }
}

void check_address(const qv::net::HostAddr& entry) {
    unsigned char bytes[4] = {};
    if (!qv::fuzz::read_dotted(entry.host, bytes)) {
        std::memset(bytes, 0, sizeof(bytes));
    }
    qv::fuzz::require(std::memcmp(&entry.addr.sin_addr, bytes, sizeof(bytes)) == 0,
                      "the address is the host's");
    qv::fuzz::require_equal("port of the address", ntohs(entry.addr.sin_port), entry.port);
    qv::fuzz::require_equal("family", entry.addr.sin_family, AF_INET);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text = qv::fuzz::as_text(data, size).substr(0, 256).c_str();
    const std::vector<HostItem> lenient = read_hosts(text, false);
    if (entries_of(lenient) <= ENTRIES_MAX) {
        std::list<qv::net::Host> hosts;
        qv::net::parse_hosts(text, hosts);
        compare(hosts, lenient, [](const qv::net::Host&) {});
    }
    const std::vector<HostItem> strict = read_hosts(text, true);
    if (entries_of(strict) <= ENTRIES_MAX) {
        std::list<qv::net::HostAddr> addrs;
        qv::net::parse_addrs(text, addrs);
        compare(addrs, strict, check_address);
    }
    return 0;
}
