// Lets allocations fail: a program that links quorvane_failing_new has its own
// operator new of the kind that returns null, also for the modules it opens.
//
// Any thread.
#pragma once

#include <cstddef>

namespace qv::tests {

// While it lives, `new (std::nothrow)` finds no memory for objects of at least `size`
// bytes. One at a time.
class NoMemory {
  public:
    explicit NoMemory(std::size_t size = 0);
    NoMemory(const NoMemory&) = delete;
    NoMemory& operator=(const NoMemory&) = delete;
    ~NoMemory();
};

}  // namespace qv::tests
