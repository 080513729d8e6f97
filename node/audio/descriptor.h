// An open file descriptor with an owner, so that none is left open when something throws. Belongs
// to one thread at a time.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <utility>

namespace qv::node {

class Descriptor {
  public:
    Descriptor() = default;
    // Takes what open() has returned. A negative number stands for none.
    explicit Descriptor(int number) : number_(number) {}
    ~Descriptor() { close(); }
    Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        close();
        number_ = std::exchange(other.number_, -1);
        return *this;
    }

    bool is_open() const { return number_ >= 0; }
    // Negative if none is open.
    int number() const { return number_; }
    // The caller owns it from now on.
    int release() { return std::exchange(number_, -1); }
    void close() {
        if (is_open()) {
            ::close(std::exchange(number_, -1));
        }
    }

  private:
    int number_ = -1;
};

// Opens a regular file with these flags of open(). If there is a link, a FIFO or something else, as
// somebody may have put there, it opens none and sets errno. It does not block.
inline Descriptor open_regular_file(const std::string& path, int how) {
    constexpr mode_t for_all = 0666;
    Descriptor file(::open(path.c_str(), how | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, for_all));
    struct stat status {};
    if (file.is_open() && (::fstat(file.number(), &status) != 0 || !S_ISREG(status.st_mode))) {
        file.close();
        errno = S_ISDIR(status.st_mode) ? EISDIR : ESPIPE;
    }
    return file;
}

}  // namespace qv::node
