// Lets one allocation of the module fail.
//
// A program that links it has its own operator new. Only allocations whose code is in the module
// itself count, not those that the C++ library makes for it. One thread at a time.
#pragma once

namespace qv::fuzz {

// From now on, allocation `number` of the object that contains `code` fails, counted from 0.
void fail_allocation(unsigned number, const void* code);

// Ends this. True if an allocation has failed.
bool stop_failing();

}  // namespace qv::fuzz
