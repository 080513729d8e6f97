#include "tools/call/lossy_network.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>

#include "tests/support/golden.h"
#include "tests/support/media_node.h"
#include "tools/address.h"

namespace qv::tools::call {
namespace {

using tests::Bytes;

// The numbers of data packets.
using Numbers = std::vector<unsigned>;

class LossyNetworkTest : public ::testing::Test {
  protected:
    // Sends `count` data packets of a side through the network, and what else a test adds. Returns
    // what comes out.
    std::vector<Bytes> pass(const NetworkPlan& plan, unsigned count, std::uint64_t seed = 1,
                            const std::vector<Bytes>& others = {}) {
        LossyNetwork network(plan, tools::parse_address(node_.address()).value(), seed);
        network.start();
        const sockaddr_in inside = tools::parse_address(network.address()).value();
        Bytes packet = tests::golden("call_2_read");
        for (unsigned number = 1; number <= count; ++number) {
            packet[40] = static_cast<unsigned char>(number);
            send(packet, inside);
        }
        for (const Bytes& other : others) {
            send(other, inside);
        }
        figures_ = network.finish();
        return node_.receive_all();
    }

    void send(const Bytes& packet, const sockaddr_in& to) {
        ASSERT_EQ(::sendto(sender_.descriptor(), packet.data(), packet.size(), 0,
                           reinterpret_cast<const sockaddr*>(&to), sizeof to),
                  static_cast<ssize_t>(packet.size()));
    }

    static Numbers numbers(const std::vector<Bytes>& packets) {
        Numbers all;
        for (const Bytes& packet : packets) {
            all.push_back(packet[40]);
        }
        return all;
    }
    static Numbers up_to(unsigned count) {
        Numbers all;
        for (unsigned number = 1; number <= count; ++number) {
            all.push_back(number);
        }
        return all;
    }

    tests::MediaNode node_;
    UdpSocket sender_;
    NetworkFigures figures_;
};

TEST_F(LossyNetworkTest, WithoutFaultsEveryDatagramPassesInOrder) {
    NetworkPlan plan;
    plan.check = true;
    EXPECT_EQ(numbers(pass(plan, 100)), up_to(100));
    EXPECT_TRUE(figures_.used);
    EXPECT_EQ(figures_.media_node, node_.address());
    EXPECT_EQ(figures_.datagrams, 100u);
    EXPECT_EQ(figures_.lost, 0u);
    EXPECT_EQ(figures_.refused, 0u);
}

TEST_F(LossyNetworkTest, WhatIsNoPacketPassesUnchanged) {
    const Bytes text = {'h', 'e', 'l', 'l', 'o'};
    NetworkPlan plan;
    plan.reorder_packets = 3;
    EXPECT_EQ(pass(plan, 0, 1, {text}), std::vector<Bytes>{text});
}

TEST_F(LossyNetworkTest, LostPacketsAreCountedAndDoNotPass) {
    NetworkPlan plan;
    plan.lose_percent = 25;
    const std::size_t passed = pass(plan, 200, 1, {tests::golden("call_1_start")}).size();
    EXPECT_EQ(figures_.lost, 201 - passed);
    EXPECT_GT(figures_.lost_data, 25u);
    EXPECT_LT(figures_.lost_data, 75u);
}

TEST_F(LossyNetworkTest, OfALostCallNothingPasses) {
    NetworkPlan plan;
    plan.lose_percent = 100;
    EXPECT_TRUE(pass(plan, 10, 1, {tests::golden("call_1_start")}).empty());
    EXPECT_EQ(figures_.lost, 11u);
    EXPECT_EQ(figures_.lost_data, 10u);
}

TEST_F(LossyNetworkTest, DuplicatedPacketsComeTwice) {
    NetworkPlan plan;
    plan.duplicate_percent = 100;
    EXPECT_EQ(numbers(pass(plan, 3)), (Numbers{1, 1, 2, 2, 3, 3}));
    EXPECT_EQ(figures_.duplicated, 3u);
}

TEST_F(LossyNetworkTest, ReorderedPacketsComeAtMostThatMuchLater) {
    NetworkPlan plan;
    plan.reorder_packets = 4;
    Numbers order = numbers(pass(plan, 100));
    EXPECT_GT(figures_.reordered, 0u);
    unsigned latest = 0;
    for (const unsigned number : order) {
        latest = std::max(latest, number);
        EXPECT_LE(latest, number + 4);
    }
    EXPECT_NE(order, up_to(100));
    std::sort(order.begin(), order.end());
    EXPECT_EQ(order, up_to(100));
}

TEST_F(LossyNetworkTest, TheSameSeedLosesTheSamePacketsWithAndWithoutOtherFaults) {
    NetworkPlan plan;
    plan.lose_percent = 30;
    const Numbers order = numbers(pass(plan, 50, 7));
    EXPECT_EQ(numbers(pass(plan, 50, 7)), order);
    EXPECT_NE(numbers(pass(plan, 50, 8)), order);
    plan.duplicate_percent = 50;
    plan.reorder_packets = 3;
    plan.delay_ms = {0, 2};
    Numbers others = numbers(pass(plan, 50, 7));
    EXPECT_NE(others, order);
    std::sort(others.begin(), others.end());
    others.erase(std::unique(others.begin(), others.end()), others.end());
    EXPECT_EQ(others, order);
}

TEST_F(LossyNetworkTest, DelayedPacketsComeLater) {
    NetworkPlan plan;
    plan.delay_ms = {50, 60};
    LossyNetwork network(plan, tools::parse_address(node_.address()).value(), 1);
    network.start();
    const auto begin = std::chrono::steady_clock::now();
    send(tests::golden("call_1_start"), tools::parse_address(network.address()).value());
    EXPECT_EQ(node_.receive(std::chrono::seconds(30)), tests::golden("call_1_start"));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(50));
}

TEST_F(LossyNetworkTest, DelayedPacketsComeBeforeItEnds) {
    NetworkPlan plan;
    plan.delay_ms = {300, 310};  // It waits 200 ms for others.
    Numbers order = numbers(pass(plan, 20));
    std::sort(order.begin(), order.end());
    EXPECT_EQ(order, up_to(20));
}

TEST_F(LossyNetworkTest, AMediaNodeThatIsMissingIsNoticed) {
    std::optional<tests::MediaNode> gone(std::in_place);
    const sockaddr_in to = tools::parse_address(gone->address()).value();
    gone.reset();
    NetworkPlan plan;
    plan.check = true;
    LossyNetwork network(plan, to, 1);
    network.start();
    send(tests::golden("call_1_start"), tools::parse_address(network.address()).value());
    EXPECT_EQ(network.finish().refused, 1u);
}

TEST(NetworkPlanTest, ANetworkIsWantedForAnyFaultOrTheCheck) {
    EXPECT_FALSE(NetworkPlan{}.wanted());
    EXPECT_TRUE((NetworkPlan{1, 0, 0, {}, false}.wanted()));
    EXPECT_TRUE((NetworkPlan{0, 1, 0, {}, false}.wanted()));
    EXPECT_TRUE((NetworkPlan{0, 0, 1, {}, false}.wanted()));
    EXPECT_TRUE((NetworkPlan{0, 0, 0, {0, 1}, false}.wanted()));
    EXPECT_TRUE((NetworkPlan{0, 0, 0, {}, true}.wanted()));
}

}  // namespace
}  // namespace qv::tools::call
