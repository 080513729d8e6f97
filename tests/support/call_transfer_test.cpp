#include "tests/support/call_transfer.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/support/media_listener.h"

namespace qv::tests {

namespace {

// The packets of the golden call, which tests change.
class GoldenCall : public ::testing::Test {
  protected:
    enum : std::size_t { START, READ_1, WRITE_1, READ_2, WRITE_2, CONTROL, TERMINATE };

    GoldenCall() {
        for (const std::string& name : golden_call()) {
            packets.push_back(golden(name));
        }
    }

    void lose(std::size_t index) {
        packets.erase(packets.begin() + static_cast<std::ptrdiff_t>(index));
    }
    void repeat(std::size_t index) { packets.push_back(Bytes(packets[index])); }
    std::string flaws() const { return CallTransfer(packets).flaws(); }

    std::vector<Bytes> packets;
};

TEST_F(GoldenCall, IsWhole) {
    const CallTransfer transfer(packets);
    EXPECT_EQ(transfer.flaws(), "");
    EXPECT_EQ(transfer.legs[0].packets, 2U);
    EXPECT_EQ(transfer.legs[0].samples, 16U);
    EXPECT_EQ(transfer.legs[1].packets, 2U);
    EXPECT_EQ(to_text(transfer.legs[0].audio).substr(0, 32), "00006400c800640000009cff38ff9cff");
    EXPECT_EQ(transfer.start.supported, 0xCCU);
    ASSERT_EQ(transfer.controls.size(), 1U);
    EXPECT_EQ(transfer.controls[0].active, 0xC0U);
    EXPECT_EQ(transfer.controls_after_terminate, 0U);
}

TEST_F(GoldenCall, WithoutItsStartIsNotWhole) {
    lose(START);
    EXPECT_EQ(flaws(), "0 starts, 6 packets before the start");
}

TEST_F(GoldenCall, WithoutItsTerminateIsNotWhole) {
    lose(TERMINATE);
    EXPECT_EQ(flaws(), "0 terminates");
}

TEST_F(GoldenCall, ThatLostADataPacketHasAGapInThatLeg) {
    lose(WRITE_1);
    EXPECT_EQ(flaws(), "1 gaps in the write leg");
}

TEST_F(GoldenCall, WhoseDataPacketsChangedPlacesHasGaps) {
    std::swap(packets[READ_1], packets[READ_2]);
    EXPECT_EQ(flaws(), "2 gaps in the read leg");
}

TEST_F(GoldenCall, WhosePacketsComeTwiceIsNotWhole) {
    repeat(START);
    repeat(TERMINATE);
    repeat(READ_2);
    EXPECT_EQ(flaws(),
              "2 starts, 2 terminates, 1 data packets after the terminate, 1 gaps in the read leg");
}

TEST_F(GoldenCall, WithPacketsOfWrongSizesIsNotWhole) {
    for (const std::size_t index : {START, CONTROL, TERMINATE}) {
        packets[index].push_back(0);
    }
    packets.emplace_back(10);
    EXPECT_EQ(flaws(), "1 packets of no known kind, 3 packets of a wrong size");
}

TEST_F(GoldenCall, CountsControlPacketsBehindTheTerminate) {
    repeat(CONTROL);
    EXPECT_EQ(CallTransfer(packets).controls_after_terminate, 1U);
}

// A sender for the node's own tests.
class NodeTest : public ::testing::Test {
  protected:
    NodeTest() : descriptor_(::socket(AF_INET, SOCK_DGRAM, 0)) {}
    ~NodeTest() override { ::close(descriptor_); }

    void send(const MediaNode& node, int datagrams) const {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(node.port());
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const Bytes datagram(400);
        for (int i = 0; i < datagrams; ++i) {
            ::sendto(descriptor_, datagram.data(), datagram.size(), 0,
                     reinterpret_cast<const sockaddr*>(&to), sizeof(to));
        }
    }

  private:
    const int descriptor_;
};

TEST_F(NodeTest, CountsWhatItsSocketHasNoRoomFor) {
    MediaNode node(4096);
    send(node, 100);
    const auto received = static_cast<std::uint32_t>(node.receive_all().size());
    EXPECT_GT(received, 0U);
    EXPECT_GT(node.dropped(), 0U);
    EXPECT_EQ(received + node.dropped(), 100U);
}

TEST_F(NodeTest, TellsWhetherThereIsRoom) {
    MediaNode node(4096);
    EXPECT_TRUE(node.wait_for_room(std::chrono::milliseconds(0)));
    send(node, 100);
    EXPECT_FALSE(node.wait_for_room(std::chrono::milliseconds(5)));
    node.receive_all();
    EXPECT_TRUE(node.wait_for_room(std::chrono::milliseconds(0)));
}

TEST_F(NodeTest, ListenerKeepsAllThatCame) {
    MediaNode node;
    MediaListener listener(node);
    send(node, 3000);
    const MediaListener::Packets& packets = listener.finish();
    EXPECT_EQ(node.dropped(), 0U);
    ASSERT_EQ(packets.size(), 1U);
    EXPECT_EQ(packets.begin()->first, std::string(32, '0'));
    EXPECT_EQ(packets.begin()->second.size(), 3000U);
}

}  // namespace

}  // namespace qv::tests
