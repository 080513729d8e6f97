#include "node/outputs/command_output.h"

#include <gtest/gtest.h>

#include <chrono>
#include <sstream>

#include "node/calls/call.h"
#include "tests/node/audio/folder_test.h"
#include "tests/node/report/outline.h"

namespace qv::node {

namespace {

class CommandOutputTest : public tests::FolderTest {
  protected:
    // The command runs after one call, and the program ends.
    bool run(const std::vector<std::string>& words, const Patience& patience,
             std::size_t most_waiting = 10) {
        CommandOutput output({words, 1, most_waiting}, lines_);
        Call call({}, 7, {}, limits_, {output.listener()});
        call.close(EndReason::TIMED_OUT);
        call.report_end(EndReason::TIMED_OUT);
        output.finish(patience);
        return !output.failed();
    }
    tests::Lines lines() const { return tests::outlines(text_.str()); }

    const Patience patience_{false, [] { return true; }};
    CallLimits limits_;
    std::ostringstream text_;
    LineReport lines_{text_};
};

TEST_F(CommandOutputTest, CommandThatWorksIsNotMentioned) {
    EXPECT_TRUE(run({"true"}, patience_));
    EXPECT_EQ(lines(), tests::Lines{});
}

TEST_F(CommandOutputTest, CommandThatFailsIsReported) {
    EXPECT_FALSE(run({"false"}, patience_));
    ASSERT_EQ(lines().size(), 1u);
    EXPECT_EQ(lines()[0].rfind("command failed: 00000000-0000-0000-0000-000000000000", 0), 0u);
}

TEST_F(CommandOutputTest, SlowCommandIsWaitedFor) {
    EXPECT_FALSE(run({"sh", "-c", "sleep 0.2; exit 3"}, patience_));
}

TEST_F(CommandOutputTest, CallsThatFoundNoRoomAreReported) {
    EXPECT_FALSE(run({"true"}, patience_, 0));
    EXPECT_EQ(lines(), tests::Lines{"command not run: 1"});
}

TEST_F(CommandOutputTest, AnotherSignalEndsTheWaitForACommand) {
    const auto begin = std::chrono::steady_clock::now();
    // It ends with the folder of the test.
    const std::string command = "for i in $(seq 600); do [ -d \"$0\" ] || exit 0; sleep 0.05; done";
    EXPECT_TRUE(run({"sh", "-c", command, folder_}, Patience(false, [] { return false; })));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
}

}  // namespace

}  // namespace qv::node
