#include "node/ingest/capture.h"

#include <pcap/pcap.h>

#include <algorithm>
#include <array>

namespace qv::node {

namespace {

// The end of the year 9999. A capture may claim any time.
constexpr std::int64_t LATEST_S = 253'402'300'799;

Micros time_of(const pcap_pkthdr& header) {
    const auto seconds = std::clamp<std::int64_t>(header.ts.tv_sec, 0, LATEST_S);
    return Micros{seconds * 1'000'000 + header.ts.tv_usec};
}

std::optional<LinkLayer> link_layer(int type) {
    switch (type) {
        case DLT_EN10MB:
            return LinkLayer::ETHERNET;
        case DLT_LINUX_SLL:
            return LinkLayer::LINUX_COOKED_1;
        case DLT_LINUX_SLL2:
            return LinkLayer::LINUX_COOKED_2;
        case DLT_NULL:
        case DLT_LOOP:
            return LinkLayer::LOOPBACK;
        case DLT_RAW:
        case DLT_IPV4:
            return LinkLayer::IP;
        default:
            return std::nullopt;
    }
}

std::string name_of_link(int type) {
    const char* name = pcap_datalink_val_to_name(type);
    return name != nullptr ? name : std::to_string(type);
}

bool begins_as_a_packet(ByteView bytes) {
    return bytes.size >= 4 && media::get_u32(bytes.data) == media::PACKET_MAGIC;
}

}  // namespace

void Capture::Close::operator()(pcap* file) const {
    pcap_close(file);
}

std::string Capture::open(const std::string& path) {
    std::array<char, PCAP_ERRBUF_SIZE> why{};
    file_.reset(pcap_open_offline(path.c_str(), why.data()));
    if (file_ == nullptr) {
        return why.data();
    }
    const int type = pcap_datalink(file_.get());
    const std::optional<LinkLayer> link = link_layer(type);
    if (!link.has_value()) {
        return "link type " + name_of_link(type) + " is not understood";
    }
    link_ = *link;
    return {};
}

std::optional<Datagram> Capture::next() {
    pcap_pkthdr* header = nullptr;
    const unsigned char* data = nullptr;
    int result = 0;
    while ((result = pcap_next_ex(file_.get(), &header, &data)) == 1) {
        ++frames_;
        time_ = std::max(time_, time_of(*header));
        const auto packet = ipv4_packet(link_, {data, header->caplen});
        const auto datagram = packet.has_value() ? udp_.read(*packet, time_) : std::nullopt;
        if (datagram.has_value() && wanted(*datagram)) {
            ++taken_;
            return Datagram{
                datagram->payload.data, datagram->payload.size, {time_, datagram->source}};
        }
    }
    if (result == PCAP_ERROR) {
        error_ = pcap_geterr(file_.get());
    }
    return std::nullopt;
}

bool Capture::wanted(const UdpDatagram& datagram) const {
    if (!to_.has_value()) {
        return begins_as_a_packet(datagram.payload);
    }
    return datagram.destination.sin_port == to_->sin_port &&
           (to_->sin_addr.s_addr == INADDR_ANY ||
            datagram.destination.sin_addr.s_addr == to_->sin_addr.s_addr);
}

}  // namespace qv::node
