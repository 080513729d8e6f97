#include "node/report/envelope.h"

#include <gtest/gtest.h>

namespace qv::node {

namespace {

using Samples = std::vector<std::int16_t>;

void add(Envelope& envelope, const Samples& samples) {
    envelope.add(samples.data(), samples.size());
}

TEST(EnvelopeTest, KeepsLowestAndHighestAndPower) {
    Envelope envelope(4);
    add(envelope, {1, -5, 7, 0});
    ASSERT_EQ(envelope.spans().size(), 1u);
    EXPECT_EQ(envelope.spans()[0].lowest, -5);
    EXPECT_EQ(envelope.spans()[0].highest, 7);
    EXPECT_EQ(envelope.spans()[0].squares, 75.0F);
}

TEST(EnvelopeTest, NothingHasNoSpan) {
    Envelope envelope(4);
    add(envelope, {});
    envelope.add_silence(0);
    EXPECT_TRUE(envelope.spans().empty());
    EXPECT_EQ(envelope.samples(), 0u);
}

TEST(EnvelopeTest, ASpanGoesOnInTheNextPiece) {
    Envelope envelope(4);
    add(envelope, Samples(10, 3));
    add(envelope, Samples(10, -4));
    ASSERT_EQ(envelope.spans().size(), 2u);
    EXPECT_EQ(envelope.spans()[0].lowest, -4);
    EXPECT_EQ(envelope.spans()[0].highest, 3);
    EXPECT_EQ(envelope.spans()[1].lowest, -4);
    EXPECT_EQ(envelope.spans()[1].highest, 0);
}

TEST(EnvelopeTest, NeighboursAreJoinedWhenAllSpansAreFull) {
    Envelope envelope(2);
    add(envelope, Samples(16, 1));
    add(envelope, Samples(16, -2));
    EXPECT_EQ(envelope.samples_per_span(), 16u);
    add(envelope, {5});
    EXPECT_EQ(envelope.samples_per_span(), 32u);
    ASSERT_EQ(envelope.spans().size(), 2u);
    EXPECT_EQ(envelope.spans()[0].lowest, -2);
    EXPECT_EQ(envelope.spans()[0].highest, 1);
    EXPECT_EQ(envelope.spans()[0].squares, 80.0F);
    EXPECT_EQ(envelope.spans()[1].highest, 5);
}

TEST(EnvelopeTest, SilenceTakesItsPlaceBetweenAudio) {
    Envelope envelope(4);
    add(envelope, {9});
    envelope.add_silence(31);
    add(envelope, {-9});
    ASSERT_EQ(envelope.spans().size(), 3u);
    EXPECT_EQ(envelope.spans()[1].highest, 0);
    EXPECT_EQ(envelope.spans()[1].lowest, 0);
    EXPECT_EQ(envelope.spans()[2].lowest, -9);
}

TEST(EnvelopeTest, LoudestSampleDoesNotOverflow) {
    Envelope envelope(4);
    add(envelope, Samples(16, -32768));
    EXPECT_EQ(envelope.spans()[0].lowest, -32768);
    EXPECT_EQ(envelope.spans()[0].squares, 17179869184.0F);
}

TEST(EnvelopeTest, StaysSmallHoweverLongItGets) {
    Envelope envelope(8);
    add(envelope, {9});
    envelope.add_silence(999'999);
    EXPECT_LE(envelope.spans().size(), 8u);
    EXPECT_EQ(envelope.samples(), 1'000'000u);
    EXPECT_EQ(envelope.spans()[0].highest, 9);
    EXPECT_GE(envelope.spans().size() * envelope.samples_per_span(), envelope.samples());
}

TEST(EnvelopeTest, ALongSilenceIsCheap) {
    Envelope envelope(8);
    envelope.add_silence(std::uint64_t{1} << 50);
    EXPECT_EQ(envelope.samples(), std::uint64_t{1} << 50);
}

}  // namespace

}  // namespace qv::node
