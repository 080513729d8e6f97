// Fuzzes the text of a host list, for the lenient and the strict parser.
#include <arpa/inet.h>

#include <cstdint>
#include <cstring>
#include <list>
#include <string>
#include <vector>

#include "fuzz/support/number_model.h"
#include "fuzz/support/require.h"
#include "quorvane_lib/net_socket.h"

namespace {

// Longer results would only take time.
constexpr std::size_t ENTRIES_MAX = 3000;

std::vector<std::string> pieces(const std::string& text, char delimiter) {
    std::vector<std::string> all(1);
    for (const char c : text) {
        if (c == delimiter) {
            all.emplace_back();
        } else {
            all.back() += c;
        }
    }
    std::vector<std::string> filled;
    for (const std::string& piece : all) {
        if (!piece.empty()) {
            filled.push_back(piece);
        }
    }
    return filled;
}

std::string trimmed(std::string text) {
    const std::string blanks = " \t\n\r";
    while (!text.empty() && blanks.find(text.front()) != std::string::npos) {
        text.erase(0, 1);
    }
    while (!text.empty() && blanks.find(text.back()) != std::string::npos) {
        text.pop_back();
    }
    return text;
}

std::uint16_t lenient_port(const std::string& text) {
    const qv::fuzz::NumberModel number = qv::fuzz::read_number(text);
    return static_cast<std::uint16_t>(number.magnitude > 65535 ? 65535 : number.magnitude);
}

struct Item {
    std::string host;
    std::uint16_t first = 0;
    std::uint16_t last = 0;
};

// The valid items, with ranges still to be expanded.
std::vector<Item> model_of(const std::string& text, bool strict) {
    std::vector<Item> items;
    for (const std::string& item : pieces(text, ',')) {
        const std::vector<std::string> parts = pieces(item, ':');
        if (parts.size() != 2) {
            continue;
        }
        const std::vector<std::string> ports = pieces(trimmed(parts[1]), '-');
        if (ports.empty() || ports.size() > 2) {
            continue;
        }
        Item result{trimmed(parts[0]), lenient_port(ports.front()), lenient_port(ports.back())};
        if (strict && (!qv::fuzz::read_port(ports.front(), result.first) ||
                       !qv::fuzz::read_port(ports.back(), result.last))) {
            continue;
        }
        result.last = result.last < result.first ? result.first : result.last;
        items.push_back(result);
    }
    return items;
}

std::size_t entries_of(const std::vector<Item>& items) {
    std::size_t entries = 0;
    for (const Item& item : items) {
        entries += std::size_t{item.last} - item.first + 1;
    }
    return entries;
}

// Calls `check(entry, host, port)` for every entry with the expected host and port.
template <typename Entry, typename Check>
void compare(const std::list<Entry>& entries, const std::vector<Item>& items, Check check) {
    qv::fuzz::require_equal("number of entries", entries.size(), entries_of(items));
    auto entry = entries.begin();
    for (const Item& item : items) {
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
    const std::vector<Item> lenient = model_of(text, false);
    if (entries_of(lenient) <= ENTRIES_MAX) {
        std::list<qv::net::Host> hosts;
        qv::net::parse_hosts(text, hosts);
        compare(hosts, lenient, [](const qv::net::Host&) {});
    }
    const std::vector<Item> strict = model_of(text, true);
    if (entries_of(strict) <= ENTRIES_MAX) {
        std::list<qv::net::HostAddr> addrs;
        qv::net::parse_addrs(text, addrs);
        compare(addrs, strict, check_address);
    }
    return 0;
}
