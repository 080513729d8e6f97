#include "node/lanes.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <future>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "node/ingest/call_spread.h"
#include "quorvane_lib/mutex.h"
#include "quorvane_lib/sanitizer.h"
#include "tests/support/golden.h"

namespace qv::node {

namespace {

using tests::Bytes;

// Notes the thread on which each call is handled.
class ThreadDiary : public CallListener {
  public:
    void started(const Call& call, const media::Packet& /*packet*/) override { note(call); }
    void terminated(const Call& call, const media::Packet& /*packet*/) override { note(call); }
    void ended(const Call& /*call*/, EndReason /*reason*/) override { ++ended_calls; }

    std::map<Uuid, std::set<std::thread::id>> threads() {
        const LockGuard lock(mutex_);
        return threads_;
    }
    std::atomic<std::size_t> ended_calls{0};

  private:
    void note(const Call& call) {
        const LockGuard lock(mutex_);
        threads_[call.uuid()].insert(std::this_thread::get_id());
    }

    Mutex mutex_;
    std::map<Uuid, std::set<std::thread::id>> threads_ QV_GUARDED_BY(mutex_);
};

class NoFiles : public AudioStore {
  public:
    bool exists(const std::string& /*name*/) const override { return false; }
    std::unique_ptr<AudioFile> create(const std::string& /*name*/, int /*sample_rate*/,
                                      int /*channels*/) override {
        throw std::logic_error("no audio was sent");
    }
    std::shared_ptr<const PendingFile> write_text(const std::string& /*name*/,
                                                  std::string /*text*/) override {
        throw std::logic_error("no small file was asked for");
    }
    std::size_t open_files() const override { return 0; }
};

class LanesTest : public testing::Test {
  protected:
    LanesTest() {
        shared_.limits.linger = Micros{0};
        shared_.limits.max_calls = 20'000;
        shared_.directory = std::make_shared<CallDirectory>(shared_.limits);
        shared_.on_malformed = [](const Datagram&, media::DecodeResult, std::uint64_t) {};
        to_.sin_family = AF_INET;
        to_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    }
    ~LanesTest() override { ::close(sender_); }

    void open(std::size_t count) {
        lanes_ = std::make_unique<Lanes>(loop_, count);
        ASSERT_EQ(lanes_->open_port(to_, 64 << 20), "");
        to_.sin_port = htons(lanes_->port());
        LaneOutputs::Options options;
        for (std::size_t number = 0; number < count; ++number) {
            outputs_.push_back(std::make_unique<LaneOutputs>(store_.share(), tasks_, options,
                                                             std::vector<CallListener*>{},
                                                             std::vector<CallListener*>{&diary_}));
            lanes_->lane(number).open_calls(shared_, *outputs_.back());
        }
        lanes_->start();
    }

    static Bytes of_call(Bytes datagram, std::uint32_t call) {
        for (std::size_t byte = 0; byte < 4; ++byte) {
            datagram[8 + byte] = static_cast<unsigned char>(call * 2654435761 >> 8 * byte);
            datagram[16 + byte] = static_cast<unsigned char>(call >> 8 * byte);
        }
        return datagram;
    }

    void send(const Bytes& datagram) {
        ASSERT_EQ(::sendto(sender_, datagram.data(), datagram.size(), 0,
                           reinterpret_cast<const sockaddr*>(&to_), sizeof to_),
                  static_cast<ssize_t>(datagram.size()));
        if (++sent_ % 500 == 0) {
            wait_for([this] { return lanes_->figures().received >= sent_; });
        }
    }

    // Sends datagrams of `size` bytes each, which follow each other in `bundle`.
    void send_bundle(const Bytes& bundle, std::size_t size) {
        constexpr int UDP_SEGMENT_OPTION = 103;
        const int each = static_cast<int>(size);
        ASSERT_EQ(::setsockopt(sender_, IPPROTO_UDP, UDP_SEGMENT_OPTION, &each, sizeof each), 0);
        ASSERT_EQ(::sendto(sender_, bundle.data(), bundle.size(), 0,
                           reinterpret_cast<const sockaddr*>(&to_), sizeof to_),
                  static_cast<ssize_t>(bundle.size()));
    }

    static void wait_for(const std::function<bool()>& condition) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (!condition()) {
            ASSERT_LT(std::chrono::steady_clock::now(), end);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

    int sender_ = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in to_{};
    std::uint64_t sent_ = 0;
    asio::io_context loop_{1};
    ThreadDiary diary_;
    BackgroundStore store_{std::make_unique<NoFiles>(), "folder", {}};
    TaskThread tasks_;
    Lane::Shared shared_;
    std::vector<std::unique_ptr<LaneOutputs>> outputs_;
    std::unique_ptr<Lanes> lanes_;
};

TEST_F(LanesTest, EachOfTenThousandCallsStaysOnOneThread) {
    constexpr std::uint32_t CALLS = THREAD_SANITIZER ? 1'000 : 10'000;  // The sanitizer is slow.
    open(2);
    const Bytes start = tests::golden("call_1_start");
    const Bytes terminate = tests::golden("call_7_terminate");
    for (std::uint32_t call = 0; call < CALLS; ++call) {
        send(of_call(start, call));
    }
    for (std::uint32_t call = 0; call < CALLS; ++call) {
        send(of_call(terminate, call));
    }
    wait_for([this] { return lanes_->calls_ended() == CALLS; });
    const auto threads = diary_.threads();
    EXPECT_EQ(threads.size(), CALLS);
    std::set<std::thread::id> used;
    for (const auto& [uuid, of_call] : threads) {
        ASSERT_EQ(of_call.size(), 1u);
        used.insert(of_call.begin(), of_call.end());
    }
    EXPECT_EQ(used.size(), 2u);
    lanes_->stop();
    EXPECT_EQ(lanes_->figures().totals.calls_begun, CALLS);
    EXPECT_EQ(lanes_->figures().received, 2 * CALLS);
}

TEST_F(LanesTest, StopEndsTheCallsOfAllThreads) {
    open(3);
    for (std::uint32_t call = 0; call < 50; ++call) {
        send(of_call(tests::golden("call_1_start"), call));
    }
    lanes_->stop();
    EXPECT_EQ(diary_.ended_calls, 50u);
    EXPECT_EQ(lanes_->figures().totals.calls_ended, 50u);
    EXPECT_TRUE(lanes_->report_ends());
}

// A sender on the same machine can have the system cut one piece of data into many datagrams. The
// system then chooses the thread by the first of them.
TEST_F(LanesTest, DatagramsThatComeInOneBundleReachTheThreadsOfTheirCalls) {
    constexpr std::uint32_t CALLS = 40;
    open(2);
    Bytes bundle;
    const Bytes terminate = tests::golden("call_7_terminate");
    for (std::uint32_t call = 0; call < CALLS; ++call) {
        send(of_call(tests::golden("call_1_start"), call));
        const Bytes end = of_call(terminate, call);
        bundle.insert(bundle.end(), end.begin(), end.end());
    }
    wait_for([this] { return diary_.threads().size() == CALLS; });
    send_bundle(bundle, terminate.size());
    wait_for([this] { return lanes_->calls_ended() == CALLS; });
    for (const auto& [uuid, of_call] : diary_.threads()) {
        EXPECT_EQ(of_call.size(), 1u);
    }
    lanes_->stop();
}

TEST_F(LanesTest, WhatEndsAThreadEndsTheProgram) {
    shared_.on_malformed = [](const Datagram&, media::DecodeResult, std::uint64_t) {
        throw std::runtime_error("broken");
    };
    open(2);
    send({1});
    EXPECT_THROW(wait_for([this] {
                     lanes_->tick(steady_now());
                     return false;
                 }),
                 std::runtime_error);
    lanes_->stop();
}

TEST_F(LanesTest, WhatEndsAThreadAtTheEndIsNotLost) {
    std::promise<void> failing;
    shared_.on_malformed = [&](const Datagram&, media::DecodeResult, std::uint64_t) {
        failing.set_value();
        throw std::runtime_error("broken");
    };
    open(2);
    send({1});
    failing.get_future().wait();  // No tick() comes afterwards.
    EXPECT_THROW(lanes_->stop(), std::runtime_error);
    lanes_->stop();
}

// The lane that has the bundle still passes datagrams on while the lanes are destroyed.
TEST_F(LanesTest, LanesThatAreDestroyedWaitForAllThreads) {
    constexpr std::uint32_t CALLS = 40;
    std::promise<void> in_work;
    std::promise<void> destroying;
    std::shared_future<void> go_on = destroying.get_future();
    shared_.on_malformed = [&](const Datagram&, media::DecodeResult, std::uint64_t) {
        in_work.set_value();
        go_on.wait();
    };
    open(2);
    // A malformed datagram of the second lane comes first.
    const Bytes terminate = tests::golden("call_7_terminate");
    Bytes bundle = terminate;
    for (std::uint32_t call = 0; socket_of_call(bundle.data(), bundle.size(), 2) != 1; ++call) {
        bundle = of_call(terminate, call);
    }
    bundle[0] = 0;  // Of the magic number.
    for (std::uint32_t call = 0; call < CALLS; ++call) {
        const Bytes end = of_call(terminate, call);
        bundle.insert(bundle.end(), end.begin(), end.end());
    }
    send_bundle(bundle, terminate.size());
    in_work.get_future().wait();
    std::thread later([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        destroying.set_value();
    });
    lanes_.reset();
    later.join();
}

TEST_F(LanesTest, BuffersOfAllThreadsAreTogetherAsLargeAsIsWanted) {
    constexpr int WANTED = 100'000;  // No multiple of 3.
    Lanes lanes(loop_, 3);
    ASSERT_EQ(lanes.open_port(to_, WANTED), "");
    EXPECT_GE(lanes.granted_buffer(), std::uint64_t{WANTED});
}

}  // namespace

}  // namespace qv::node
