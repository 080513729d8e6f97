#include "node/audio/new_file.h"

#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/node/audio/folder_test.h"

namespace qv::node {

namespace {

using Names = std::set<std::string>;
using NewFileTest = tests::FolderTest;

TEST_F(NewFileTest, FileAppearsWhenItIsComplete) {
    NewFile file(folder_, "call.json");
    EXPECT_TRUE(file.write("one "));
    EXPECT_FALSE(std::filesystem::exists(path("call.json")));
    EXPECT_EQ(names().begin()->rfind(".quorvane-node-new-", 0), 0u);
    EXPECT_TRUE(file.write("two"));
    EXPECT_TRUE(file.force());
    EXPECT_TRUE(file.publish(false));
    EXPECT_EQ(names(), Names{"call.json"});
    EXPECT_EQ(bytes_of("call.json"), "one two");
}

TEST_F(NewFileTest, FileThatDoesNotBecomeCompleteLeavesNothing) {
    { NewFile(folder_, "call.json").write("half"); }
    EXPECT_EQ(names(), Names{});
}

TEST_F(NewFileTest, ExistingFileStaysUnlessItMayBeReplaced) {
    put("call.json", "old");
    std::filesystem::create_directory(path("call-2.json"));
    NewFile file(folder_, "call.json");
    EXPECT_TRUE(file.write("new"));
    EXPECT_TRUE(file.publish(false));
    EXPECT_EQ(file.path(), path("call-3.json"));
    EXPECT_EQ(bytes_of("call.json"), "old");
    EXPECT_EQ(bytes_of("call-3.json"), "new");
    NewFile other(folder_, "call.json");
    EXPECT_TRUE(other.write("newer"));
    EXPECT_TRUE(other.publish(true));
    EXPECT_EQ(other.path(), path("call.json"));
    EXPECT_EQ(bytes_of("call.json"), "newer");
    EXPECT_EQ(names(), (Names{"call.json", "call-2.json", "call-3.json"}));
}

TEST_F(NewFileTest, FolderIsNotReplaced) {
    std::filesystem::create_directory(path("call.json"));
    NewFile file(folder_, "call.json");
    EXPECT_TRUE(file.publish(true));
    EXPECT_EQ(names(), (Names{"call.json", "call-2.json"}));
}

// Two programs may share a folder.
TEST_F(NewFileTest, SeveralFilesOfOneNameAreWrittenAtTheSameTime) {
    NewFile one(folder_, "call.json");
    NewFile another(folder_, "call.json");
    EXPECT_TRUE(one.write("one") && another.write("another"));
    EXPECT_TRUE(another.publish(false) && one.publish(false));
    EXPECT_EQ(bytes_of("call.json"), "another");
    EXPECT_EQ(bytes_of("call-2.json"), "one");
}

TEST_F(NewFileTest, MissingFolderIsAnError) {
    NewFile file(path("missing"), "call.json");
    EXPECT_EQ(file.error(), "No such file or directory");
    EXPECT_FALSE(file.write("text") || file.force() || file.publish(true));
}

TEST_F(NewFileTest, OnlyFilesOfKilledProgramsAreRemoved) {
    put(".quorvane-node-new-killed.json", "half");
    put(".quorvane-node-open-abcdef", "");
    put(".another.new", "");
    put("call.json", "whole");
    NewFile file(folder_, "running.json");
    remove_abandoned_files(folder_);
    EXPECT_TRUE(file.publish(false));
    EXPECT_EQ(names(),
              (Names{".another.new", ".quorvane-node-open-abcdef", "call.json", "running.json"}));
}

TEST_F(NewFileTest, LinksAndFifosOfOthersAreNotFollowed) {
    put("other", "not ours");
    ASSERT_EQ(::symlink(path("other").c_str(), path(".quorvane-node-new-link").c_str()), 0);
    ASSERT_EQ(::symlink(path("missing").c_str(), path("call.json").c_str()), 0);
    ASSERT_EQ(::mkfifo(path(".quorvane-node-new-fifo").c_str(), 0600), 0);
    remove_abandoned_files(folder_);
    EXPECT_EQ(names(), (Names{".quorvane-node-new-link", "call.json", "other"}));
    NewFile file(folder_, "call.json");
    EXPECT_TRUE(file.write("new") && file.publish(false));
    EXPECT_EQ(bytes_of("call-2.json"), "new");
    EXPECT_EQ(bytes_of("other"), "not ours");
    EXPECT_EQ(names().count("missing"), 0u);
}

}  // namespace

}  // namespace qv::node
