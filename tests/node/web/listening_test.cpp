#include "node/web/listening.h"

#include <gtest/gtest.h>

namespace qv::node::web {

namespace {

class ListeningTest : public testing::Test {
  protected:
    // Hands samples over to all who listen to that side, as the thread of the call does.
    void push(Side side, const std::vector<std::int16_t>& samples, AudioTap::Head head) {
        CallRecord::Taps taps;
        ASSERT_TRUE(record_->try_take_taps(taps));
        for (const auto& tap : taps[index_of(side)]) {
            tap->push(samples.data(), samples.size(), head);
        }
    }
    std::size_t taps() {
        CallRecord::Taps taps;
        EXPECT_TRUE(record_->try_take_taps(taps));
        return taps[0].size() + taps[1].size();
    }

    CallRecord::Wishes wishes_{0};
    std::shared_ptr<CallRecord> record_ =
        std::make_shared<CallRecord>(1, Uuid{}, Micros{0}, Micros{0}, wishes_);
};

TEST_F(ListeningTest, AFrameHasTheDocumentedLayout) {
    Listening listening(record_, {Side::TERMINATOR});
    push(Side::TERMINATOR, {1, -2}, {0x0102030405060708, 16000, Micros{1'000'000}, true});
    const std::vector<std::string> frames = listening.take_frames(Micros{1'000'258});
    ASSERT_EQ(frames.size(), 1u);
    const unsigned char expected[] = {
        0x01,                                            // version
        0x01,                                            // terminator
        0x01, 0x00,                                      // after loss
        0x80, 0x3e, 0x00, 0x00,                          // 16000 Hz
        0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01,  // position
        0x02, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,  // age: 258 us
        0x01, 0x00, 0xfe, 0xff};
    EXPECT_EQ(frames[0], std::string(reinterpret_cast<const char*>(expected), sizeof expected));
    EXPECT_EQ(listening.delay(), Micros{258});
}

TEST_F(ListeningTest, OnlyTheSidesThatWereAskedForAreHeard) {
    Listening listening(record_, {Side::ORIGINATOR});
    push(Side::TERMINATOR, {1}, {0, 8000, Micros{0}, false});
    EXPECT_TRUE(listening.take_frames(Micros{0}).empty());
    push(Side::ORIGINATOR, {1}, {0, 8000, Micros{0}, false});
    EXPECT_EQ(listening.take_frames(Micros{0}).size(), 1u);
    EXPECT_TRUE(listening.take_frames(Micros{0}).empty());
}

TEST_F(ListeningTest, PartsThatFollowEachOtherShareAFrame) {
    Listening listening(record_, {Side::ORIGINATOR});
    push(Side::ORIGINATOR, {1, 2}, {100, 8000, Micros{10}, false});
    push(Side::ORIGINATOR, {3}, {102, 8000, Micros{20}, false});
    const std::vector<std::string> frames = listening.take_frames(Micros{50});
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0].size(), 24u + 3 * 2);
    EXPECT_EQ(frames[0].substr(24), std::string("\1\0\2\0\3\0", 6));
    EXPECT_EQ(listening.delay(), Micros{30});  // Of the newest one.
}

TEST_F(ListeningTest, AFrameEndsWhereTheAudioDoesNotGoOn) {
    Listening listening(record_, {Side::ORIGINATOR});
    push(Side::ORIGINATOR, {1, 2}, {100, 8000, Micros{0}, false});
    push(Side::ORIGINATOR, {3}, {200, 8000, Micros{0}, false});   // another place
    push(Side::ORIGINATOR, {4}, {201, 16000, Micros{0}, false});  // another rate
    push(Side::ORIGINATOR, {5}, {202, 16000, Micros{0}, true});   // after a loss
    EXPECT_EQ(listening.take_frames(Micros{0}).size(), 4u);
}

TEST_F(ListeningTest, AFrameHasAtMost4096Samples) {
    Listening listening(record_, {Side::ORIGINATOR});
    push(Side::ORIGINATOR, std::vector<std::int16_t>(5000), {0, 8000, Micros{0}, false});
    const std::vector<std::string> frames = listening.take_frames(Micros{0});
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_LE(frames[0].size(), 24u + 4096 * 2);
    EXPECT_EQ(frames[0].size() + frames[1].size(), 2 * 24u + 5000 * 2);
}

TEST_F(ListeningTest, TheCallIsNoLongerTappedAfterTheEnd) {
    {
        const Listening listening(record_, {Side::ORIGINATOR, Side::TERMINATOR});
        EXPECT_EQ(taps(), 2u);
    }
    EXPECT_EQ(taps(), 0u);
}

}  // namespace

}  // namespace qv::node::web
