#include "node/web/file_folder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qv::node::web {

namespace {

bool is_plain_name(const std::string& name) {
    return !name.empty() && name[0] != '.' && name.find('/') == std::string::npos &&
           name.find('\0') == std::string::npos;
}

}  // namespace

OpenFile::~OpenFile() {
    ::close(descriptor_);
}

std::size_t OpenFile::read(char* into, std::size_t size, std::uint64_t offset) const {
    const ssize_t got = ::pread(descriptor_, into, size, static_cast<off_t>(offset));
    return got > 0 ? static_cast<std::size_t>(got) : 0;
}

FileFolder::FileFolder(const std::string& path)
    : descriptor_(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {}

FileFolder::~FileFolder() {
    if (descriptor_ >= 0) {
        ::close(descriptor_);
    }
}

// A pipe of that name must not make it wait.
std::shared_ptr<const OpenFile> FileFolder::open(const std::string& name) const {
    if (!is_plain_name(name)) {
        return nullptr;
    }
    const int descriptor =
        ::openat(descriptor_, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0) {
        return nullptr;
    }
    struct stat status {};
    if (::fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) {
        ::close(descriptor);
        return nullptr;
    }
    return std::make_shared<OpenFile>(descriptor, static_cast<std::uint64_t>(status.st_size));
}

std::int64_t FileFolder::size_of(const std::string& name) const {
    struct stat status {};
    const bool found = is_plain_name(name) &&
                       ::fstatat(descriptor_, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
                       S_ISREG(status.st_mode);
    return found ? status.st_size : -1;
}

}  // namespace qv::node::web
