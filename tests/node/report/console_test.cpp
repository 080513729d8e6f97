#include "node/report/console.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <memory>
#include <string>

#include "tests/support/failing_allocation.h"

namespace qv::node {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// A console whose reader reads only when the test says so.
class ConsoleTest : public testing::Test {
  protected:
    ConsoleTest() {
        std::signal(SIGPIPE, SIG_IGN);
        EXPECT_EQ(::pipe2(ends_.data(), O_CLOEXEC), 0);
        console_ = std::make_unique<Console>(ends_[1]);
    }
    ~ConsoleTest() override {
        ::close(ends_[0]);
        console_.reset();
        ::close(ends_[1]);
    }

    // Reads until the console has nothing more to write.
    std::string read_all() {
        std::string all;
        ::fcntl(ends_[0], F_SETFL, O_NONBLOCK);
        const auto end = Clock::now() + 30s;
        std::array<char, 65536> bytes{};
        for (bool idle = false; Clock::now() < end;) {
            const ssize_t size = ::read(ends_[0], bytes.data(), bytes.size());
            if (size > 0) {
                all.append(bytes.data(), static_cast<std::size_t>(size));
            } else if (idle) {
                break;
            }
            idle = console_->wait(Clock::now() + 1ms);
        }
        return all;
    }
    void say(const std::string& line) {
        console_->lines() << line << '\n';
        console_->lines().flush();
    }

    void restart() {
        console_.reset();
        console_ = std::make_unique<Console>(ends_[1]);
    }

    std::array<int, 2> ends_{};
    std::unique_ptr<Console> console_;
};

TEST_F(ConsoleTest, LinesComeInOrder) {
    say("one");
    console_->lines() << "two\nthree\n" << std::flush;
    EXPECT_EQ(read_all(), "one\ntwo\nthree\n");
    EXPECT_EQ(console_->lost_lines(), 0u);
}

TEST_F(ConsoleTest, LackOfMemoryCostsAtMostTheLineAndNoneOfThoseAfterIt) {
    const std::string line(100, 'x');
    int lost = 0;
    tests::with_each_allocation_failing(
        [&] { say(line); },
        [&](bool /*failed*/) {
            EXPECT_TRUE(console_->lines().good());
            say("after");
            const std::string seen = read_all();
            const std::uint64_t lost_now = console_->take_lost_lines();
            EXPECT_EQ(seen, lost_now == 1 ? "after\n" : line + "\nafter\n");
            lost += static_cast<int>(lost_now);
            restart();  // Without memory of its own.
        });
    EXPECT_GT(lost, 0);
}

TEST_F(ConsoleTest, OutputThatNobodyTakesDelaysNobodyAndIsDroppedInWholeLines) {
    const std::string line(999, 'x');
    for (int i = 0; i < 1000; ++i) {
        say(line);
    }
    const std::uint64_t lost = console_->lost_lines();
    EXPECT_GT(lost, 500u);
    EXPECT_EQ(console_->take_lost_lines(), 0u);  // There is nobody to tell yet.
    const std::string seen = read_all();
    EXPECT_EQ(seen.size(), (1000 - lost) * 1000);
    EXPECT_EQ(seen.find(std::string(1000, 'x')), std::string::npos);
    EXPECT_EQ(console_->take_lost_lines(), lost);
    EXPECT_EQ(console_->take_lost_lines(), 0u);
}

TEST_F(ConsoleTest, FramesThatNobodyTakesAreDroppedWhole) {
    const std::string frame(100'000, 'x');
    console_->show_frame(frame);  // The pipe takes 65,536 bytes of it.
    console_->show_frame(frame);
    console_->show_frame(frame);
    EXPECT_EQ(console_->lost_frames(), 2u);
    EXPECT_EQ(read_all().size(), 100'000u);
    console_->show_frame(frame);
    EXPECT_EQ(read_all().size(), 100'000u);
    EXPECT_EQ(console_->lost_frames(), 2u);
}

TEST_F(ConsoleTest, PatientWriterWaitsAsLongAsItMay) {
    int asked = 0;
    std::string seen;
    console_->wait_for_room([&] {
        seen += read_all();
        return ++asked < 1000;
    });
    for (int i = 0; i < 1000; ++i) {
        say(std::string(999, 'x'));
    }
    seen += read_all();
    EXPECT_GT(asked, 0);
    EXPECT_EQ(seen.size(), 1'000'000u);
    EXPECT_EQ(console_->lost_lines(), 0u);
}

TEST_F(ConsoleTest, ItsEndDoesNotWaitForAReader) {
    for (int i = 0; i < 200; ++i) {
        say(std::string(999, 'x'));
    }
    console_.reset();
    ::close(ends_[0]);
    ends_[0] = -1;
}

}  // namespace

}  // namespace qv::node
