// Watches the allocations of the module under test and lets one of them fail.
//
// quorvane_module_allocations replaces operator new in the program that links it. An allocation
// counts as the module's if the innermost caller outside the C++ library is in the object that
// `watch_object` names. Allocations that the host makes while it serves the module do not count.
// Not for sanitizer builds.
#pragma once

#include <cstddef>

namespace qv::tests {

// Watches the object that contains the code or data at `address`.
void watch_object(const void* address);

// From now on allocation number `index` of the module fails, counted from 0 and over all
// threads; the others succeed.
void fail_allocation(std::size_t index);

// Stops the failing. Returns how many allocations the module has made since `fail_allocation`.
std::size_t stop_failing();

// How many of the allocations that the module made between the two calls above are not freed
// yet.
std::size_t allocations_kept();

}  // namespace qv::tests
