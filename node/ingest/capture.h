// Reads the UDP datagrams of a network capture (pcap or pcapng), with the times at which they were
// captured. Belongs to one thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "node/calls/types.h"
#include "node/ingest/network_packet.h"

struct pcap;

namespace qv::node {

class Capture {
  public:
    // With `to`, only datagrams to that port are read, and to that address unless it is 0.0.0.0.
    // Without it, all datagrams that begin like packets of the protocol are read.
    explicit Capture(std::optional<sockaddr_in> to) : to_(to) {}

    // Opens the file, or the standard input for "-". Returns why it cannot be read, or an empty
    // text.
    std::string open(const std::string& path);

    // Returns the next datagram, which is valid until the next call. Its time is in microseconds
    // since 1970, and never before the time of an earlier one. Returns nullopt at the end, and
    // where the file is damaged.
    std::optional<Datagram> next();

    // Why the file was not read to its end. Empty if it was.
    const std::string& error() const { return error_; }
    std::uint64_t frames() const { return frames_; }
    // Datagrams that next() returned.
    std::uint64_t taken() const { return taken_; }
    std::uint64_t cut() const { return udp_.cut(); }
    std::uint64_t incomplete() const { return udp_.incomplete(); }

  private:
    struct Close {
        void operator()(pcap* file) const;
    };

    bool wanted(const UdpDatagram& datagram) const;

    const std::optional<sockaddr_in> to_;
    std::unique_ptr<pcap, Close> file_;
    LinkLayer link_ = LinkLayer::ETHERNET;
    UdpReader udp_;
    Micros time_{0};
    std::string error_;
    std::uint64_t frames_ = 0;
    std::uint64_t taken_ = 0;
};

}  // namespace qv::node
