// The list, on disk, of the audio files that are being written, and what a later run makes of it.
//
// While files are open a hidden file in their folder names them. A run that ends properly leaves
// none. After a run that was killed, or a power cut, the next run finds the list and repairs the
// files on it. Several runs may share a folder: each locks its own list while it lives.
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

    // Names a file (without folder) before it is made. A list that cannot be written is no
    // error: the files can be played without it.
    void add(const std::string& name, const WavFormat& format);
    // The file is complete. Without files there is no list.
    void remove(const std::string& name);

  private:
    bool begin();
    void end();
    void write(const std::string& lines);
    void rewrite();

    std::string folder_;
    std::string path_;
    int descriptor_ = -1;
    std::unordered_map<std::string, std::string> lines_;  // By name, of the files now.
    std::size_t written_lines_ = 0;
};

// A file that an earlier run did not complete.
struct LeftoverFile {
    std::string path;
    WavFormat format;
    std::uint64_t frames = 0;     // Samples of each channel, that the file has now.
    std::uint64_t recovered = 0;  // Of these, that its header did not count.
    std::string error;            // Why it could not be repaired; else empty.
};

// Where a file is made before it gets its name: nobody sees a file without a header.
std::string unfinished_path(const std::string& folder, const std::string& name);

// Repairs the files on the lists of runs that live no more, and removes these lists. Returns
// the files that are there.
std::vector<LeftoverFile> recover_leftovers(const std::string& folder);

}  // namespace qv::node
