#include "node/web/file_folder.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <array>
#include <filesystem>
#include <string>

#include "tests/node/audio/folder_test.h"

namespace qv::node::web {

namespace {

using FileFolderTest = tests::FolderTest;

TEST_F(FileFolderTest, FilesAreRead) {
    put("a.wav", "0123456789");
    const FileFolder folder(folder_);
    EXPECT_EQ(folder.size_of("a.wav"), 10);
    const auto file = folder.open("a.wav");
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(file->size(), 10U);
    std::array<char, 4> part{};
    EXPECT_EQ(file->read(part.data(), part.size(), 8), 2U);
    EXPECT_EQ(std::string(part.data(), 2), "89");
    EXPECT_EQ(file->read(part.data(), part.size(), 10), 0U);
}

TEST_F(FileFolderTest, OnlyPlainFilesOfTheFolderAre) {
    put("a.wav", "0123456789");
    put(".hidden", "x");
    std::filesystem::create_directory(path("inner"));
    put("inner/b.wav", "x");
    std::filesystem::create_symlink(path("a.wav"), path("link.wav"));
    ASSERT_EQ(::mkfifo(path("pipe.wav").c_str(), 0600), 0);
    const FileFolder folder(folder_);
    for (const std::string name : {"", ".", "..", ".hidden", "inner", "inner/b.wav", "link.wav",
                                   "pipe.wav", "gone.wav", "./a.wav", "/etc/passwd", "../"}) {
        EXPECT_EQ(folder.open(name), nullptr) << name;
        EXPECT_EQ(folder.size_of(name), -1) << name;
    }
    EXPECT_EQ(folder.open(std::string("a.wav\0x", 7)), nullptr);
}

TEST_F(FileFolderTest, AFolderThatIsMissingHasNoFiles) {
    const FileFolder folder(path("missing"));
    EXPECT_EQ(folder.open("a.wav"), nullptr);
    EXPECT_EQ(folder.size_of("a.wav"), -1);
}

}  // namespace

}  // namespace qv::node::web
