#include "node/web/call_files.h"

#include <gtest/gtest.h>

#include "tests/node/audio/folder_test.h"

namespace qv::node::web {

namespace {

class CallFilesTest : public tests::FolderTest {
  protected:
    CallFilesTest() { call_.file_stem = "abc"; }

    void add_file(const std::string& path) {
        FileReport file;
        file.path = path;
        call_.files.push_back(file);
    }
    std::vector<CallFile> files() const { return files_of(call_, FileFolder(folder_)); }

    FinishedCall call_;
};

TEST_F(CallFilesTest, ACallWithoutFilesHasNone) {
    call_.file_stem = "";
    call_.has_timeline = true;
    EXPECT_TRUE(file_names_of(call_).empty());
}

TEST_F(CallFilesTest, TheNamesHaveNoFolder) {
    add_file("/var/calls/abc-originator.wav");
    add_file("abc.wav");
    call_.sidecar = "/var/calls/abc.json";
    call_.has_timeline = true;
    EXPECT_EQ(file_names_of(call_),
              (std::vector<std::string>{"abc-originator.wav", "abc.wav", "abc.json", "abc.svg"}));
}

TEST_F(CallFilesTest, FilesThatExistAreOfferedWithTheirKindAndSide) {
    add_file(path("abc-originator.wav"));
    add_file(path("abc-terminator.flac"));
    add_file(path("abc.opus"));
    call_.sidecar = path("abc.json");
    call_.has_timeline = true;
    put("abc-originator.wav", "1");
    put("abc-terminator.flac", "12");
    put("abc.opus", "123");
    put("abc.json", "1234");
    put("abc.svg", "12345");
    const std::vector<CallFile> found = files();
    ASSERT_EQ(found.size(), 5u);
    const char* const kinds[] = {"wav", "flac", "opus", "sidecar", "timeline"};
    const char* const sides[] = {"originator", "terminator", "both", "both", "both"};
    for (std::size_t i = 0; i < found.size(); ++i) {
        EXPECT_EQ(found[i].kind, kinds[i]) << i;
        EXPECT_EQ(found[i].call_side, sides[i]) << i;
        EXPECT_EQ(found[i].bytes, static_cast<std::int64_t>(i + 1)) << i;
    }
}

TEST_F(CallFilesTest, FilesThatAreGoneAreNotOffered) {
    add_file(path("abc-originator.wav"));
    add_file(path("abc-terminator.wav"));
    put("abc-terminator.wav", "1");
    const std::vector<CallFile> found = files();
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].name, "abc-terminator.wav");
}

TEST_F(CallFilesTest, ASideInTheStemIsNotTheSideOfTheFile) {
    call_.file_stem = "abc-originator";
    add_file(path("abc-originator.wav"));
    add_file(path("abc-originator-terminator.wav"));
    put("abc-originator.wav", "");
    put("abc-originator-terminator.wav", "");
    const std::vector<CallFile> found = files();
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[0].call_side, "both");
    EXPECT_EQ(found[1].call_side, "terminator");
}

}  // namespace

}  // namespace qv::node::web
