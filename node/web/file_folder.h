// The folder of the calls' files, as the page serves it: opens files by their plain names, never
// outside the folder and never through a link. Any thread may call it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace qv::node::web {

// An open file for reading, as long as somebody holds it.
class OpenFile {
  public:
    // Takes the descriptor over.
    OpenFile(int descriptor, std::uint64_t size) : descriptor_(descriptor), size_(size) {}
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;
    ~OpenFile();

    std::uint64_t size() const { return size_; }  // When it was opened.
    // Reads up to `size` bytes at the offset. Returns how many; 0 at the end and after an error.
    std::size_t read(char* into, std::size_t size, std::uint64_t offset) const;

  private:
    const int descriptor_;
    const std::uint64_t size_;
};

class FileFolder {
  public:
    // The folder may be missing.
    explicit FileFolder(const std::string& path);
    FileFolder(const FileFolder&) = delete;
    FileFolder& operator=(const FileFolder&) = delete;
    ~FileFolder();

    // Returns null if there is no regular file of that name directly in the folder.
    std::shared_ptr<const OpenFile> open(const std::string& name) const;
    // The size of such a file in bytes, or -1.
    std::int64_t size_of(const std::string& name) const;

  private:
    const int descriptor_;
};

}  // namespace qv::node::web
