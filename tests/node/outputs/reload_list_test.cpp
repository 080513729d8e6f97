#include "node/outputs/reload_list.h"

#include <gtest/gtest.h>

namespace qv::node {

namespace {

// A list with one entry, whose reading goes on until the test ends it.
class ReloadListTest : public testing::Test {
  protected:
    ReloadListTest() {
        list_.add(
            "samples", [this] { ++begun_; },
            [this] { return std::exchange(result_, std::nullopt); });
    }
    bool update() {
        return list_.update([this](const std::string& what, const std::string& error) {
            said_ += what + ": " + error + '\n';
        });
    }

    ReloadList list_;
    int begun_ = 0;
    std::optional<std::string> result_;
    std::string said_;
};

TEST_F(ReloadListTest, NothingIsReadUnlessItIsRequested) {
    EXPECT_FALSE(update());
    EXPECT_EQ(begun_, 0);
}

TEST_F(ReloadListTest, EndIsReportedOnceItIsThere) {
    list_.request();
    EXPECT_FALSE(update());
    EXPECT_FALSE(update());
    result_ = "cannot be read";
    EXPECT_TRUE(update());
    EXPECT_FALSE(update());
    EXPECT_EQ(said_, "samples: cannot be read\n");
    EXPECT_EQ(begun_, 1);
}

TEST_F(ReloadListTest, RequestWhileAReadingGoesOnIsNotLost) {
    list_.request();
    update();
    list_.request();
    list_.request();
    update();
    EXPECT_EQ(begun_, 1);
    result_ = "";
    EXPECT_FALSE(update());
    EXPECT_EQ(begun_, 2);
    result_ = "";
    EXPECT_TRUE(update());
    EXPECT_EQ(begun_, 2);
}

TEST_F(ReloadListTest, RequestWithNothingToReadIsDoneAtOnce) {
    ReloadList empty;
    empty.request();
    EXPECT_TRUE(empty.update([](const std::string&, const std::string&) {}));
}

}  // namespace

}  // namespace qv::node
