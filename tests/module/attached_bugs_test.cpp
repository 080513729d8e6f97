// The reference to the shared object is tested in object_reference_test.cpp, and the whole in
// unload_test.cpp: in this program the linker refuses the reference.
#include "module/attached_bugs.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "host/embedded_host.h"
#include "module/host_log.h"

namespace qv::freeswitch {

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

// The number that the next descriptor gets.
int next_descriptor() {
    const int number = ::dup(STDERR_FILENO);
    ::close(number);
    return number;
}

bool is_taken(int descriptor) {
    return ::fcntl(descriptor, F_GETFD) != -1;
}

class AttachedBugsTest : public ::testing::Test {
  protected:
    AttachedBugsTest() { log::Logger::install(Logger::write, nullptr, nullptr); }

    void remove_on_another_thread() {
        std::thread([this] { bugs_.remove(); }).join();
    }

    Clock::duration time_of_shutdown() {
        const Clock::time_point begin = Clock::now();
        bugs_.unloaded();
        return Clock::now() - begin;
    }

    host::EmbeddedHost host_;
    net::Socket socket_;
    AttachedBugs bugs_{socket_};
};

// ---- whether the host may call the module -------------------------------------------

TEST_F(AttachedBugsTest, ModuleMayBeCalledWhileItIsLoaded) {
    EXPECT_FALSE(bugs_.may_be_called());
    bugs_.loaded();
    EXPECT_TRUE(bugs_.may_be_called());
    bugs_.unloaded();
    EXPECT_FALSE(bugs_.may_be_called());
}

TEST_F(AttachedBugsTest, ModuleMayBeCalledUntilItsLastBugIsRemoved) {
    bugs_.loaded();
    bugs_.add();
    bugs_.add();
    bugs_.unloaded();
    bugs_.remove();
    EXPECT_TRUE(bugs_.may_be_called());
    bugs_.remove();
    EXPECT_FALSE(bugs_.may_be_called());
}

TEST_F(AttachedBugsTest, HookOfAFailedLoadMayBeCalledUntilTheNextUnload) {
    bugs_.load_left_a_hook();
    EXPECT_TRUE(bugs_.may_be_called());
    bugs_.unloaded();
    EXPECT_FALSE(bugs_.may_be_called());
}

// ---- the socket ---------------------------------------------------------------------

TEST_F(AttachedBugsTest, SocketWithoutBugsIsClosedAtOnce) {
    const int number = next_descriptor();
    ASSERT_TRUE(bugs_.open_socket());
    ASSERT_TRUE(is_taken(number));
    bugs_.close_socket();
    EXPECT_FALSE(is_taken(number));
}

TEST_F(AttachedBugsTest, NumberOfTheSocketStaysTakenUntilTheLastBugIsRemoved) {
    const int number = next_descriptor();
    ASSERT_TRUE(bugs_.open_socket());
    bugs_.add();
    bugs_.add();
    bugs_.close_socket();
    EXPECT_TRUE(is_taken(number));
    bugs_.remove();
    EXPECT_TRUE(is_taken(number));
    bugs_.remove();
    EXPECT_FALSE(is_taken(number));
}

TEST_F(AttachedBugsTest, NextLoadOpensTheSocketUnderTheSameNumber) {
    const int number = next_descriptor();
    ASSERT_TRUE(bugs_.open_socket());
    bugs_.add();
    bugs_.close_socket();
    ASSERT_TRUE(bugs_.open_socket());
    bugs_.remove();
    EXPECT_TRUE(is_taken(number)) << "the open socket must not be closed";
    bugs_.close_socket();
    EXPECT_FALSE(is_taken(number));
}

// ---- unloading ----------------------------------------------------------------------

TEST_F(AttachedBugsTest, UnloadingWaitsForAThreadThatHasJustClosedABug) {
    bugs_.loaded();
    bugs_.add();
    const Clock::time_point before = Clock::now();
    remove_on_another_thread();
    bugs_.unloaded();
    EXPECT_GE(Clock::now() - before, milliseconds(100));
}

// The close before that of the unloading thread counts, although it is not the last one.
TEST_F(AttachedBugsTest, UnloadingWaitsForTheOtherThreadEvenIfItsOwnCloseCameLater) {
    bugs_.loaded();
    bugs_.add();
    bugs_.add();
    const Clock::time_point before = Clock::now();
    remove_on_another_thread();
    bugs_.remove();
    bugs_.unloaded();
    EXPECT_GE(Clock::now() - before, milliseconds(100));
}

// The best of several, because the machine may be busy.
TEST_F(AttachedBugsTest, UnloadingDoesNotWaitForItsOwnThread) {
    Clock::duration shortest = Clock::duration::max();
    for (int i = 0; i < 20; ++i) {
        bugs_.loaded();
        bugs_.add();
        bugs_.remove();
        shortest = std::min(shortest, time_of_shutdown());
    }
    EXPECT_LT(shortest, milliseconds(100));
}

TEST_F(AttachedBugsTest, UnloadingUnderBugsWithoutAReferenceIsReportedAsAnError) {
    bugs_.loaded();
    bugs_.add();
    bugs_.unloaded();
    ASSERT_EQ(host_.log().lines().size(), 1U);
    EXPECT_EQ(host_.log().lines().front().level, SWITCH_LOG_ERROR);
    EXPECT_EQ(host_.log().lines().front().function, "stay_mapped");
}

}  // namespace

}  // namespace qv::freeswitch
