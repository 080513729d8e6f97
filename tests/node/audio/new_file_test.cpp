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
    EXPECT_EQ(names(), Names{".quorvane-node-new-call.json"});
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
    {
        NewFile file(folder_, "call.json");
        EXPECT_TRUE(file.write("new"));
        EXPECT_FALSE(file.publish(false));
        EXPECT_EQ(file.error(), "File exists");
    }
    EXPECT_EQ(bytes_of("call.json"), "old");
    NewFile file(folder_, "call.json");
    EXPECT_TRUE(file.write("new"));
    EXPECT_TRUE(file.publish(true));
    EXPECT_EQ(bytes_of("call.json"), "new");
    EXPECT_EQ(names(), Names{"call.json"});
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
    const NewFile file(folder_, "running.json");
    remove_abandoned_files(folder_);
    EXPECT_EQ(names(), (Names{".another.new", ".quorvane-node-new-running.json",
                              ".quorvane-node-open-abcdef", "call.json"}));
}

TEST_F(NewFileTest, LinkToAnotherFileIsNotFollowed) {
    put("other", "not ours");
    ASSERT_EQ(::symlink(path("other").c_str(), path(".quorvane-node-new-call.json").c_str()), 0);
    remove_abandoned_files(folder_);
    NewFile file(folder_, "call.json");
    EXPECT_EQ(file.error(), "Too many levels of symbolic links");
    EXPECT_EQ(bytes_of("other"), "not ours");
}

}  // namespace

}  // namespace qv::node
