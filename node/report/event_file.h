// Where events are written: a file that they are appended to, or the standard output.
//
// A file may end in the middle of a line, because the disk was full: what follows begins on
// a new line. Belongs to one thread.
#pragma once

#include <cstddef>
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

    // Writes lines and returns how many of their bytes were written: fewer than `size` on
    // failure.
    std::size_t write(const char* lines, std::size_t size);

    // Why the latest write failed.
    const std::string& error() const { return error_; }

  private:
    std::size_t put(const char* data, std::size_t size);

    int descriptor_ = -1;
    bool owned_ = false;
    bool in_line_ = false;  // The file ends in the middle of a line.
    std::string error_;
};

}  // namespace qv::node
