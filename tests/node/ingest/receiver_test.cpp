#include "node/ingest/receiver.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace qv::node {

namespace {

using std::chrono::milliseconds;

class ReceiverTest : public ::testing::Test {
  protected:
    ~ReceiverTest() override { ::close(sender_); }

    void open(int buffer_bytes) {
        sockaddr_in any_port{};
        any_port.sin_family = AF_INET;
        any_port.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(receiver_.open(any_port, buffer_bytes), "");
        to_ = any_port;
        to_.sin_port = htons(receiver_.port());
    }

    void send(const std::string& text) {
        ASSERT_EQ(::sendto(sender_, text.data(), text.size(), 0,
                           reinterpret_cast<const sockaddr*>(&to_), sizeof to_),
                  static_cast<ssize_t>(text.size()));
    }

    void run_for(milliseconds time) {
        loop_.restart();
        loop_.run_for(time);
    }

    int sender_ = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in to_{};
    std::vector<std::string> taken_;
    std::vector<sockaddr_in> sources_;
    asio::io_context loop_;
    Receiver receiver_{loop_, [this](const Datagram& datagram) {
                           taken_.emplace_back(reinterpret_cast<const char*>(datagram.data),
                                               datagram.size);
                           sources_.push_back(datagram.arrival.source);
                       }};
};

TEST_F(ReceiverTest, DatagramsComeWholeAndInOrder) {
    open(1 << 20);
    receiver_.start();
    send("one");
    send("");
    send("three");
    run_for(milliseconds(20));
    EXPECT_EQ(taken_, (std::vector<std::string>{"one", "", "three"}));
    EXPECT_EQ(receiver_.received(), 3U);
    EXPECT_EQ(receiver_.overflowed(), 0U);
}

TEST_F(ReceiverTest, EachDatagramBringsItsSendersAddress) {
    open(1 << 20);
    receiver_.start();
    send("one");
    sockaddr_in first{};
    socklen_t size = sizeof first;
    ASSERT_EQ(::getsockname(sender_, reinterpret_cast<sockaddr*>(&first), &size), 0);
    ::close(sender_);
    sender_ = ::socket(AF_INET, SOCK_DGRAM, 0);
    send("two");
    run_for(milliseconds(20));
    ASSERT_EQ(sources_.size(), 2U);
    EXPECT_EQ(ntohl(sources_[0].sin_addr.s_addr), INADDR_LOOPBACK);
    EXPECT_EQ(sources_[0].sin_port, first.sin_port);
    EXPECT_NE(sources_[1].sin_port, first.sin_port);
}

TEST_F(ReceiverTest, AnOverlongDatagramIsCut) {
    open(1 << 20);
    receiver_.start();
    send(std::string(3000, 'x'));
    run_for(milliseconds(20));
    ASSERT_EQ(taken_.size(), 1U);
    EXPECT_EQ(taken_[0], std::string(2048, 'x'));
}

// No datagram comes after these, so their own counter cannot report the loss.
TEST_F(ReceiverTest, DatagramsThatTheSystemDroppedAtTheEndAreCounted) {
    open(8192);
    for (int i = 0; i < 1000; ++i) {
        send(std::string(370, 'x'));
    }
    receiver_.start();
    run_for(milliseconds(20));
    EXPECT_LT(receiver_.received(), 1000U);
    EXPECT_EQ(receiver_.received() + receiver_.overflowed(), 1000U);
}

TEST_F(ReceiverTest, WhatIsDroppedLaterIsAddedToWhatWasDroppedBefore) {
    open(8192);
    receiver_.start();
    for (int round = 0; round < 3; ++round) {
        for (int i = 0; i < 1000; ++i) {
            send(std::string(370, 'x'));
        }
        run_for(milliseconds(20));
    }
    EXPECT_EQ(receiver_.received() + receiver_.overflowed(), 3000U);
}

TEST_F(ReceiverTest, AfterAFloodASingleDatagramIsTakenToo) {
    open(1 << 20);
    receiver_.start();
    for (int i = 0; i < 100; ++i) {
        send("flood");
        run_for(milliseconds(0));
    }
    run_for(milliseconds(20));
    ASSERT_EQ(taken_.size(), 100U);
    send("late");
    run_for(milliseconds(20));
    ASSERT_EQ(taken_.size(), 101U);
    EXPECT_EQ(taken_.back(), "late");
}

TEST_F(ReceiverTest, WhatIsThereIsTakenBeforeStopping) {
    open(1 << 20);
    receiver_.start();
    send("last");
    receiver_.drain_and_stop();
    EXPECT_EQ(taken_, std::vector<std::string>{"last"});
}

// The receiver wakes up at most once per millisecond, because that costs more than reading the
// datagrams.
TEST_F(ReceiverTest, ASteadyStreamIsTakenInGroups) {
    open(1 << 20);
    receiver_.start();
    asio::steady_timer next(loop_);
    int sent = 0;
    std::function<void(std::error_code)> send_one = [&](std::error_code) {
        if (taken_.size() == 1000) {
            loop_.stop();
        } else if (sent < 1000) {
            ++sent;
            send("packet");
        }
        next.expires_after(std::chrono::microseconds(50));
        next.async_wait(send_one);
    };
    const auto begin = std::chrono::steady_clock::now();
    send_one({});
    run_for(std::chrono::seconds(20));
    const auto took = std::chrono::steady_clock::now() - begin;
    EXPECT_EQ(taken_.size(), 1000U);
    EXPECT_LE(receiver_.wake_ups(), took / milliseconds(1) + 10U);
}

}  // namespace

}  // namespace qv::node
