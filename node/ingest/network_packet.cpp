#include "node/ingest/network_packet.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace qv::node {

namespace {

constexpr std::uint16_t ETHERTYPE_IPV4 = 0x0800;
constexpr std::size_t FRAGMENT_BLOCK = 8;
constexpr std::size_t LARGEST_DATAGRAM = 65535;
constexpr std::size_t UDP_HEADER = 8;

std::uint16_t get_u16(const unsigned char* data) {
    return static_cast<std::uint16_t>(data[0] << 8 | data[1]);
}

bool is_vlan(std::uint16_t ethertype) {
    return ethertype == 0x8100 || ethertype == 0x88A8 || ethertype == 0x9100;
}

// Returns the payload behind a header of `header` bytes whose EtherType is at `type_at`.
std::optional<ByteView> behind_ethertype(ByteView frame, std::size_t type_at, std::size_t header) {
    if (frame.size < header) {
        return std::nullopt;
    }
    std::uint16_t type = get_u16(frame.data + type_at);
    // A tag consists of its value and the EtherType of the data behind it.
    while (is_vlan(type) && frame.size >= header + 4) {
        type = get_u16(frame.data + header + 2);
        header += 4;
    }
    if (type != ETHERTYPE_IPV4) {
        return std::nullopt;
    }
    return ByteView{frame.data + header, frame.size - header};
}

std::optional<ByteView> behind_family(ByteView frame) {
    if (frame.size < 4 || (frame.data[0] != AF_INET && frame.data[3] != AF_INET)) {
        return std::nullopt;
    }
    return ByteView{frame.data + 4, frame.size - 4};
}

sockaddr_in address_at(const unsigned char* data) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    std::memcpy(&address.sin_addr, data, sizeof address.sin_addr);
    return address;
}

}  // namespace

std::optional<ByteView> ipv4_packet(LinkLayer link, ByteView frame) {
    switch (link) {
        case LinkLayer::ETHERNET:
            return behind_ethertype(frame, 12, 14);
        case LinkLayer::LINUX_COOKED_1:
            return behind_ethertype(frame, 14, 16);
        case LinkLayer::LINUX_COOKED_2:
            return behind_ethertype(frame, 0, 20);
        case LinkLayer::LOOPBACK:
            return behind_family(frame);
        case LinkLayer::IP:
            return frame;
    }
    return std::nullopt;
}

std::optional<UdpDatagram> UdpReader::read(ByteView packet, Micros now) {
    const std::optional<Header> header = parse(packet);
    if (!header.has_value()) {
        return std::nullopt;
    }
    if (header->offset != 0 || header->more) {
        return add_fragment(*header, now);
    }
    return udp_datagram(*header, header->payload);
}

std::optional<UdpReader::Header> UdpReader::parse(ByteView packet) {
    constexpr std::size_t least_header = 20;
    if (packet.size < least_header || packet.data[0] >> 4 != 4) {
        return std::nullopt;
    }
    const std::size_t header_size = std::size_t{4} * (packet.data[0] & 15U);
    const std::size_t size = get_u16(packet.data + 2);
    if (packet.data[9] != IPPROTO_UDP || header_size < least_header || size < header_size) {
        return std::nullopt;
    }
    if (size > packet.size) {
        ++cut_;
        return std::nullopt;
    }
    Header header;
    header.source = address_at(packet.data + 12);
    header.destination = address_at(packet.data + 16);
    header.identification = get_u16(packet.data + 4);
    const std::uint16_t place = get_u16(packet.data + 6);
    header.offset = (place & 0x1FFFU) * FRAGMENT_BLOCK;
    header.more = (place & 0x2000U) != 0;
    // Bytes behind the packet are padding of the frame.
    header.payload = {packet.data + header_size, size - header_size};
    return header;
}

std::optional<UdpDatagram> UdpReader::add_fragment(const Header& header, Micros now) {
    const auto whole = find(header, now);
    if (!add_bytes(*whole, header)) {
        ++given_up_;
        waiting_.erase(whole);
        return std::nullopt;
    }
    if (!whole->end.has_value() ||
        std::find(whole->present.begin(), whole->present.end(), false) != whole->present.end() ||
        whole->bytes.size() != *whole->end) {
        return std::nullopt;
    }
    assembled_ = std::move(whole->bytes);
    const Header first_seen = whole->first_seen;
    waiting_.erase(whole);
    return udp_datagram(first_seen, {assembled_.data(), assembled_.size()});
}

// Returns the datagram that the fragment belongs to; creates it if it is new.
std::list<UdpReader::Fragmented>::iterator UdpReader::find(const Header& header, Micros now) {
    while (!waiting_.empty() && now - waiting_.front().began > PATIENCE) {
        ++given_up_;
        waiting_.pop_front();
    }
    const auto found = std::find_if(waiting_.begin(), waiting_.end(), [&](const Fragmented& one) {
        return one.first_seen.identification == header.identification &&
               one.first_seen.source.sin_addr.s_addr == header.source.sin_addr.s_addr &&
               one.first_seen.destination.sin_addr.s_addr == header.destination.sin_addr.s_addr;
    });
    if (found != waiting_.end()) {
        return found;
    }
    if (waiting_.size() == MOST_WAITING) {
        ++given_up_;
        waiting_.pop_front();
    }
    return waiting_.insert(waiting_.end(), Fragmented{header, now, {}, {}, std::nullopt});
}

// Returns whether the fragment fits the others. A repeated fragment does. One that overlaps others
// does not, because it is unknown which of them is right.
bool UdpReader::add_bytes(Fragmented& whole, const Header& header) {
    const std::size_t end = header.offset + header.payload.size;
    const bool ends_in_block = header.payload.size % FRAGMENT_BLOCK == 0;
    if (end > LARGEST_DATAGRAM || header.payload.size == 0 || (header.more && !ends_in_block) ||
        (whole.end.has_value() && (end > *whole.end || (!header.more && end != *whole.end)))) {
        return false;
    }
    const std::size_t first = header.offset / FRAGMENT_BLOCK;
    const std::size_t last = (end + FRAGMENT_BLOCK - 1) / FRAGMENT_BLOCK;
    whole.present.resize(std::max(whole.present.size(), last), false);
    whole.bytes.resize(std::max(whole.bytes.size(), end));
    const auto begin = whole.present.begin() + static_cast<std::ptrdiff_t>(first);
    const auto stop = whole.present.begin() + static_cast<std::ptrdiff_t>(last);
    if (std::find(begin, stop, true) != stop) {
        return std::find(begin, stop, false) == stop &&
               std::equal(header.payload.data, header.payload.data + header.payload.size,
                          whole.bytes.begin() + static_cast<std::ptrdiff_t>(header.offset));
    }
    std::fill(begin, stop, true);
    std::copy_n(header.payload.data, header.payload.size,
                whole.bytes.begin() + static_cast<std::ptrdiff_t>(header.offset));
    if (!header.more) {
        whole.end = end;
        return whole.bytes.size() == end;
    }
    return true;
}

std::optional<UdpDatagram> UdpReader::udp_datagram(Header header, ByteView payload) {
    if (payload.size < UDP_HEADER) {
        return std::nullopt;
    }
    const std::size_t size = get_u16(payload.data + 4);
    if (size < UDP_HEADER || size > payload.size) {
        return std::nullopt;
    }
    header.source.sin_port = htons(get_u16(payload.data));
    header.destination.sin_port = htons(get_u16(payload.data + 2));
    return UdpDatagram{
        header.source, header.destination, {payload.data + UDP_HEADER, size - UDP_HEADER}};
}

}  // namespace qv::node
