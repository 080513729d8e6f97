#include "node/web/call_record.h"

#include <gtest/gtest.h>

namespace qv::node::web {

namespace {

class CallRecordTest : public testing::Test {
  protected:
    // Hands over this many marks, whose times go on from those before.
    void publish_marks(std::size_t count) {
        std::vector<Mark> marks(count);
        for (Mark& mark : marks) {
            mark.begin = next_begin_++;
        }
        ASSERT_TRUE(record_.try_publish({}, nullptr, marks));
        EXPECT_TRUE(marks.empty());
    }

    CallRecord::Wishes wishes_{0};
    CallRecord record_{1, Uuid{}, Micros{0}, Micros{0}, wishes_};
    double next_begin_ = 0;
};

TEST_F(CallRecordTest, ItHasEmptyFactsAtFirst) {
    const CallRecord::Reading reading = record_.read();
    ASSERT_NE(reading.facts, nullptr);
    EXPECT_EQ(reading.facts_version, 0u);
    EXPECT_EQ(record_.version(), 0u);
}

TEST_F(CallRecordTest, FactsStayUntilOthersAreHandedOver) {
    const auto facts = std::make_shared<const CallFacts>();
    std::vector<Mark> marks;
    CallFigures figures;
    figures.foreign_packets = 1;
    ASSERT_TRUE(record_.try_publish(figures, facts, marks));
    figures.foreign_packets = 2;
    ASSERT_TRUE(record_.try_publish(figures, nullptr, marks));
    const CallRecord::Reading reading = record_.read();
    EXPECT_EQ(reading.facts, facts);
    EXPECT_EQ(reading.facts_version, 1u);
    EXPECT_EQ(reading.figures.foreign_packets, 2u);
    EXPECT_EQ(record_.version(), 2u);
}

TEST_F(CallRecordTest, MarksAreReadFromANumberOn) {
    publish_marks(2);
    publish_marks(1);
    const auto [all, end] = record_.marks(0);
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(all[2].begin, 2);
    EXPECT_EQ(end, 3u);
    const auto [rest, same_end] = record_.marks(2);
    ASSERT_EQ(rest.size(), 1u);
    EXPECT_EQ(rest[0].begin, 2);
    EXPECT_EQ(same_end, 3u);
    EXPECT_TRUE(record_.marks(3).first.empty());
    EXPECT_TRUE(record_.marks(99).first.empty());
}

TEST_F(CallRecordTest, TheOldestMarksAreForgotten) {
    publish_marks(CallRecord::MOST_MARKS);
    publish_marks(2);
    const auto [marks, end] = record_.marks(0);
    ASSERT_EQ(marks.size(), CallRecord::MOST_MARKS);
    EXPECT_EQ(marks.front().begin, 2);
    EXPECT_EQ(end, CallRecord::MOST_MARKS + 2);
    EXPECT_EQ(record_.marks(end - 1).first.size(), 1u);
}

TEST_F(CallRecordTest, ATapIsThereFromAddToRemove) {
    const auto tap = std::make_shared<AudioTap>();
    const auto other = std::make_shared<AudioTap>();
    record_.add_tap(Side::TERMINATOR, tap);
    record_.add_tap(Side::TERMINATOR, other);
    CallRecord::Taps taps;
    ASSERT_TRUE(record_.try_take_taps(taps));
    EXPECT_TRUE(taps[0].empty());
    EXPECT_EQ(taps[1], (std::vector<std::shared_ptr<AudioTap>>{tap, other}));
    record_.remove_tap(tap);
    ASSERT_TRUE(record_.try_take_taps(taps));
    EXPECT_EQ(taps[1], (std::vector<std::shared_ptr<AudioTap>>{other}));
}

TEST_F(CallRecordTest, EveryChangeOfWhatIsWantedIsCounted) {
    const auto tap = std::make_shared<AudioTap>();
    record_.add_tap(Side::ORIGINATOR, tap);
    EXPECT_EQ(wishes_, 1u);
    record_.remove_tap(tap);
    EXPECT_EQ(wishes_, 2u);
    record_.watch();
    EXPECT_EQ(wishes_, 3u);
    EXPECT_TRUE(record_.watched());
    record_.unwatch();
    EXPECT_EQ(wishes_, 4u);
    EXPECT_FALSE(record_.watched());
}

TEST_F(CallRecordTest, ItIsWatchedUntilTheLastWatcherLeaves) {
    record_.watch();
    record_.watch();
    record_.unwatch();
    EXPECT_TRUE(record_.watched());
    record_.unwatch();
    EXPECT_FALSE(record_.watched());
}

}  // namespace

}  // namespace qv::node::web
