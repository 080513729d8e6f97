// Sends into a socket whose send buffer is really full.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "quorvane_lib/net_socket.h"
#include "tests/support/log_recorder.h"
#include "tests/support/own_network.h"

namespace qv::net {
namespace {

using std::chrono::steady_clock;

class SendBuffer : public tests::OwnNetwork, public ::testing::Test {
  protected:
    void SetUp() override {
        if (!why_not().empty()) {
            GTEST_SKIP() << why_not();
        }
        ASSERT_TRUE(socket_.open(0, 0));
    }

    bool send_to(int host) {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(4000);
        to.sin_addr.s_addr = htonl(0x0A090000U + static_cast<unsigned>(host));
        const auto begin = steady_clock::now();
        const bool sent = socket_.send(to, data_.data(), data_.size());
        longest_ = std::max(longest_, steady_clock::now() - begin);
        return sent;
    }

    // Sends to more and more hosts that do not answer, until a send fails. Returns false if none
    // failed, or if a send waited.
    bool fill() {
        for (last_host_ = 2; last_host_ <= 254; ++last_host_) {
            for (int i = 0; i < 400; ++i) {
                if (!send_to(last_host_)) {
                    return true;
                }
                if (longest_ > std::chrono::seconds(1)) {
                    return false;
                }
            }
        }
        return false;
    }

    std::string data_ = std::string(370, 'x');
    tests::LogRecorder log_;
    Socket socket_;
    int last_host_ = 0;
    steady_clock::duration longest_{};
};

// A media thread must not wait for other calls' media nodes, because its call's audio would wait,
// too.
TEST_F(SendBuffer, ASendThatFindsItFullFailsWithinAMoment) {
    ASSERT_TRUE(fill());
    EXPECT_LT(longest_, std::chrono::seconds(1));
    ASSERT_EQ(log_.lines.size(), 1U);
    EXPECT_EQ(log_.lines[0].level, log::ERROR);
    EXPECT_TRUE(std::regex_match(
        log_.lines[0].text,
        std::regex("SOCKET\\[[0-9]+\\]: failed to send a data \\(370: [0-9]+\\), error \\(11\\): "
                   "Resource temporarily unavailable")))
        << log_.lines[0].text;
}

// Fifty frames are one second of one side of a call. Each send may take one or two ticks of the
// kernel's clock, 4 to 10 ms each; the rest of the limit allows for a busy machine.
TEST_F(SendBuffer, FiftySendsThatFindItFullFailInATickOrTwoEach) {
    ASSERT_TRUE(fill());
    const auto begin = steady_clock::now();
    for (int i = 0; i < 50; ++i) {
        EXPECT_FALSE(send_to(last_host_)) << i;
    }
    const std::chrono::duration<double> took = steady_clock::now() - begin;
    EXPECT_LT(took.count(), 2.5);
}

TEST_F(SendBuffer, TheNextSendsGoOutWhenThereIsRoomAgain) {
    ASSERT_TRUE(fill());
    for (int host = 2; host <= last_host_; ++host) {
        answer_from(host);
    }
    for (int i = 0; i < 1000; ++i) {
        ASSERT_TRUE(send_to(2)) << i;
    }
}

steady_clock::duration time_of(const std::function<void()>& act) {
    const auto begin = steady_clock::now();
    act();
    return steady_clock::now() - begin;
}

TEST_F(SendBuffer, WaitingForRoomEndsWhenThereIsSome) {
    ASSERT_TRUE(fill());
    std::thread answer([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        for (int host = 2; host <= last_host_; ++host) {
            answer_from(host);
        }
    });
    const auto took = time_of([this] { socket_.wait_for_room(std::chrono::seconds(30)); });
    EXPECT_TRUE(send_to(2));
    EXPECT_LT(took, std::chrono::seconds(30));
    answer.join();
}

TEST_F(SendBuffer, WaitingForRoomGivesUp) {
    ASSERT_TRUE(fill());
    const auto took = time_of([this] { socket_.wait_for_room(std::chrono::milliseconds(100)); });
    EXPECT_GE(took, std::chrono::milliseconds(100));
    EXPECT_LT(took, std::chrono::seconds(2));
}

TEST_F(SendBuffer, RoomThatIsThereIsNotWaitedFor) {
    const auto took = time_of([this] {
        socket_.wait_for_room(std::chrono::seconds(30));
        socket_.close();
        socket_.wait_for_room(std::chrono::seconds(30));
    });
    EXPECT_LT(took, std::chrono::seconds(30));
}

}  // namespace
}  // namespace qv::net
