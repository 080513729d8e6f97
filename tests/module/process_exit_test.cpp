// The end of the process while calls are tapped.
//
// The host's `fsctl shutdown now` calls exit(). That runs the destructors of the module's
// objects while other threads go on to deliver frames, answer commands and end calls. Run it
// under the address sanitizer, too.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "tests/support/module_test.h"

namespace qv::tests {

namespace {

using host::Direction;

class ProcessExit : public ModuleTest {
  protected:
    static void SetUpTestSuite() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

    // Ends the process with a call tapped. What is registered before the module is loaded
    // runs after the module's destructors.
    [[noreturn]] void exit_during_a_call() {
        self = this;
        std::atexit([] { self->go_on_with_the_call(); });
        load();
        call = start_tapped_call();
        std::exit(0);
    }

  private:
    // What other threads of the host may do until the process is gone.
    [[noreturn]] void go_on_with_the_call() {
        const Bytes frame(320);
        call->feed(Direction::READ, frame.data(), frame.size());
        expect(field(node.receive(), 4, 1) == "83", "the frame was not sent");
        expect(call_api("features") == "------\n", "the command did not find the call");
        hangup(*call);
        expect(field(node.receive(), 4, 1) == "82", "no terminate packet");
        for (const std::string& line : take_log()) {
            expect(line.find("MAGIC") == std::string::npos, line);
        }
        std::filesystem::remove_all(std::filesystem::current_path());
        std::_Exit(failed ? 1 : 0);
    }

    void expect(bool condition, const std::string& complaint) {
        if (!condition) {
            std::fprintf(stderr, "%s\n", complaint.c_str());
            failed = true;
        }
    }

    static ProcessExit* self;
    std::unique_ptr<host::Call> call;
    bool failed = false;
};

ProcessExit* ProcessExit::self = nullptr;

TEST_F(ProcessExit, CallsGoOnWhileTheProcessEnds) {
    EXPECT_EXIT(exit_during_a_call(), testing::ExitedWithCode(0), "");
}

}  // namespace

}  // namespace qv::tests
