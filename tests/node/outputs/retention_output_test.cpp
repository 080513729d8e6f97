#include "node/outputs/retention_output.h"

#include <gtest/gtest.h>

#include <chrono>
#include <set>
#include <sstream>
#include <string>
#include <thread>

#include "tests/node/audio/folder_test.h"

namespace qv::node {

namespace {

using namespace std::chrono_literals;

const std::string OLD = "11111111-0000-4000-8000-000000000001";
const std::string PRESENT = "22222222-0000-4000-8000-000000000002";

class RetentionOutputTest : public tests::FolderTest {
  protected:
    Retention::Options options() const {
        Retention::Options options;
        options.folder = folder_;
        options.limits.bytes = 0;
        // A day later the files have been complete for long.
        options.wall_clock = [] { return clock_now(CLOCK_REALTIME) + 24h; };
        options.uptime = [] { return clock_now(CLOCK_BOOTTIME); };
        return options;
    }
    // Updates until the removal of a call has been reported, at most for a long time.
    void update_until_removed(RetentionOutput& output, std::uint64_t calls) {
        const auto end = RetentionOutput::Clock::now() + 30s;
        while (output.removed_calls() < calls && RetentionOutput::Clock::now() < end) {
            output.update(now_);
            std::this_thread::sleep_for(1ms);
        }
    }

    std::set<std::string> present_ = {PRESENT};
    std::vector<std::string> forgotten_;
    int looks_ = 0;
    RetentionOutput::Names calls_{[this] {
                                      ++looks_;
                                      return std::vector<std::string>(present_.begin(),
                                                                      present_.end());
                                  },
                                  [this](const std::string& name) { forgotten_.push_back(name); }};
    std::string events_;
    std::ostringstream text_;
    LineReport lines_{text_};
    EventLog log_{[this](const char* lines, std::size_t size) {
                      events_.append(lines, size);
                      return size;
                  },
                  false};
    Notices notices_{lines_, &log_, false};
    RetentionOutput::Clock::time_point now_ = RetentionOutput::Clock::now();
};

TEST_F(RetentionOutputTest, RemovedCallsAreCountedReportedAndTheirNamesAreFree) {
    put(OLD + "-originator.flac", std::string(100, 'x'));
    put(PRESENT + "-originator.wav", std::string(100, 'x'));
    RetentionOutput output(options(), calls_, notices_);
    update_until_removed(output, 1);
    EXPECT_EQ(output.removed_calls(), 1u);
    EXPECT_GT(output.removed_bytes(), 0u);
    EXPECT_EQ(forgotten_, std::vector<std::string>{OLD + "-originator.wav"});
    EXPECT_EQ(names(), std::set<std::string>{PRESENT + "-originator.wav"});
    log_.flush();
    EXPECT_NE(events_.find(OLD), std::string::npos);
}

TEST_F(RetentionOutputTest, FolderIsLookedAtOnceAMinute) {
    RetentionOutput output(options(), calls_, notices_);
    output.update(now_);
    output.update(now_ + 59s);
    EXPECT_EQ(looks_, 1);
    output.update(now_ + 60s);
    EXPECT_EQ(looks_, 2);
}

TEST_F(RetentionOutputTest, EndReportsTheRemovalAtHand) {
    put(OLD + "-originator.wav", std::string(100, 'x'));
    RetentionOutput output(options(), calls_, notices_);
    output.update(now_);
    while (!names().empty()) {
        std::this_thread::sleep_for(1ms);
    }
    output.finish();
    EXPECT_EQ(output.removed_calls(), 1u);
}

}  // namespace

}  // namespace qv::node
