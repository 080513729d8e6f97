// Lets allocations fail: quorvane_failing_new replaces the operator new that returns null, for
// the program that links it and for the modules that this opens.
//
// Any thread.
#pragma once

#include <cstddef>

namespace qv::tests {

// While it exists, `new (std::nothrow)` fails for objects of at least `size` bytes. One at a
// time.
class NoMemory {
  public:
    explicit NoMemory(std::size_t size = 0);
    NoMemory(const NoMemory&) = delete;
    NoMemory& operator=(const NoMemory&) = delete;
    ~NoMemory();
};

}  // namespace qv::tests
