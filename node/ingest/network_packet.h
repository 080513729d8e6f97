// Finds the UDP datagrams in the frames of a network capture: removes the link layer and VLAN tags,
// and reassembles IPv4 fragments. Plain bytes in and out. Belongs to one thread.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <optional>
#include <vector>

#include "node/calls/types.h"

namespace qv::node {

// Bytes that somebody else owns.
struct ByteView {
    const unsigned char* data;
    std::size_t size;
};

// The supported link layers.
enum class LinkLayer : std::uint8_t {
    ETHERNET,
    LINUX_COOKED_1,
    LINUX_COOKED_2,
    LOOPBACK,  // Four bytes with the address family, in either byte order.
    IP,        // No link layer.
};

// Returns the IPv4 packet of a frame, including any bytes behind it. Nullopt if the frame holds
// none. Skips any number of VLAN tags.
std::optional<ByteView> ipv4_packet(LinkLayer link, ByteView frame);

// A UDP datagram; `payload` is valid until the next call of UdpReader::read().
struct UdpDatagram {
    sockaddr_in source{};
    sockaddr_in destination{};
    ByteView payload{};
};

class UdpReader {
  public:
    // How long fragments wait, and of how many datagrams. The oldest are dropped first.
    static constexpr Micros PATIENCE{30'000'000};
    static constexpr std::size_t MOST_WAITING = 256;

    // Handles an IPv4 packet that came at `now`. Returns the UDP datagram that it holds or
    // completes. Nullopt if it is of another kind, damaged, truncated or a fragment.
    std::optional<UdpDatagram> read(ByteView packet, Micros now);

    // Packets that the capture holds only in part.
    std::uint64_t cut() const { return cut_; }
    // Datagrams that lack a fragment, including those that still wait for one.
    std::uint64_t incomplete() const { return given_up_ + waiting_.size(); }

  private:
    struct Header {
        sockaddr_in source{};
        sockaddr_in destination{};
        std::uint16_t identification = 0;
        std::size_t offset = 0;  // Bytes.
        bool more = false;       // More fragments follow.
        ByteView payload{};
    };
    struct Fragmented {
        Header first_seen;
        Micros began;
        std::vector<unsigned char> bytes;
        std::vector<bool> present;       // One entry per block of 8 bytes.
        std::optional<std::size_t> end;  // Known once the last fragment came.
    };

    std::optional<Header> parse(ByteView packet);
    std::optional<UdpDatagram> add_fragment(const Header& header, Micros now);
    std::list<Fragmented>::iterator find(const Header& header, Micros now);
    static bool add_bytes(Fragmented& whole, const Header& header);
    std::optional<UdpDatagram> udp_datagram(Header header, ByteView payload);

    std::list<Fragmented> waiting_;  // Oldest first.
    std::vector<unsigned char> assembled_;
    std::uint64_t cut_ = 0;
    std::uint64_t given_up_ = 0;
};

}  // namespace qv::node
