#include "node/audio/new_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>

namespace qv::node {

namespace {

constexpr const char* HIDDEN_PREFIX = ".quorvane-node-new-";

bool has_name(int file) {
    struct stat status {};
    return ::fstat(file, &status) == 0 && status.st_nlink != 0;
}

void remove_if_abandoned(const std::string& path) {
    const Descriptor file(::open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (file.is_open() && ::flock(file.number(), LOCK_EX | LOCK_NB) == 0) {
        ::unlink(path.c_str());
    }
}

}  // namespace

NewFile::NewFile(const std::string& folder, const std::string& name)
    : path_(folder + '/' + name), hidden_path_(folder + '/' + HIDDEN_PREFIX + name) {
    while (create() && !has_name(descriptor_.number())) {
        // Another program took it for abandoned before it was locked.
        descriptor_.close();
    }
}

NewFile::~NewFile() {
    if (descriptor_.is_open() && !published_) {
        ::unlink(hidden_path_.c_str());
    }
}

bool NewFile::create() {
    descriptor_ =
        Descriptor(::open(hidden_path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0666));
    if (!descriptor_.is_open()) {
        return fail(errno);
    }
    // A file system without locks is used by one program only.
    if (::flock(descriptor_.number(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
        descriptor_.close();
        return fail(EEXIST);
    }
    return ::ftruncate(descriptor_.number(), 0) == 0 || fail(errno);
}

bool NewFile::write(const std::string& text) {
    std::size_t done = 0;
    while (error_.empty() && done < text.size()) {
        const ssize_t size = ::write(descriptor_.number(), text.data() + done, text.size() - done);
        if (size > 0) {
            done += static_cast<std::size_t>(size);
        } else if (errno != EINTR) {
            fail(errno);
        }
    }
    return error_.empty();
}

bool NewFile::force() {
    return error_.empty() && (::fsync(descriptor_.number()) == 0 || fail(errno));
}

bool NewFile::publish(bool replace) {
    if (!error_.empty()) {
        return false;
    }
    const int error = rename_file(hidden_path_, path_, replace);
    published_ = error == 0;
    return published_ || fail(error);
}

bool NewFile::fail(int error) {
    error_ = std::generic_category().message(error);
    return false;
}

int rename_file(const std::string& from, const std::string& to, bool replace) {
    const unsigned how = replace ? 0 : RENAME_NOREPLACE;
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), how) == 0) {
        return 0;
    }
    if (errno != EINVAL) {
        return errno;
    }
    // This file system does not support a rename that keeps an existing file.
    if (::access(to.c_str(), F_OK) == 0) {
        return EEXIST;
    }
    return ::rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
}

void remove_abandoned_files(const std::string& folder) {
    std::error_code error;
    const std::filesystem::directory_iterator end;
    for (std::filesystem::directory_iterator entry(folder, error); !error && entry != end;
         entry.increment(error)) {
        if (entry->path().filename().string().rfind(HIDDEN_PREFIX, 0) == 0) {
            remove_if_abandoned(entry->path());
        }
    }
}

}  // namespace qv::node
