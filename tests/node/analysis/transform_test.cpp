#include "node/analysis/transform.h"

#include <gtest/gtest.h>

#include <cmath>
#include <stdexcept>
#include <vector>

#include "tests/node/analysis/sounds.h"

namespace qv::node::analysis {

namespace {

std::vector<float> power_of(const std::vector<float>& samples) {
    std::vector<float> power(samples.size() / 2 + 1);
    Transform::of_size(samples.size()).power(samples.data(), power.data());
    return power;
}

TEST(TransformTest, SineIsInItsBinAlone) {
    std::vector<float> samples(256);
    for (std::size_t i = 0; i < samples.size(); ++i) {
        samples[i] =
            static_cast<float>(0.5 * std::sin(2 * tests::PI * 10 * static_cast<double>(i) / 256));
    }
    const std::vector<float> power = power_of(samples);
    EXPECT_NEAR(power[10], 64.0 * 64.0, 0.5);  // (A * S / 2)^2
    EXPECT_NEAR(power[9], 0, 0.001);
    EXPECT_NEAR(power[11], 0, 0.001);
}

TEST(TransformTest, ConstantIsInTheFirstBinAndAlternationInTheLast) {
    const std::vector<float> constant = power_of({1, 1, 1, 1});
    EXPECT_FLOAT_EQ(constant[0], 16);
    EXPECT_NEAR(constant[2], 0, 1e-9);
    const std::vector<float> alternating = power_of({1, -1, 1, -1});
    EXPECT_NEAR(alternating[0], 0, 1e-9);
    EXPECT_FLOAT_EQ(alternating[2], 16);
}

TEST(TransformTest, SizeIsPlannedOnce) {
    EXPECT_EQ(&Transform::of_size(512), &Transform::of_size(512));
    EXPECT_NE(&Transform::of_size(512), &Transform::of_size(1024));
}

TEST(TransformTest, OtherSizesAreRefused) {
    for (const std::size_t size : {std::size_t{0}, std::size_t{3}, Transform::LONGEST + 2}) {
        EXPECT_THROW(Transform::of_size(size), std::invalid_argument) << size;
    }
}

}  // namespace

}  // namespace qv::node::analysis
