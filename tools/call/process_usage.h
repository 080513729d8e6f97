// The processor time and the memory that this process uses.
//
// No state; any thread may call it.
#pragma once

#include <cstdint>
#include <string>

namespace qv::tools::call {

struct ProcessUsage {
    double user_cpu_s = 0;
    double system_cpu_s = 0;
    std::uint64_t resident_bytes = 0;  // now; 0 where the system does not report it
};

ProcessUsage process_usage();

}  // namespace qv::tools::call
