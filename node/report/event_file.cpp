#include "node/report/event_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <string_view>
#include <system_error>
#include <utility>

namespace qv::node {

namespace {

constexpr const char* NO_READER = "no program reads it";

bool ends_in_a_line(const std::string& path) {
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    // Empty files have no lines.
    return file && file.tellg() > 0 && file.seekg(-1, std::ios::end) && file.get() != '\n' && file;
}

}  // namespace

EventFile::~EventFile() {
    close();
}

std::string EventFile::open(const std::string& path) {
    if (path == "-") {
        descriptor_ = STDOUT_FILENO;
        return {};
    }
    // A named pipe without a reader must not be waited for.
    const int opened =
        ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0666);
    struct stat status {};
    if (opened < 0) {
        const int error = errno;
        no_reader_ = error == ENXIO && stat(path.c_str(), &status) == 0 && S_ISFIFO(status.st_mode);
        if (!no_reader_) {
            return std::generic_category().message(error);
        }
    } else {
        fstat(opened, &status);
    }
    // The reader of the same pipe still gets the rest of its line.
    const bool same = descriptor_ >= 0 && opened >= 0 && S_ISFIFO(status.st_mode) &&
                      status.st_dev == device_ && status.st_ino == inode_;
    std::string rest = same ? std::move(rest_) : std::string();
    close();
    rest_ = std::move(rest);
    descriptor_ = opened;
    owned_ = true;
    path_ = path;
    device_ = status.st_dev;
    inode_ = status.st_ino;
    in_line_ = S_ISREG(status.st_mode) && ends_in_a_line(path);
    return {};
}

std::string EventFile::reopen() {
    return owned_ ? open(path_) : std::string();
}

void EventFile::close() {
    if (owned_ && descriptor_ >= 0) {
        ::close(descriptor_);
        descriptor_ = -1;
    }
    rest_.clear();
}

bool EventFile::is_at_path() const {
    struct stat status {};
    return descriptor_ >= 0 && stat(path_.c_str(), &status) == 0 && status.st_dev == device_ &&
           status.st_ino == inode_;
}

// If the file was moved or removed, nobody would find further events in it. They are then written
// to a new file at the path, or not at all.
bool EventFile::follow_path() {
    if (!owned_ || is_at_path()) {
        return true;
    }
    close();
    const bool had_no_reader = std::exchange(no_reader_, false);
    error_ = reopen();
    if (!error_.empty()) {
        return false;
    }
    if (no_reader_) {
        error_ = NO_READER;
        return false;
    }
    replaced_ += had_no_reader ? 0 : 1;
    return true;
}

std::size_t EventFile::write(const char* text, std::size_t size) {
    if (!lines_) {
        return put(text, size);
    }
    if (size == 0 && rest_.empty()) {
        return 0;
    }
    if (!follow_path() || !put_rest() || size == 0 || (in_line_ && put("\n", 1) == 0)) {
        return 0;
    }
    const std::size_t written = put(text, size);
    in_line_ = false;
    if (written == size) {
        in_line_ = text[size - 1] != '\n';
        return size;
    }
    const std::string_view whole(text, size);
    const std::size_t last = written > 0 ? whole.rfind('\n', written - 1) : std::string_view::npos;
    const std::size_t begin = last == std::string_view::npos ? 0 : last + 1;
    if (written == begin) {
        return begin;
    }
    if (!reader_is_slow_) {
        in_line_ = true;
        return begin;
    }
    const std::size_t end = std::min(whole.find('\n', written), size - 1) + 1;
    rest_ = whole.substr(written, end - written);
    return end;
}

// Writes the rest of a line that an earlier write cut. Returns whether it is complete now.
bool EventFile::put_rest() {
    const std::size_t wanted = rest_.size();
    const std::size_t written = put(rest_.data(), wanted);
    rest_.erase(0, written);  // Nothing is left of it if the reader has gone.
    return written == wanted;
}

std::size_t EventFile::put(const char* data, std::size_t size) {
    std::size_t written = 0;
    reader_is_slow_ = false;
    while (written < size) {
        const ssize_t result = ::write(descriptor_, data + written, size - written);
        if (result < 0 && errno == EINTR) {
            continue;
        }
        if (result <= 0) {
            fail(errno);
            break;
        }
        written += static_cast<std::size_t>(result);
    }
    return written;
}

void EventFile::fail(int error) {
    reader_is_slow_ = error == EAGAIN;
    no_reader_ = error == EPIPE && owned_;
    if (no_reader_) {
        close();  // A new reader gets whole lines.
    }
    error_ = reader_is_slow_ ? "its reader does not read"
             : no_reader_    ? NO_READER
                             : std::generic_category().message(error);
}

}  // namespace qv::node
