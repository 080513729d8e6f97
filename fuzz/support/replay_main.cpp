// Runs files, and all files of folders, through a fuzz target without a fuzzer, so that the
// corpora are tests of every build with any compiler.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz/support/require.h"

namespace {

namespace fs = std::filesystem;

std::vector<fs::path> files_of(const fs::path& path) {
    if (!fs::is_directory(path)) {
        return {path};
    }
    std::vector<fs::path> files;
    for (const fs::directory_entry& entry : fs::directory_iterator(path)) {
        files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

bool replay(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        std::fprintf(stderr, "cannot read %s\n", path.c_str());
        return false;
    }
    const std::vector<char> content{std::istreambuf_iterator<char>(file), {}};
    // Prints the name first, so that a crash shows which file caused it.
    std::printf("%s\n", path.c_str());
    std::fflush(stdout);
    // A block of exactly this size, so that a sanitizer reports a read past its end.
    const std::vector<std::uint8_t> input(content.begin(), content.end());
    LLVMFuzzerTestOneInput(input.data(), input.size());
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    int replayed = 0;
    for (int i = 1; i < argc; ++i) {
        for (const fs::path& file : files_of(argv[i])) {
            if (!replay(file)) {
                return 1;
            }
            ++replayed;
        }
    }
    std::printf("%d inputs replayed\n", replayed);
    return replayed == 0 ? 1 : 0;
}
