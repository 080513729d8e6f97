// A test with a folder of its own, which is removed at the end. Belongs to the test's thread.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>

namespace qv::tests {

class FolderTest : public testing::Test {
  protected:
    FolderTest() {
        std::string pattern = std::filesystem::temp_directory_path() / "quorvane-node-XXXXXX";
        folder_ = mkdtemp(pattern.data());
    }
    ~FolderTest() override { std::filesystem::remove_all(folder_); }

    std::string path(const std::string& name) const { return folder_ + '/' + name; }

    void put(const std::string& name, const std::string& bytes) const {
        std::ofstream(path(name), std::ios::binary) << bytes;
    }
    std::string bytes_of(const std::string& name) const {
        std::ifstream file(path(name), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    // Of all files in the folder, hidden ones too.
    std::set<std::string> names() const {
        std::set<std::string> all;
        for (const auto& entry : std::filesystem::directory_iterator(folder_)) {
            all.insert(entry.path().filename());
        }
        return all;
    }

    std::string folder_;
};

}  // namespace qv::tests
