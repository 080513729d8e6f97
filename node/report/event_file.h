// Where events are written: a file that they are appended to, or the standard output.
//
// A file may end in the middle of a line, because the disk was full: what follows begins on
// a new line. When the file is moved or removed, as by a rotation of logs, what follows goes to
// a new file at its path. Belongs to one thread.
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

    // Opens the file, or the standard output for "-". Returns why it cannot be used, or nothing.
    std::string open(const std::string& path);

    // Opens the path again. Returns why it cannot be opened, or nothing. On failure the file
    // that was open stays in use. Does nothing to the standard output.
    std::string reopen();

    // Writes lines and returns how many of their bytes were written: fewer than `size` on
    // failure.
    std::size_t write(const char* lines, std::size_t size);

    // Why the latest write failed.
    const std::string& error() const { return error_; }
    // How often a write found the file moved or removed and made a new one.
    std::uint64_t replaced() const { return replaced_; }

  private:
    bool is_at_path() const;
    bool follow_path();
    void close();
    std::size_t put(const char* data, std::size_t size);

    std::string path_;
    int descriptor_ = -1;
    bool owned_ = false;  // Not the standard output.
    dev_t device_ = 0;    // These name the file that is open.
    ino_t inode_ = 0;
    std::uint64_t replaced_ = 0;
    bool in_line_ = false;  // The file ends in the middle of a line.
    std::string error_;
};

}  // namespace qv::node
