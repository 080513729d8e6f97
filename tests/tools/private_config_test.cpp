#include "tools/private_config.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>

namespace qv::tools {
namespace {

constexpr char CONFIG[] = "/etc/delmaren/quorvane/freeswitch_mod.conf";
constexpr int FORBIDDEN = 77;

std::string text_of(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

// Runs `action` in a child process, because it changes the whole process. Returns the exit code.
int in_child(const std::function<int()>& action) {
    const pid_t child = fork();
    if (child == 0) {
        _exit(action());
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool etc_is_unwritable() {
    return !std::ofstream("/etc/quorvane-private-config-test").is_open();
}

TEST(PrivateConfig, TheProcessSeesItsOwnFileAndTheRestOfEtc) {
    const std::string before = text_of(CONFIG);
    const int code = in_child([] {
        if (const auto error = use_private_config("log_level=TRACE\n")) {
            return FORBIDDEN;
        }
        const bool seen = text_of(CONFIG) == "log_level=TRACE\n";
        const bool rest = !text_of("/etc/passwd").empty();
        return seen && rest && etc_is_unwritable() ? 0 : 1;
    });
    if (code == FORBIDDEN) {
        GTEST_SKIP() << "this system allows no mount namespace";
    }
    EXPECT_EQ(code, 0);
    EXPECT_EQ(text_of(CONFIG), before);
}

TEST(PrivateConfig, NothingStaysBehindInTmp) {
    const auto count = [] {
        return std::system("exit $(ls -d /tmp/quorvane-etc-* 2>/dev/null | wc -l)");  // NOLINT
    };
    const int before = count();
    in_child([] { return use_private_config("x\n") ? 1 : 0; });
    EXPECT_EQ(count(), before);
}

TEST(RelocatedConfig, TheFileLiesUnderTheNewWorkingDirectory) {
    char directory[] = "/tmp/quorvane-relocated-XXXXXX";
    ASSERT_NE(mkdtemp(directory), nullptr);
    const std::string base = directory;
    EXPECT_EQ(in_child([&base] {
                  if (use_relocated_config(base, "a=b\n")) {
                      return 1;
                  }
                  return text_of("etc/delmaren/quorvane/freeswitch_mod.conf") == "a=b\n" ? 0 : 2;
              }),
              0);
    EXPECT_EQ(text_of(base + "/etc/delmaren/quorvane/freeswitch_mod.conf"), "a=b\n");
    std::filesystem::remove_all(base);
}

TEST(RelocatedConfig, AFolderThatCannotBeMadeIsNamed) {
    const auto error = use_relocated_config("/proc/nowhere", "");
    ASSERT_TRUE(error);
    EXPECT_NE(error->find("/proc/nowhere/etc/delmaren/quorvane"), std::string::npos) << *error;
}

}  // namespace
}  // namespace qv::tools
