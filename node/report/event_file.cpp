#include "node/report/event_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <system_error>

namespace qv::node {

namespace {

bool ends_in_a_line(const std::string& path) {
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    // Empty files have no lines. Files that are not regular files cannot be read backwards.
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
    const int opened = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    struct stat status {};
    if (opened < 0 || fstat(opened, &status) != 0) {
        return std::generic_category().message(errno);
    }
    close();
    descriptor_ = opened;
    owned_ = true;
    path_ = path;
    device_ = status.st_dev;
    inode_ = status.st_ino;
    in_line_ = ends_in_a_line(path);
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
    error_ = reopen();
    if (!error_.empty()) {
        return false;
    }
    ++replaced_;
    return true;
}

std::size_t EventFile::write(const char* lines, std::size_t size) {
    if (size == 0 || !follow_path() || (in_line_ && put("\n", 1) == 0)) {
        return 0;
    }
    const std::size_t written = put(lines, size);
    in_line_ = written > 0 && lines[written - 1] != '\n';
    return written;
}

std::size_t EventFile::put(const char* data, std::size_t size) {
    std::size_t written = 0;
    while (written < size) {
        const ssize_t result = ::write(descriptor_, data + written, size - written);
        if (result < 0 && errno == EINTR) {
            continue;
        }
        if (result <= 0) {
            error_ = std::generic_category().message(errno);
            break;
        }
        written += static_cast<std::size_t>(result);
    }
    return written;
}

}  // namespace qv::node
