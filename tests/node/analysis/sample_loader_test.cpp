#include "node/analysis/sample_loader.h"

#include <gtest/gtest.h>

#include <chrono>
#include <stdexcept>
#include <thread>

#include "tests/support/failing_allocation.h"

namespace qv::node::analysis {

namespace {

using namespace std::chrono_literals;

SampleLoader::Result result_of(SampleLoader& loader) {
    const auto end = std::chrono::steady_clock::now() + 30s;
    while (std::chrono::steady_clock::now() < end) {
        if (auto result = loader.take()) {
            return std::move(*result);
        }
        std::this_thread::sleep_for(1ms);
    }
    return {{}, "it never ended"};
}

SampleFolder empty_folder() {
    return {SampleIndexBuilder().build(), {}};
}

TEST(SampleLoaderTest, ResultComesOnce) {
    SampleLoader loader(empty_folder);
    EXPECT_FALSE(loader.take().has_value());
    loader.begin();
    const SampleLoader::Result result = result_of(loader);
    EXPECT_NE(result.folder.index, nullptr);
    EXPECT_EQ(result.error, "");
    EXPECT_FALSE(loader.take().has_value());
}

TEST(SampleLoaderTest, FailureIsTheResult) {
    SampleLoader loader([]() -> SampleFolder { throw std::runtime_error("no such folder"); });
    loader.begin();
    EXPECT_EQ(result_of(loader).error, "no such folder");
}

TEST(SampleLoaderTest, LackOfMemoryIsAResultToo) {
    SampleLoader loader(empty_folder);
    const int failures = tests::with_each_allocation_failing(
        [&loader] { EXPECT_NO_THROW(loader.begin()); },
        [&loader](bool failed) {
            EXPECT_EQ(result_of(loader).error, failed ? "std::bad_alloc" : "");
        });
    EXPECT_GT(failures, 1);
}

}  // namespace

}  // namespace qv::node::analysis
