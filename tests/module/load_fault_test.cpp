// System calls fail while the module is loaded. The tests check what is logged, that the load
// fails where it has to, and that the host survives and loads the module once the fault is gone.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/fsuid.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "quorvane_lib/sanitizer.h"
#include "tests/support/descriptor_limit.h"
#include "tests/support/module_test.h"
#include "tests/support/socket_errors.h"
#include "tests/support/system_calls.h"

namespace qv::tests {

namespace {

namespace fs = std::filesystem;

const std::string FAILED_TO_OPEN =
    std::string("ERROR log conf_configuration.cpp:- CONFIGURATION: failed to open file [") +
    CONFIG_PATH + "]";
const std::string OPENED =
    std::string("NOTICE log conf_configuration.cpp:- CONFIGURATION: reading from file [") +
    CONFIG_PATH + "]";

std::string line_of_load(const std::string& level, const std::string& text) {
    return level + " log mod_quorvane.cpp:mod_quorvane_load " + text;
}

const std::string LOAD_FAILED =
    line_of_load("ERROR", std::string("failed to load config file [") + CONFIG_PATH + "]");

// Makes the calling thread an ordinary user for the file system, because the superuser may open
// every file.
class Nobody {
  public:
    Nobody() : before_(::setfsuid(65534)) {}
    Nobody(const Nobody&) = delete;
    Nobody& operator=(const Nobody&) = delete;
    ~Nobody() { ::setfsuid(static_cast<uid_t>(before_)); }

  private:
    const int before_;
};

class LoadFault : public ModuleTest {
  protected:
    // The lines of a load that fails, after the line with the build version.
    Lines refused_load() {
        host.log().clear();
        const host::LoadResult result = try_load();
        EXPECT_FALSE(result.loaded);
        EXPECT_EQ(result.status, SWITCH_STATUS_TERM);
        EXPECT_FALSE(result.exception.has_value());
        Lines lines = take_log();
        EXPECT_NE(lines.at(0).find("build version: "), std::string::npos);
        lines.erase(lines.begin());
        return lines;
    }

    void expect_not_opened() { EXPECT_EQ(refused_load(), (Lines{FAILED_TO_OPEN, LOAD_FAILED})); }

    // Checks that the module loads and taps a call once the fault is gone.
    void expect_to_load_now() {
        load();
        const auto call = start_tapped_call();
        hangup(*call);
        EXPECT_EQ(node.receive_types(), "82");
        EXPECT_TRUE(unload().unloaded);
    }

    // Maps the module, so that the host finds it without opening its file.
    static std::shared_ptr<void> map_module() {
        return {::dlopen(QUORVANE_RELOCATED_MODULE, RTLD_NOW | RTLD_LOCAL), ::dlclose};
    }

    const fs::path path = CONFIG_PATH;
};

// ---- the configuration file -----------------------------------------------------------

// The errors that open(2) lists for a file that is only read.
TEST_F(LoadFault, EveryErrorOfOpeningTheConfigurationFailsTheLoad) {
    for (const int error : {EPERM,  ENOENT, EINTR,   EIO,          ENXIO,   EAGAIN,   ENOMEM,
                            EACCES, EFAULT, EBUSY,   ENODEV,       ENOTDIR, EISDIR,   EINVAL,
                            ENFILE, EMFILE, ETXTBSY, ENAMETOOLONG, ELOOP,   EOVERFLOW}) {
        SCOPED_TRACE(error);
        configure("media_node=nobody\n");
        {
            SystemCalls calls;
            calls.next("fopen64", Outcome::fail(error));
            expect_not_opened();
            EXPECT_EQ(calls.seen("fopen64").size(), 1U);
            EXPECT_EQ(calls.seen("fopen64").at(0).text, CONFIG_PATH);
            EXPECT_TRUE(calls.seen("socket").empty());
        }
    }
    expect_to_load_now();
}

TEST_F(LoadFault, AConfigurationThatIsMissingIsNotOpened) {
    expect_not_opened();
    fs::create_directories(path.parent_path());
    expect_not_opened();
    fs::create_symlink("nothing", path);
    expect_not_opened();
    fs::remove(path);
    expect_to_load_now();
}

TEST_F(LoadFault, AConfigurationBehindAFileIsNotOpened) {
    fs::create_directories(path.parent_path().parent_path());
    std::ofstream(path.parent_path()) << "no folder";
    expect_not_opened();
    fs::remove(path.parent_path());
    expect_to_load_now();
}

TEST_F(LoadFault, AConfigurationThatLeadsInACircleIsNotOpened) {
    fs::create_directories(path.parent_path());
    fs::create_symlink("freeswitch_mod.conf", path);
    expect_not_opened();
    fs::remove(path);
    expect_to_load_now();
}

TEST_F(LoadFault, AConfigurationThatLeadsToTooLongANameIsNotOpened) {
    fs::create_directories(path.parent_path());
    fs::create_symlink(std::string(300, 'x'), path);
    expect_not_opened();
    fs::remove(path);
    expect_to_load_now();
}

TEST_F(LoadFault, AConfigurationThatMayNotBeReadIsNotOpened) {
    configure("");
    const auto mapped = map_module();
    fs::permissions(path, fs::perms::none);
    {
        const Nobody nobody;
        EXPECT_FALSE(std::ifstream(path).is_open());
        expect_not_opened();
    }
    fs::permissions(path, fs::perms::owner_all);
    expect_to_load_now();
}

TEST_F(LoadFault, AConfigurationThatIsAFolderIsAnEmptyOne) {
    fs::create_directories(path);
    EXPECT_TRUE(try_load().loaded);
    EXPECT_EQ(api("media_node"), "127.0.0.1:0\n");
    EXPECT_EQ(take_log().at(2), std::string("WARNING log mod_quorvane.cpp:mod_quorvane_load config "
                                            "file [") +
                                    CONFIG_PATH + "] is a folder: default values are used");
}

// If a read fails, the rest of the file is ignored.
TEST_F(LoadFault, EveryErrorOfReadingTheConfigurationEndsItThere) {
    for (const int error : {EIO, EBADF, EAGAIN, EINVAL, EFAULT, EISDIR, ENOMEM}) {
        SCOPED_TRACE(error);
        configure("media_node=nobody\n");
        SystemCalls calls;
        calls.next("read", Outcome::fail(error));
        host.log().clear();
        EXPECT_TRUE(try_load().loaded);
        EXPECT_EQ(calls.seen("read").size(), 1U);
        EXPECT_EQ(take_log().at(1), OPENED);
        EXPECT_EQ(api("media_node"), "127.0.0.1:0\n");
        EXPECT_TRUE(unload().left_memory);
    }
}

TEST_F(LoadFault, WhatStoodBeforeAReadErrorHolds) {
    configure("media_node=192.0.2.1:4000\n# " + std::string(64, 'x') + "\nmedia_node=nobody\n");
    SystemCalls calls;
    calls.next("read", Outcome::limit(40));
    calls.next("read", Outcome::fail(EIO));
    EXPECT_TRUE(try_load().loaded);
    EXPECT_EQ(api("media_node"), "192.0.2.1:4000\n");
}

TEST_F(LoadFault, AnInterruptedReadGoesOn) {
    configure("media_node=192.0.2.1:4000\ndump_events=channel\n");
    SystemCalls calls;
    calls.next("read", Outcome::fail(EINTR));
    calls.next("read", Outcome::limit(10));
    calls.next("read", Outcome::fail(EINTR));
    calls.next("read", Outcome::limit(1));
    EXPECT_TRUE(try_load().loaded);
    EXPECT_EQ(api("media_node"), "192.0.2.1:4000\n");
    EXPECT_EQ(api("dump_events"), "channel\n");
}

TEST_F(LoadFault, AConfigurationOfRubbishIsReadToItsFirstBadLine) {
    configure("default_detection=term\n" + std::string(1 << 20, 'x') + "=" + std::string(10, '=') +
              "\nmedia_node=nobody\n");
    EXPECT_EQ(refused_load().at(3),
              "ERROR log conf_configuration.cpp:- CONFIGURATION: failed to set option [media_node] "
              "to [nobody]: unexpected value format");
}

// ---- the socket -----------------------------------------------------------------------

TEST_F(LoadFault, EveryErrorOfCreatingTheSocketFailsTheLoad) {
    configure("");
    for (const SystemError& error : SOCKET_ERRORS) {
        SCOPED_TRACE(error.text);
        SystemCalls calls;
        calls.next("socket", Outcome::fail(error.number));
        EXPECT_EQ(refused_load(),
                  (Lines{OPENED, line_of_load("NOTICE", "configuration loaded"),
                         std::string("ERROR log net_socket.cpp:- SOCKET[ ]: failed to create a "
                                     "socket, ") +
                             error.text}));
        EXPECT_EQ(calls.seen("socket").size(), 1U);
        EXPECT_TRUE(calls.seen("bind").empty());
    }
    EXPECT_TRUE(host.applications().empty());
    expect_to_load_now();
}

TEST_F(LoadFault, EveryErrorOfBindingTheSocketFailsTheLoad) {
    configure("");
    for (const SystemError& error : BIND_ERRORS) {
        SCOPED_TRACE(error.text);
        SystemCalls calls;
        calls.next("bind", Outcome::fail(error.number));
        const Lines lines = refused_load();
        const long descriptor = calls.seen("socket").at(0).result;
        EXPECT_EQ(lines, (Lines{OPENED, line_of_load("NOTICE", "configuration loaded"),
                                "ERROR log net_socket.cpp:- SOCKET[" + std::to_string(descriptor) +
                                    "]: failed to bind a socket, " + error.text}));
        // The shared object was unmapped again, and its socket closed.
        ASSERT_EQ(calls.seen("close").size(), 1U);
        EXPECT_EQ(calls.seen("close")[0].numbers, (std::vector<long>{descriptor}));
    }
    expect_to_load_now();
}

// ---- file descriptors -----------------------------------------------------------------

TEST_F(LoadFault, WithoutADescriptorForTheSocketTheLoadFails) {
    configure("");
    {
        SystemCalls calls;
        calls.next("socket", Outcome::starve());
        EXPECT_EQ(refused_load(),
                  (Lines{OPENED, line_of_load("NOTICE", "configuration loaded"),
                         "ERROR log net_socket.cpp:- SOCKET[ ]: failed to create a socket, error "
                         "(24): Too many open files"}));
        EXPECT_EQ(calls.seen("socket").at(0).result, -1);
    }
    expect_to_load_now();
}

TEST_F(LoadFault, WithoutADescriptorForTheConfigurationTheLoadFails) {
    if (ADDRESS_SANITIZER) {
        GTEST_SKIP() << "the sanitizers look at objects through a pipe: they need descriptors";
    }
    configure("");
    const auto mapped = map_module();
    {
        const NoDescriptors none;
        EXPECT_EQ(::dup(0), -1);
        expect_not_opened();
    }
    expect_to_load_now();
}

}  // namespace

}  // namespace qv::tests
