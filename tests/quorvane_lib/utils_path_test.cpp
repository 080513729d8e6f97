#include "quorvane_lib/utils_path.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "tests/support/system_calls.h"

namespace qv::utils::path {
namespace {

using tests::Outcome;
using tests::SystemCalls;

namespace fs = std::filesystem;

// Gives each test a folder of its own, and restores the current directory afterwards.
class PathTest : public testing::Test {
  protected:
    PathTest() : before_(fs::current_path()) {
        std::string pattern = testing::TempDir() + "quorvane_path_XXXXXX";
        folder_ = fs::canonical(::mkdtemp(pattern.data())).string();
    }
    ~PathTest() override {
        fs::current_path(before_);
        fs::remove_all(folder_);
    }

    static bool make(const std::string& path, unsigned int mode = 0755) {
        return check_or_create_directory(path, false, mode, create_policy::optimistic);
    }
    static bool make_for_file(const std::string& path) {
        return check_or_create_directory(path, true, 0755, create_policy::optimistic);
    }
    static std::vector<std::string> paths_of(const std::vector<tests::SeenCall>& calls) {
        std::vector<std::string> paths;
        paths.reserve(calls.size());
        for (const tests::SeenCall& call : calls) {
            paths.push_back(call.text);
        }
        return paths;
    }

    const fs::path before_;
    std::string folder_;
};

TEST(PathConstants, Separators) {
    EXPECT_EQ(LINUX_PATH_SEPARATOR::CHAR, '/');
    EXPECT_STREQ(LINUX_PATH_SEPARATOR::C_STR, "/");
    EXPECT_EQ(LINUX_PATH_SEPARATOR::STR, "/");
    EXPECT_EQ(WINDOWS_PATH_SEPARATOR::CHAR, '\\');
    EXPECT_STREQ(WINDOWS_PATH_SEPARATOR::C_STR, "\\");
    EXPECT_EQ(FILE_EXTENSION_SEPARATOR::CHAR, '.');
}

TEST(PathConstants, TheWindowsSeparatorAsStringIsTheLinuxOne) {
    EXPECT_EQ(WINDOWS_PATH_SEPARATOR::STR, "/");
}

TEST(PathConstants, DirectoryNames) {
    EXPECT_STREQ(CURRENT_DIR::C_STR, ".");
    EXPECT_EQ(CURRENT_DIR::STR, ".");
    EXPECT_STREQ(PARENT_DIR::C_STR, "..");
    EXPECT_EQ(PARENT_DIR::STR, "..");
}

TEST(PathConstants, PolicyValues) {
    EXPECT_EQ(static_cast<int>(create_policy::optimistic), 0);
    EXPECT_EQ(static_cast<int>(create_policy::pessimistic), 1);
}

TEST_F(PathTest, TheCurrentDirectoryHasNoTrailingSeparator) {
    fs::current_path(folder_);
    EXPECT_EQ(get_current_directory(), folder_);
}

TEST_F(PathTest, TheRootAsCurrentDirectoryIsEmpty) {
    fs::current_path("/");
    EXPECT_EQ(get_current_directory(), "");
    EXPECT_EQ(get_absolute_path("x"), "/x");
}

TEST_F(PathTest, ALostCurrentDirectoryIsEmpty) {
    fs::create_directory(folder_ + "/lost");
    fs::current_path(folder_ + "/lost");
    fs::remove(folder_ + "/lost");
    EXPECT_EQ(get_current_directory(), "");
}

TEST_F(PathTest, BackslashesBecomeSlashes) {
    std::string path = "\\a\\b/c\\\\";
    normalize_path_separator(path);
    EXPECT_EQ(path, "/a/b/c//");
}

TEST_F(PathTest, TheCopyingFormLeavesItsInputAlone) {
    const std::string path = "\\a";
    EXPECT_EQ(normalize_path_separator(path), "/a");
    EXPECT_EQ(path, "\\a");
}

TEST_F(PathTest, AFileNameFollowsTheLastSeparator) {
    EXPECT_EQ(get_file_name("dir\\file.txt"), "file.txt");
    EXPECT_EQ(get_file_name("/a/b\\c/d"), "d");
    EXPECT_EQ(get_file_name("name"), "name");
    EXPECT_EQ(get_file_name("dir/"), "");
    EXPECT_EQ(get_file_name(""), "");
}

TEST_F(PathTest, AnAbsolutePathLosesDotsAndRepeatedSeparators) {
    EXPECT_EQ(get_absolute_path("/a/./b//c/../d/"), "/a/b/d");
    EXPECT_EQ(get_absolute_path("\\tmp\\y"), "/tmp/y");
    EXPECT_EQ(get_absolute_path("//"), "/");
    EXPECT_EQ(get_absolute_path("/a/.."), "/");
    EXPECT_EQ(get_absolute_path("/a/.../..b/.c"), "/a/.../..b/.c");
}

TEST_F(PathTest, APathThatClimbsAboveTheRootIsEmpty) {
    EXPECT_EQ(get_absolute_path("/.."), "");
    EXPECT_EQ(get_absolute_path("/a/../.."), "");
    EXPECT_EQ(get_absolute_path("/../a"), "");
}

TEST_F(PathTest, ARelativePathStartsAtTheCurrentDirectory) {
    fs::current_path(folder_);
    EXPECT_EQ(get_absolute_path("x"), folder_ + "/x");
    EXPECT_EQ(get_absolute_path("."), folder_);
    EXPECT_EQ(get_absolute_path("x/../y\\z/"), folder_ + "/y/z");
    EXPECT_EQ(get_absolute_path("../x"), fs::path(folder_).parent_path().string() + "/x");
}

TEST_F(PathTest, BackslashesOfTheCurrentDirectoryStay) {
    fs::create_directory(folder_ + "/a\\b ");
    fs::current_path(folder_ + "/a\\b ");
    EXPECT_EQ(get_absolute_path("x"), folder_ + "/a\\b /x");
}

TEST_F(PathTest, AnEmptyPathIsTheRoot) {
    EXPECT_EQ(get_absolute_path(""), "/");
    EXPECT_EQ(get_absolute_path(" \t\r\n"), "/");
}

TEST_F(PathTest, AnAbsolutePathIsTrimmedAtBothEnds) {
    EXPECT_EQ(get_absolute_path(" \t/a b /c\r\n"), "/a b /c");
}

TEST_F(PathTest, AbsolutePathsNeedNotExistAndLinksAreNotResolved) {
    fs::create_symlink("/", folder_ + "/link");
    EXPECT_EQ(get_absolute_path(folder_ + "/link/../x"), folder_ + "/x");
}

TEST_F(PathTest, MissingDirectoriesAreCreatedDownwards) {
    EXPECT_TRUE(make(folder_ + "/q/r/s"));
    EXPECT_TRUE(fs::is_directory(folder_ + "/q/r/s"));
}

TEST_F(PathTest, ForAFileTheDirectoryThatHoldsItIsCreated) {
    EXPECT_TRUE(make_for_file(folder_ + "/q/r/log.txt"));
    EXPECT_TRUE(fs::is_directory(folder_ + "/q/r"));
    EXPECT_FALSE(fs::exists(folder_ + "/q/r/log.txt"));
}

TEST_F(PathTest, CreationGoesFromTheDeepestExistingAncestor) {
    const SystemCalls calls;
    EXPECT_TRUE(make(folder_ + "/q/r"));
    EXPECT_EQ(paths_of(calls.seen("stat")),
              (std::vector<std::string>{folder_ + "/q/r", folder_ + "/q", folder_}));
    EXPECT_EQ(paths_of(calls.seen("mkdir")),
              (std::vector<std::string>{folder_ + "/q", folder_ + "/q/r"}));
}

TEST_F(PathTest, WithoutAnyAncestorCreationStartsAtTheFirstComponent) {
    SystemCalls calls;
    calls.next("mkdir", Outcome::answer(0));
    calls.next("mkdir", Outcome::answer(0));
    EXPECT_TRUE(make("/quorvane_nonexistent/q"));
    EXPECT_EQ(paths_of(calls.seen("stat")),
              (std::vector<std::string>{"/quorvane_nonexistent/q", "/quorvane_nonexistent"}));
    EXPECT_EQ(paths_of(calls.seen("mkdir")),
              (std::vector<std::string>{"/quorvane_nonexistent", "/quorvane_nonexistent/q"}));
}

TEST_F(PathTest, DirectoriesGetTheGivenMode) {
    const SystemCalls calls;
    EXPECT_TRUE(make(folder_ + "/q/r", 0700));
    for (const tests::SeenCall& call : calls.seen("mkdir")) {
        EXPECT_EQ(call.numbers, (std::vector<long>{0700}));
    }
    EXPECT_EQ(fs::status(folder_ + "/q").permissions(), fs::perms::owner_all);
}

TEST_F(PathTest, AnExistingDirectoryIsLeftAsItIs) {
    const SystemCalls calls;
    EXPECT_TRUE(make(folder_));
    EXPECT_TRUE(make("/"));
    EXPECT_TRUE(make(""));
    EXPECT_TRUE(calls.seen("mkdir").empty());
}

TEST_F(PathTest, AFileInTheWayIsNoDirectory) {
    std::ofstream(folder_ + "/file") << "x";
    for (const char* below : {"/file", "/file/q", "/file/q/r"}) {
        errno = 0;
        EXPECT_FALSE(make(folder_ + below)) << below;
        EXPECT_EQ(errno, ENOTDIR) << below;
    }
}

TEST_F(PathTest, APathWithoutADirectoryFails) {
    EXPECT_FALSE(make("/.."));
    EXPECT_FALSE(make_for_file("/.."));
    EXPECT_FALSE(make_for_file("/log.txt"));
    EXPECT_FALSE(make_for_file("/"));
}

TEST_F(PathTest, AnIntermediateDirectoryMayAppearMeanwhile) {
    SystemCalls calls;
    calls.next("mkdir", Outcome::fail(EEXIST));
    calls.next("mkdir", Outcome::answer(0));
    EXPECT_TRUE(make(folder_ + "/q/r"));
    EXPECT_EQ(calls.seen("mkdir").size(), 2u);
}

TEST_F(PathTest, TheLastDirectoryMayAppearMeanwhile) {
    SystemCalls calls;
    calls.next("mkdir", Outcome::fail(EEXIST));
    EXPECT_TRUE(make(folder_ + "/q"));
}

TEST_F(PathTest, AnyOtherFailureOfCreationIsReturnedWithItsError) {
    // The errors that the manual page of the call lists, except EEXIST, and EINTR.
    for (const int error : {EACCES, EBADF, EDQUOT, EFAULT, EINTR, EINVAL, EIO, ELOOP, EMLINK,
                            ENAMETOOLONG, ENOENT, ENOMEM, ENOSPC, ENOTDIR, EPERM, EROFS}) {
        SystemCalls calls;
        calls.next("mkdir", Outcome::fail(error));
        EXPECT_FALSE(make(folder_ + "/q/r"));
        EXPECT_EQ(errno, error);
        EXPECT_EQ(calls.seen("mkdir").size(), 1u);
        EXPECT_FALSE(fs::exists(folder_ + "/q"));
    }
    EXPECT_TRUE(make(folder_ + "/q/r"));
}

TEST_F(PathTest, AFailureAtTheLastDirectoryIsReturnedWithItsError) {
    SystemCalls calls;
    calls.next("mkdir", Outcome::pass());
    calls.next("mkdir", Outcome::fail(ENOSPC));
    EXPECT_FALSE(make(folder_ + "/q/r"));
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_TRUE(fs::is_directory(folder_ + "/q"));
}

TEST_F(PathTest, ThePessimisticPolicyIsNotImplemented) {
    try {
        check_or_create_directory(folder_, false, 0755, create_policy::pessimistic);
        FAIL();
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "not implemented:create_directory_pessimistic");
    }
}

TEST_F(PathTest, AnUnknownPolicyIsAnInvalidArgument) {
    for (const int value : {2, -1}) {
        try {
            check_or_create_directory(folder_, false, 0755, static_cast<create_policy>(value));
            FAIL();
        } catch (const std::invalid_argument& error) {
            EXPECT_STREQ(error.what(), "policy");
        }
    }
}

TEST_F(PathTest, APathWithoutADirectoryFailsBeforeThePolicyIsLookedAt) {
    EXPECT_FALSE(check_or_create_directory("/..", false, 0755, create_policy::pessimistic));
}

}  // namespace
}  // namespace qv::utils::path
