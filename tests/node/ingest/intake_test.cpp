#include "node/ingest/intake.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/golden.h"

namespace qv::node {

namespace {

using namespace std::chrono_literals;
using media::DecodeResult;
using tools::AllowedNetworks;
using tools::parse_network;

class IntakeTest : public testing::Test {
  protected:
    void receive(const tests::Bytes& datagram, Micros now = 1s) {
        intake_.receive({datagram.data(), datagram.size(), {now, source_}});
    }
    std::uint64_t malformed(DecodeResult reason) const {
        return intake_.malformed()[static_cast<std::size_t>(reason)];
    }

    sockaddr_in source_{};
    std::vector<std::tuple<DecodeResult, std::size_t, std::uint64_t>> malformed_;
    CallTable calls_{CallLimits{}, {}};
    Intake intake_{calls_,
                   [this](const Datagram& datagram, DecodeResult reason, std::uint64_t count) {
                       malformed_.emplace_back(reason, datagram.size, count);
                   }};
};

TEST_F(IntakeTest, PacketReachesItsCall) {
    receive(tests::golden("call_1_start"));
    EXPECT_EQ(calls_.size(), 1u);
    EXPECT_EQ(calls_.totals().all_packets(), 1u);
    EXPECT_TRUE(malformed_.empty());
}

TEST_F(IntakeTest, DatagramsThatAreNoPacketsAreCountedByReason) {
    receive({1, 2, 3});
    receive({});
    receive(tests::Bytes(40, 0));
    EXPECT_EQ(malformed(DecodeResult::TOO_SHORT), 2u);
    EXPECT_EQ(malformed(DecodeResult::BAD_MAGIC), 1u);
    EXPECT_EQ(malformed_, (decltype(malformed_){{DecodeResult::TOO_SHORT, 3, 1},
                                                {DecodeResult::TOO_SHORT, 0, 2},
                                                {DecodeResult::BAD_MAGIC, 40, 1}}));
    EXPECT_EQ(calls_.totals().all_packets(), 0u);
}

TEST_F(IntakeTest, OnlyAllowedSendersAreTakenIn) {
    intake_.allow_only(
        AllowedNetworks({*parse_network("192.0.2.0/24"), *parse_network("10.1.1.1")}));
    source_.sin_addr.s_addr = htonl(0x0A010102);  // 10.1.1.2
    receive(tests::golden("call_1_start"));
    receive({1});
    EXPECT_EQ(calls_.size(), 0u);
    EXPECT_TRUE(malformed_.empty());
    EXPECT_EQ(intake_.not_allowed(), 2u);
    EXPECT_EQ(intake_.last_arrival(), 0s);
    source_.sin_addr.s_addr = htonl(0xC00002FF);  // 192.0.2.255
    receive(tests::golden("call_1_start"));
    EXPECT_EQ(calls_.size(), 1u);
}

TEST_F(IntakeTest, EveryDatagramIsAnArrival) {
    EXPECT_EQ(intake_.last_arrival(), 0s);
    receive({1}, 5s);
    EXPECT_EQ(intake_.last_arrival(), 5s);
}

}  // namespace

}  // namespace qv::node
