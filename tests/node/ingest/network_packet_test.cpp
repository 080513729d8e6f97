#include "node/ingest/network_packet.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace qv::node {

namespace {

using namespace std::chrono_literals;

using Octets = std::vector<unsigned char>;

// An IPv4 packet from 192.0.2.1 to 192.0.2.2. `place` is the field with flags and offset.
Octets packet(const Octets& payload, unsigned char identification = 1, unsigned place = 0) {
    Octets bytes = {0x45,
                    0,
                    0,
                    static_cast<unsigned char>(20 + payload.size()),
                    0,
                    identification,
                    static_cast<unsigned char>(place >> 8),
                    static_cast<unsigned char>(place),
                    64,
                    17,
                    0,
                    0,
                    192,
                    0,
                    2,
                    1,
                    192,
                    0,
                    2,
                    2};
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    return bytes;
}

constexpr unsigned MORE = 0x2000;

// Ports 5000 and 40000; 8 bytes of payload, "abcdefgh".
const Octets UDP = {0x13, 0x88, 0x9c, 0x40, 0, 16, 0, 0, 'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'};
const Octets UDP_HEAD(UDP.begin(), UDP.begin() + 8);
const Octets UDP_REST(UDP.begin() + 8, UDP.end());

class UdpReaderTest : public testing::Test {
  protected:
    std::string read(const Octets& bytes, Micros now = 1s) {
        const auto datagram = reader_.read({bytes.data(), bytes.size()}, now);
        return datagram.has_value() ? std::string(datagram->payload.data,
                                                  datagram->payload.data + datagram->payload.size)
                                    : "none";
    }

    UdpReader reader_;
};

TEST_F(UdpReaderTest, DatagramHasItsAddressesAndPayload) {
    Octets bytes = packet(UDP);
    bytes.resize(60);  // Padding of the frame.
    const auto datagram = reader_.read({bytes.data(), bytes.size()}, 1s);
    ASSERT_TRUE(datagram.has_value());
    EXPECT_EQ(ntohl(datagram->source.sin_addr.s_addr), 0xC0000201u);
    EXPECT_EQ(ntohs(datagram->source.sin_port), 5000);
    EXPECT_EQ(ntohl(datagram->destination.sin_addr.s_addr), 0xC0000202u);
    EXPECT_EQ(ntohs(datagram->destination.sin_port), 40000);
    EXPECT_EQ(datagram->payload.size, 8u);
}

TEST_F(UdpReaderTest, FragmentsMayComeInAnyOrderAndTwice) {
    EXPECT_EQ(read(packet(UDP_REST, 7, 1)), "none");
    EXPECT_EQ(read(packet(UDP_REST, 7, 1)), "none");
    EXPECT_EQ(reader_.incomplete(), 1u);
    EXPECT_EQ(read(packet(UDP_HEAD, 7, MORE)), "abcdefgh");
    EXPECT_EQ(reader_.incomplete(), 0u);
}

TEST_F(UdpReaderTest, FragmentsOfDifferentDatagramsAreKeptApart) {
    EXPECT_EQ(read(packet(UDP_HEAD, 7, MORE)), "none");
    EXPECT_EQ(read(packet(UDP_REST, 8, 1)), "none");
    EXPECT_EQ(reader_.incomplete(), 2u);
}

TEST_F(UdpReaderTest, FragmentsThatContradictEachOtherAreGivenUp) {
    Octets other = UDP_HEAD;
    other[0] = 0;
    EXPECT_EQ(read(packet(UDP_HEAD, 7, MORE)), "none");
    EXPECT_EQ(read(packet(other, 7, MORE)), "none");
    EXPECT_EQ(read(packet(UDP_REST, 7, 1)), "none");
    EXPECT_EQ(reader_.incomplete(), 2u);
}

TEST_F(UdpReaderTest, FragmentsWaitNoLongerThanTheirPatience) {
    EXPECT_EQ(read(packet(UDP_HEAD, 7, MORE), 1s), "none");
    EXPECT_EQ(read(packet(UDP_REST, 7, 1), 32s), "none");
}

TEST_F(UdpReaderTest, FragmentsOfLimitedManyDatagramsWait) {
    for (unsigned char i = 0; i < 255; ++i) {
        read(packet(UDP_HEAD, i, MORE));
    }
    Octets last = packet(UDP_HEAD, 0, MORE);
    for (const unsigned char high : std::vector<unsigned char>{1, 2}) {
        last[4] = high;
        read(last);
    }
    EXPECT_EQ(read(packet(UDP_REST, 0, 1)), "none");
    EXPECT_EQ(read(packet(UDP_REST, 3, 1)), "abcdefgh");
}

TEST_F(UdpReaderTest, FragmentBeyondTheLargestPacketIsGivenUp) {
    EXPECT_EQ(read(packet(UDP, 7, 0x1fff)), "none");
    EXPECT_EQ(reader_.incomplete(), 1u);
}

TEST_F(UdpReaderTest, DamagedAndCutPacketsHoldNoDatagram) {
    const Octets whole = packet(UDP);
    for (std::size_t size = 0; size < whole.size(); ++size) {
        EXPECT_EQ(read(Octets(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size))),
                  "none");
    }
    EXPECT_EQ(reader_.cut(), 16u);
    for (const auto& [place, value] : std::vector<std::pair<std::size_t, unsigned char>>{
             {0, 0x65}, {0, 0x44}, {0, 0x4f}, {3, 10}, {9, 6}, {25, 17}, {25, 7}}) {
        Octets damaged = whole;
        damaged[place] = value;
        EXPECT_EQ(read(damaged), "none") << place;
    }
}

TEST(LinkLayerTest, FramesThatEndInTheirHeaderHoldNoPacket) {
    const Octets frame = {0,    0, 0, 0, 0,    0, 0, 0, 0, 0, 0,  0,
                          0x81, 0, 0, 5, 0x81, 0, 0, 6, 8, 0, 'x'};
    for (std::size_t size = 0; size < 22; ++size) {
        EXPECT_FALSE(ipv4_packet(LinkLayer::ETHERNET, {frame.data(), size}).has_value()) << size;
    }
    EXPECT_EQ(ipv4_packet(LinkLayer::ETHERNET, {frame.data(), frame.size()})->size, 1u);
}

}  // namespace

}  // namespace qv::node
