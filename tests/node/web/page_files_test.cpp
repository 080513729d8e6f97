#include "node/web/page_files.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

namespace qv::node::web {

namespace {

TEST(PageFilesTest, EveryFileIsInTheProgramByteForByte) {
    std::size_t files = 0;
    for (const auto& entry :
         std::filesystem::directory_iterator(QUORVANE_TEST_DATA_DIR "/../../node/web/page")) {
        const std::string name = entry.path().filename();
        std::ifstream source(entry.path(), std::ios::binary);
        const std::string bytes{std::istreambuf_iterator<char>(source), {}};
        const PageFile* const file = find_page_file(name);
        ASSERT_NE(file, nullptr) << name;
        EXPECT_TRUE(file->bytes == bytes) << name;
        ++files;
    }
    EXPECT_GT(files, 0u);
}

TEST(PageFilesTest, OnlyWholeNamesAreFound) {
    for (const char* name : {"", "page", "page.htm", "page.html2", "/page.html", "PAGE.HTML"}) {
        EXPECT_EQ(find_page_file(name), nullptr) << name;
    }
}

TEST(PageFilesTest, TheEndingDecidesTheMediaType) {
    EXPECT_EQ(media_type("page.html"), "text/html; charset=utf-8");
    EXPECT_EQ(media_type("a.b.js"), "text/javascript; charset=utf-8");
    EXPECT_EQ(media_type("call.wav"), "audio/wav");
    EXPECT_EQ(media_type("call.opus"), "audio/ogg");
    EXPECT_EQ(media_type("call.exe"), "application/octet-stream");
    EXPECT_EQ(media_type("call"), "application/octet-stream");
    EXPECT_EQ(media_type("call."), "application/octet-stream");
}

}  // namespace

}  // namespace qv::node::web
