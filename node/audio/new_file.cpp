#include "node/audio/new_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <system_error>

namespace qv::node {

namespace {

constexpr const char* HIDDEN_PREFIX = ".quorvane-node-new-";

// How many names a file may try.
constexpr unsigned MOST_NUMBERS = 1000;

// Whether a file cannot get its name because something else has it, such as a link or a FIFO.
bool is_taken(int error) {
    return error == EEXIST || error == EISDIR || error == ELOOP || error == ESPIPE;
}

// "a.wav" becomes "a-2.wav".
std::string numbered(const std::string& name, unsigned number) {
    const std::size_t end = std::min(name.rfind('.'), name.size());
    return name.substr(0, end) + '-' + std::to_string(number) + name.substr(end);
}

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
    : folder_(folder), name_(name), path_(folder + '/' + name) {
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
    // The number of the process does not tell programs apart that share the folder from different
    // containers.
    static std::atomic<std::uint64_t> latest_number{0};
    const std::string begin = folder_ + '/' + HIDDEN_PREFIX + std::to_string(::getpid()) + '-';
    do {
        hidden_path_ = begin + std::to_string(++latest_number);
        descriptor_ =
            Descriptor(::open(hidden_path_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    } while (!descriptor_.is_open() && errno == EEXIST);
    if (!descriptor_.is_open()) {
        return fail(errno);
    }
    // A file system without locks is used by one program only.
    ::flock(descriptor_.number(), LOCK_EX | LOCK_NB);
    return true;
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
    const int error = under_free_name(name_, [&](const std::string& name) {
        path_ = folder_ + '/' + name;
        return rename_file(hidden_path_, path_, replace);
    });
    published_ = error == 0;
    return published_ || fail(error);
}

int NewFile::force_name() const {
    const Descriptor folder(::open(folder_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const bool forced = folder.is_open() && ::fsync(folder.number()) == 0;
    // Not every file system can do it, and not every folder may be read.
    return forced || errno == EINVAL || errno == EACCES ? 0 : errno;
}

bool NewFile::fail(int error) {
    error_ = std::generic_category().message(error);
    return false;
}

int under_free_name(const std::string& name, const std::function<int(const std::string&)>& make) {
    int error = make(name);
    for (unsigned number = 2; is_taken(error) && number <= MOST_NUMBERS; ++number) {
        error = make(numbered(name, number));
    }
    return error;
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
