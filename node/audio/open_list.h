// A list on disk of the audio files that are being written, and their repair by a later run.
//
// While files are open, a hidden file in their folder names them. A run that ends properly removes
// it. After a killed run or a power cut, the next run finds the list and repairs the files on it.
// Several runs may share a folder: each locks its own list while it runs.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "node/audio/wav_header.h"

namespace qv::node {

// Belongs to one thread.
class OpenList {
  public:
    explicit OpenList(std::string folder) : folder_(std::move(folder)) {}
    ~OpenList();
    OpenList(const OpenList&) = delete;
    OpenList& operator=(const OpenList&) = delete;

    // Adds a file name (without folder) before the file is created. It is no error if the list
    // cannot be written: the files can be played without it.
    void add(const std::string& name, const WavFormat& format);
    // The file is complete. The list is removed when it names no more files.
    void remove(const std::string& name);

  private:
    bool begin();
    void end();
    void write(const std::string& lines);
    void rewrite();

    std::string folder_;
    std::string path_;
    int descriptor_ = -1;
    std::unordered_map<std::string, std::string> lines_;  // By name; the files that are open now.
    std::size_t written_lines_ = 0;
};

// A file that an earlier run did not complete.
struct LeftoverFile {
    std::string path;
    WavFormat format;
    std::uint64_t frames = 0;     // Samples per channel that the file now has.
    std::uint64_t recovered = 0;  // How many of them its header did not count.
    std::string error;            // Why it could not be repaired. Otherwise empty.
};

// The path under which a file is created before it gets its name, so that nobody sees a file
// without a header.
std::string unfinished_path(const std::string& folder, const std::string& name);

// Whether a file of that name (without folder) is such a list.
bool is_open_list(const std::string& name);

// Returns the names (without folder) on the list at that path. None if it is no regular file.
std::vector<std::string> listed_names(const std::string& path);

// Repairs the files on the lists of runs that are no longer active, and removes these lists.
// Returns the files that exist.
std::vector<LeftoverFile> recover_leftovers(const std::string& folder);

}  // namespace qv::node
