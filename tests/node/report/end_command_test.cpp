#include "node/report/end_command.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "node/calls/call.h"

namespace qv::node {

namespace {

using namespace std::chrono_literals;

constexpr Uuid CALL = {0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07,
                       0x08, 0x09, 0x0a, 0x0b, 0x0c, 0x0d, 0x0e, 0x0f};
constexpr auto LONG_ENOUGH = 20s;

class EndCommandTest : public testing::Test {
  protected:
    EndCommandTest() {
        std::string pattern = std::filesystem::temp_directory_path() / "quorvane-node-XXXXXX";
        folder_ = mkdtemp(pattern.data());
    }
    ~EndCommandTest() override { std::filesystem::remove_all(folder_); }

    EndCommand command(std::vector<std::string> words, std::size_t most_running = 4,
                       std::size_t most_waiting = 100) {
        return {{std::move(words), most_running, most_waiting},
                [this](const std::string& what) { reports_.push_back(what); }};
    }
    void end_call(EndCommand& command, const std::vector<FileReport>& files = {},
                  const std::string& sidecar = {}) const {
        Call call(CALL, 7, {}, limits_, {&command});
        for (const FileReport& file : files) {
            call.add_file(file);
        }
        call.set_sidecar(sidecar);
        call.close(EndReason::TIMED_OUT);
        call.report_end(EndReason::TIMED_OUT);
    }
    std::string text(const std::string& name) const {
        std::stringstream all;
        all << std::ifstream(folder_ + '/' + name).rdbuf();
        return all.str();
    }

    std::string folder_;
    CallLimits limits_;
    std::vector<std::string> reports_;
};

TEST_F(EndCommandTest, GetsTheFilesThatWereWrittenAndWhichCallItWas) {
    EndCommand ending =
        command({"sh", "-c", "echo \"$QUORVANE_CALL_UUID $QUORVANE_END_REASON $*\" > \"$0\"",
                 folder_ + "/seen"});
    end_call(ending,
             {{"a b.wav", ""}, {"failed.wav", "No space left on device"}, {"$(c).svg", ""}});
    EXPECT_EQ(ending.finish(LONG_ENOUGH), 0u);
    EXPECT_EQ(text("seen"), "00010203-0405-0607-0809-0a0b0c0d0e0f timed_out a b.wav $(c).svg\n");
    EXPECT_TRUE(reports_.empty());
}

TEST_F(EndCommandTest, FindsTheSidecarOfTheCall) {
    EndCommand ending =
        command({"sh", "-c", "echo \"$QUORVANE_SIDECAR\" > \"$0\"", folder_ + "/seen"});
    end_call(ending, {}, "calls/a b.json");
    EXPECT_EQ(ending.finish(LONG_ENOUGH), 0u);
    EXPECT_EQ(text("seen"), "calls/a b.json\n");
}

TEST_F(EndCommandTest, NoMoreRunAtOnceThanAllowed) {
    EndCommand ending = command({"sleep", "0.2"}, 2);
    for (int i = 0; i < 5; ++i) {
        end_call(ending);
    }
    ending.poll();
    EXPECT_EQ(ending.running(), 2u);
    EXPECT_EQ(ending.finish(LONG_ENOUGH), 0u);
    EXPECT_EQ(ending.running(), 0u);
    EXPECT_EQ(ending.counts().failed, 0u);
}

TEST_F(EndCommandTest, CallsBeyondTheBoundGoWithoutAndAreCounted) {
    EndCommand ending = command({"true"}, 1, 3);
    for (int i = 0; i < 5; ++i) {
        end_call(ending);
    }
    EXPECT_EQ(ending.counts().skipped, 2u);
    EXPECT_EQ(ending.finish(LONG_ENOUGH), 0u);
}

TEST_F(EndCommandTest, FailuresAreReportedWithTheirCall) {
    const std::string call = "00010203-0405-0607-0809-0a0b0c0d0e0f";
    EndCommand missing = command({folder_ + "/missing"});
    end_call(missing);
    missing.finish(LONG_ENOUGH);
    EndCommand failing = command({"sh", "-c", "exit 3"});
    end_call(failing);
    failing.finish(LONG_ENOUGH);
    EndCommand killed = command({"sh", "-c", "kill -9 $$"});
    end_call(killed);
    killed.finish(LONG_ENOUGH);
    EXPECT_EQ(reports_, (std::vector<std::string>{
                            folder_ + "/missing after call " + call + ": No such file or directory",
                            "sh after call " + call + ": exit code 3",
                            "sh after call " + call + ": killed by signal 9"}));
    EXPECT_EQ(killed.counts().failed, 1u);
}

TEST_F(EndCommandTest, PatienceAtTheEndIsBounded) {
    EndCommand ending = command({"sleep", "5"}, 1);
    end_call(ending);
    end_call(ending);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(ending.finish(50ms), 1u);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 4s);
}

TEST_F(EndCommandTest, OwnDescriptorsAreNotHandedDown) {
    const int own = dup(0);
    EndCommand ending = command({"sh", "-c", "test ! -e /proc/self/fd/" + std::to_string(own)});
    end_call(ending);
    ending.finish(LONG_ENOUGH);
    close(own);
    EXPECT_EQ(ending.counts().failed, 0u);
}

}  // namespace

}  // namespace qv::node
