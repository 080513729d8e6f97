#include "tools/call/process_usage.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <vector>

namespace qv::tools::call {
namespace {

TEST(ProcessUsageTest, MemoryThatIsWrittenIsResident) {
    constexpr std::size_t BYTES = std::size_t{64} << 20;
    const std::uint64_t before = process_usage().resident_bytes;
    const std::vector<char> written(BYTES, 1);
    EXPECT_GE(process_usage().resident_bytes, before + BYTES / 2) << written[BYTES - 1];
}

TEST(ProcessUsageTest, WorkTakesProcessorTime) {
    const double before = process_usage().user_cpu_s;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (process_usage().user_cpu_s - before < 0.02 && std::chrono::steady_clock::now() < end) {
    }
    EXPECT_GE(process_usage().user_cpu_s - before, 0.02);
}

}  // namespace
}  // namespace qv::tools::call
