#include "node/web/call_pool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

#include "quorvane_lib/sanitizer.h"

namespace qv::node::web {

namespace {

constexpr std::size_t SIZE = 1000;

TEST(CallPool, ObjectsLieBesideEachOtherWhateverElseIsAllocated) {
    if (ADDRESS_SANITIZER) {
        GTEST_SKIP() << "the address sanitizer sees each object";
    }
    std::vector<std::unique_ptr<char[]>> others;
    std::vector<std::uintptr_t> places;
    for (int i = 0; i < 1000; ++i) {
        others.push_back(std::make_unique<char[]>(20'000));
        places.push_back(reinterpret_cast<std::uintptr_t>(CallPool::instance().allocate(SIZE, 64)));
    }
    std::sort(places.begin(), places.end());
    int apart = 0;
    for (std::size_t i = 1; i < places.size(); ++i) {
        apart += places[i] - places[i - 1] > 2 * SIZE ? 1 : 0;
    }
    EXPECT_LT(apart, 20);
    for (const std::uintptr_t place : places) {
        CallPool::instance().deallocate(reinterpret_cast<void*>(place), SIZE, 64);
    }
}

TEST(CallPool, WhatIsGivenBackIsUsedAgain) {
    if (ADDRESS_SANITIZER) {
        GTEST_SKIP() << "the address sanitizer sees each object";
    }
    void* const first = CallPool::instance().allocate(SIZE, 64);
    CallPool::instance().deallocate(first, SIZE, 64);
    void* const second = CallPool::instance().allocate(SIZE, 64);
    EXPECT_EQ(second, first);
    CallPool::instance().deallocate(second, SIZE, 64);
}

TEST(CallPool, ObjectsAreAlignedAsAsked) {
    void* const object = CallPool::instance().allocate(100, 64);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(object) % 64, 0U);
    CallPool::instance().deallocate(object, 100, 64);
}

}  // namespace

}  // namespace qv::node::web
