#include "node/ingest/call_spread.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "node/ingest/receiver.h"

namespace qv::node {

namespace {

using Bytes = std::vector<unsigned char>;

constexpr std::size_t MOST_SOCKETS = 3;

// Sockets that share a port, each with what it has received.
class CallSpreadTest : public ::testing::Test {
  protected:
    ~CallSpreadTest() override { ::close(sender_); }

    void open(std::size_t sockets) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        for (std::size_t i = 0; i < sockets; ++i) {
            receivers_.push_back(std::make_unique<Receiver>(loop_, [this, i](const Datagram& got) {
                taken_[i].emplace_back(got.data, got.data + got.size);
            }));
            ASSERT_EQ(i == 0 ? receivers_[i]->open(address, 1 << 20)
                             : receivers_[i]->join(address, 1 << 20),
                      "");
            if (i == 0) {
                ASSERT_EQ(receivers_[0]->share_port(), "");
                address.sin_port = htons(receivers_[0]->port());
            }
        }
        to_ = address;
        ASSERT_EQ(spread_calls(receivers_[0]->descriptor(), sockets), "");
        for (const auto& receiver : receivers_) {
            receiver->start();
        }
    }

    void send(const Bytes& datagram) {
        ASSERT_EQ(::sendto(sender_, datagram.data(), datagram.size(), 0,
                           reinterpret_cast<const sockaddr*>(&to_), sizeof to_),
                  static_cast<ssize_t>(datagram.size()));
    }

    void take() { loop_.run_for(std::chrono::milliseconds(5)); }

    static Bytes datagram_of(std::uint64_t key, unsigned char number) {
        Bytes datagram(20, number);
        for (unsigned byte = 0; byte < 8; ++byte) {
            datagram[8 + byte] = static_cast<unsigned char>(key >> 8 * byte);
        }
        return datagram;
    }

    // Sends three packets of each call; the packets of a call lie far apart. Each call must come to
    // one socket, to which socket_of_call() leads as well.
    void expect_calls_stay_together(const std::vector<std::uint64_t>& keys, std::size_t sockets) {
        for (unsigned char number = 0; number < 3; ++number) {
            for (std::size_t i = 0; i < keys.size(); ++i) {
                send(datagram_of(keys[i], number));
                if (i % 100 == 99) {
                    take();
                }
            }
        }
        take();
        std::map<Bytes, std::set<std::size_t>> sockets_of_call;
        std::size_t datagrams = 0;
        for (std::size_t i = 0; i < sockets; ++i) {
            for (const Bytes& datagram : taken_[i]) {
                ++datagrams;
                sockets_of_call[Bytes(datagram.begin() + 8, datagram.begin() + 16)].insert(i);
                ASSERT_EQ(socket_of_call(datagram.data(), datagram.size(), sockets), i);
            }
        }
        EXPECT_EQ(datagrams, 3 * keys.size());
        EXPECT_EQ(sockets_of_call.size(), keys.size());
        for (const auto& [key, used] : sockets_of_call) {
            ASSERT_EQ(used.size(), 1u);
        }
    }

    // Whether each socket has its share, within a fifth.
    void expect_even_shares(std::size_t datagrams, std::size_t sockets) const {
        for (std::size_t i = 0; i < sockets; ++i) {
            EXPECT_GT(taken_[i].size(), datagrams / sockets * 8 / 10) << i;
        }
    }

    int sender_ = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in to_{};
    asio::io_context loop_;
    std::vector<std::unique_ptr<Receiver>> receivers_;
    std::array<std::vector<Bytes>, MOST_SOCKETS> taken_;
};

TEST_F(CallSpreadTest, EachOfTenThousandCallsComesToOneOfTwoSockets) {
    std::mt19937_64 random(4711);
    std::vector<std::uint64_t> keys(10'000);
    for (std::uint64_t& key : keys) {
        key = random();
    }
    open(2);
    expect_calls_stay_together(keys, 2);
    expect_even_shares(3 * keys.size(), 2);
}

// Programs for tests count calls, so their keys differ in few bits.
TEST_F(CallSpreadTest, KeysThatAreCountedSpreadAsWell) {
    std::vector<std::uint64_t> keys(1000);
    for (std::size_t i = 0; i < keys.size(); ++i) {
        keys[i] = i;
    }
    open(3);
    expect_calls_stay_together(keys, 3);
    expect_even_shares(3 * keys.size(), 3);
}

TEST_F(CallSpreadTest, DatagramsWithoutAKeyComeToTheFirstSocket) {
    open(2);
    send({});
    send(Bytes(11, 0xFF));
    take();
    EXPECT_EQ(taken_[0].size(), 2u);
    EXPECT_EQ(socket_of_call(nullptr, 0, 2), 0u);
    EXPECT_EQ(socket_of_call(Bytes(11, 0xFF).data(), 11, 2), 0u);
}

TEST_F(CallSpreadTest, OnlyTheLowHalfOfTheKeyChooses) {
    const Bytes one = datagram_of(0x1111'1111'89AB'CDEF, 0);
    const Bytes another = datagram_of(0xFFFF'0000'89AB'CDEF, 1);
    for (std::size_t sockets = 1; sockets <= 256; ++sockets) {
        EXPECT_EQ(socket_of_call(one.data(), one.size(), sockets),
                  socket_of_call(another.data(), another.size(), sockets));
        EXPECT_LT(socket_of_call(one.data(), one.size(), sockets), sockets);
    }
}

TEST_F(CallSpreadTest, SocketThatSharesNoPortIsRefused) {
    EXPECT_EQ(spread_calls(sender_, 2),
              "the system cannot spread calls over threads (SO_ATTACH_REUSEPORT_CBPF): Invalid "
              "argument");
}

TEST_F(CallSpreadTest, OpenPortIsOnlySharedOnceItSaysSo) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    Receiver first(loop_, [](const Datagram&) {});
    ASSERT_EQ(first.open(address, 1 << 20), "");
    address.sin_port = htons(first.port());
    EXPECT_EQ(Receiver(loop_, [](const Datagram&) {}).join(address, 1 << 20),
              "Address already in use");
    ASSERT_EQ(first.share_port(), "");
    EXPECT_EQ(Receiver(loop_, [](const Datagram&) {}).join(address, 1 << 20), "");
    EXPECT_EQ(Receiver(loop_, [](const Datagram&) {}).open(address, 1 << 20),
              "Address already in use");
}

}  // namespace

}  // namespace qv::node
