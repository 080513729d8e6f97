#include "tools/call/process_usage.h"

#include <sys/resource.h>
#include <unistd.h>

#include <fstream>

namespace qv::tools::call {
namespace {

double seconds_of(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

std::uint64_t resident_bytes() {
    std::ifstream file("/proc/self/statm");
    std::uint64_t all_pages = 0;
    std::uint64_t resident_pages = 0;
    file >> all_pages >> resident_pages;
    return file ? resident_pages * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE)) : 0;
}

}  // namespace

ProcessUsage process_usage() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return {seconds_of(usage.ru_utime), seconds_of(usage.ru_stime), resident_bytes()};
}

}  // namespace qv::tools::call
