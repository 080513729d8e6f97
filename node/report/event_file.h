// The destination of events: a file that they are appended to, or the standard output.
//
// A file may end in the middle of a line, because the disk was full. New events then begin on a new
// line. If the file is moved or removed, for example by log rotation, new events go to a new file
// at its path. Belongs to one thread.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace qv::node {

class EventFile {
  public:
    EventFile() = default;
    ~EventFile();
    EventFile(const EventFile&) = delete;
    EventFile& operator=(const EventFile&) = delete;

    // Opens the file, or the standard output for "-". Returns why it cannot be used, or an empty
    // text.
    std::string open(const std::string& path);

    // Opens the path again. Returns why this failed, or an empty text; after a failure the file
    // that was open stays in use. Does nothing for the standard output.
    std::string reopen();

    // Writes lines. Returns how many bytes were written; fewer than `size` after a failure.
    std::size_t write(const char* lines, std::size_t size);

    // Why the latest write failed.
    const std::string& error() const { return error_; }
    // How often a write found the file moved or removed, and created a new one.
    std::uint64_t replaced() const { return replaced_; }

  private:
    bool is_at_path() const;
    bool follow_path();
    void close();
    std::size_t put(const char* data, std::size_t size);

    std::string path_;
    int descriptor_ = -1;
    bool owned_ = false;  // False for the standard output.
    dev_t device_ = 0;    // Together with the next, identifies the open file.
    ino_t inode_ = 0;
    std::uint64_t replaced_ = 0;
    bool in_line_ = false;  // The file ends in the middle of a line.
    std::string error_;
};

}  // namespace qv::node
