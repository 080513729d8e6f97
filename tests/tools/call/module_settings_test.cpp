// Where the driver looks for the module when no option names one.
#include "tools/call/module_settings.h"
#include "tests/support/names.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace qv::tools::call {

namespace {

using tests::names;

class FindModule : public ::testing::Test {
  protected:
    FindModule() {
        std::string pattern = std::filesystem::temp_directory_path() / "quorvane-test-XXXXXX";
        folder_ = ::mkdtemp(pattern.data());
        for (const char* name : {"first", "second", "third"}) {
            std::filesystem::create_directory(folder_ / name);
        }
    }
    ~FindModule() override { std::filesystem::remove_all(folder_); }

    void put_module(const std::string& folder) {
        std::ofstream(folder_ / folder / "mod_quorvane.so") << "a module";
    }
    std::vector<std::string> folders() const {
        return {folder_ / "first", folder_ / "second", folder_ / "third"};
    }

    std::filesystem::path folder_;
};

TEST_F(FindModule, TheFirstFolderThatHasOneIsTaken) {
    put_module("third");
    EXPECT_EQ(find_module(folders()), folder_ / "third" / "mod_quorvane.so");
    put_module("second");
    EXPECT_EQ(find_module(folders()), folder_ / "second" / "mod_quorvane.so");
}

TEST_F(FindModule, WithoutOneTheErrorNamesTheFoldersThePackagesAndTheOption) {
    try {
        find_module(folders());
        FAIL() << "no error";
    } catch (const SettingsError& error) {
        const std::string at = folder_;
        EXPECT_TRUE(
            names(error.what(), {"mod_quorvane.so", at + "/first", at + "/second", at + "/third",
                                 "freeswitch-mod-quorvane", "quorvane-tools", "--module"}));
    }
}

TEST(ModuleFolders, BeginWithTheProgramsOwn) {
    const std::vector<std::string> folders = module_folders();
    ASSERT_EQ(folders.size(), 3u);
    EXPECT_EQ(folders[0], program_folder());
    EXPECT_EQ(std::filesystem::path(folders[2]).filename(), "quorvane");
}

}  // namespace

}  // namespace qv::tools::call
