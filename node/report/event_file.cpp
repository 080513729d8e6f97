#include "node/report/event_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <system_error>

namespace qv::node {

namespace {

bool ends_in_a_line(const std::string& path) {
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    // Empty files have no line; other kinds of files cannot be read backwards.
    return file && file.tellg() > 0 && file.seekg(-1, std::ios::end) && file.get() != '\n' && file;
}

}  // namespace

EventFile::~EventFile() {
    if (owned_) {
        ::close(descriptor_);
    }
}

std::string EventFile::open(const std::string& path) {
    if (path == "-") {
        descriptor_ = STDOUT_FILENO;
        return {};
    }
    descriptor_ = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (descriptor_ < 0) {
        return std::generic_category().message(errno);
    }
    owned_ = true;
    in_line_ = ends_in_a_line(path);
    return {};
}

std::size_t EventFile::write(const char* lines, std::size_t size) {
    if (size == 0 || (in_line_ && put("\n", 1) == 0)) {
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
