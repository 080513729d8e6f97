#include "node/analysis/large_pages.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <limits>
#include <new>
#include <string>

namespace qv::node::analysis {

namespace {

constexpr std::size_t PAGE = LargePages<char>::PAGE;

// Whether the program has asked the system for large pages at this address.
bool has_asked_for_large_pages(const void* memory) {
    const auto address = reinterpret_cast<std::uintptr_t>(memory);
    std::ifstream maps("/proc/self/smaps");
    bool here = false;
    for (std::string line; std::getline(maps, line);) {
        unsigned long long begin = 0;
        unsigned long long end = 0;
        if (std::sscanf(line.c_str(), "%llx-%llx ", &begin, &end) == 2) {
            here = begin <= address && address < end;
        } else if (here && line.rfind("VmFlags:", 0) == 0) {
            return line.find(" hg") != std::string::npos;
        }
    }
    return false;
}

bool system_has_large_pages() {
    return std::ifstream("/sys/kernel/mm/transparent_hugepage/enabled").good();
}

TEST(LargePagesTest, LargeArrayGetsWholeLargePages) {
    if (!system_has_large_pages()) {
        GTEST_SKIP() << "the system has no large pages";
    }
    const LargeVector<int> array(PAGE / sizeof(int) + 1);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(array.data()) % PAGE, 0u);
    EXPECT_TRUE(has_asked_for_large_pages(array.data()));
    EXPECT_TRUE(has_asked_for_large_pages(array.data() + array.size() - 1));
}

TEST(LargePagesTest, SmallArrayIsLeftAlone) {
    const LargeVector<int> array(1000);
    EXPECT_FALSE(has_asked_for_large_pages(array.data()));
}

TEST(LargePagesTest, ArrayGrowsFromSmallToLarge) {
    LargeVector<std::uint32_t> array;
    for (std::uint32_t i = 0; i < 1'000'000; ++i) {
        array.push_back(i);
    }
    EXPECT_EQ(array.front(), 0u);
    EXPECT_EQ(array.back(), 999'999u);
}

TEST(LargePagesTest, MoreThanThereCanBeIsRefused) {
    LargePages<std::uint64_t> pages;
    EXPECT_THROW(static_cast<void>(pages.allocate(std::numeric_limits<std::size_t>::max() / 8)),
                 std::bad_array_new_length);
}

}  // namespace

}  // namespace qv::node::analysis
