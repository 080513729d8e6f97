// Watches what the module under test allocates, and lets one of its allocations fail.
//
// A program that links quorvane_module_allocations has its own operator new. An allocation
// counts as the module's when the innermost caller outside the C++ library lies in the
// object of which the address given to `watch_object` is a part: the host's own ones, made
// while it serves the module, are left alone. Not for sanitizer builds.
#pragma once

#include <cstddef>

namespace qv::tests {

// Watches the object that holds the code or data at `address`.
void watch_object(const void* address);

// From now on allocation number `index` of the module fails, counted from 0 and over all
// threads; the others succeed.
void fail_allocation(std::size_t index);

// No allocation fails any more. Returns how many the module has made since
// `fail_allocation`.
std::size_t stop_failing();

// How many of the allocations that the module made between the two calls above have not
// been given back yet.
std::size_t allocations_kept();

}  // namespace qv::tests
