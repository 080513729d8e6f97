// The destination of events or other text: a file that it is appended to, or an open descriptor.
//
// A file may end in the middle of a line, because the disk was full. New lines then begin on a new
// line. If the file is moved or removed, for example by log rotation, new lines go to a new file at
// its path. The file may be a named pipe, which needs no reader when it is opened: writing fails
// while it has none, and while its reader does not read. Belongs to one thread.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace qv::node {

class EventFile {
  public:
    EventFile() = default;
    // Writes to an open descriptor, which it does not close, and does not care for lines.
    explicit EventFile(int descriptor) : descriptor_(descriptor), lines_(false) {}
    ~EventFile();
    EventFile(const EventFile&) = delete;
    EventFile& operator=(const EventFile&) = delete;

    // Opens the file, or the standard output for "-". Returns why it cannot be used, or an empty
    // text.
    std::string open(const std::string& path);

    // Opens the path again. Returns why this failed, or an empty text; after a failure the file
    // that was open stays in use. Does nothing for the standard output.
    std::string reopen();

    // Writes text. Returns how many bytes are done with, up to the end of a line; fewer than `size`
    // after a failure.
    std::size_t write(const char* text, std::size_t size);
    // Whether a line was written in part to a reader who is slow. The next write, also of nothing,
    // begins with the rest of it.
    bool in_midst() const { return !rest_.empty(); }

    // Why the latest write failed.
    const std::string& error() const { return error_; }
    // How often a write found the file moved or removed, and created a new one.
    std::uint64_t replaced() const { return replaced_; }

  private:
    bool is_at_path() const;
    bool follow_path();
    void close();
    bool put_rest();
    void fail(int error);
    std::size_t put(const char* data, std::size_t size);

    std::string path_;
    int descriptor_ = -1;
    bool lines_ = true;   // Lines are written whole.
    bool owned_ = false;  // False for the standard output.
    dev_t device_ = 0;    // Together with the next, identifies the open file.
    ino_t inode_ = 0;
    std::uint64_t replaced_ = 0;
    bool in_line_ = false;  // The file ends in the middle of a line.
    std::string rest_;      // Of a line that its reader has in part.
    bool no_reader_ = false;
    bool reader_is_slow_ = false;
    std::string error_;
};

}  // namespace qv::node
