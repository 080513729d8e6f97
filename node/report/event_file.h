// Where events are written: a file that they are appended to, or the standard output.
//
// A file may end in the midst of a line, because the disk was full: what follows begins on
// a line of its own. Belongs to one thread.
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

    // Opens the file, "-" for the standard output; returns why it cannot be used, or
    // nothing.
    std::string open(const std::string& path);

    // Writes lines and returns how many bytes of them were written: fewer than `size`, down
    // to none, when that fails.
    std::size_t write(const char* lines, std::size_t size);

    // Why the latest write failed.
    const std::string& error() const { return error_; }

  private:
    std::size_t put(const char* data, std::size_t size);

    int descriptor_ = -1;
    bool owned_ = false;
    bool in_line_ = false;  // The end of the file is in the midst of a line.
    std::string error_;
};

}  // namespace qv::node
