// An open file descriptor with an owner, so that none is left open when something throws. Belongs
// to one thread at a time.
#pragma once

#include <unistd.h>

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
    void close() {
        if (is_open()) {
            ::close(std::exchange(number_, -1));
        }
    }

  private:
    int number_ = -1;
};

}  // namespace qv::node
