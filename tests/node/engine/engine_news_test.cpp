#include "node/engine/engine_news.h"

#include <gtest/gtest.h>

#include <string>

namespace qv::node {

namespace {

class EngineNewsTest : public ::testing::Test {
  protected:
    std::string take() {
        std::string lines;
        for (const auto& [what, details] : news_.take()) {
            lines.append(what).append(": ").append(details).append("|");
        }
        return lines;
    }

    EngineNews news_;
};

TEST_F(EngineNewsTest, ComplaintIsReportedOncePerConnection) {
    news_.complain("a");
    news_.complain("a");
    news_.complain("b");
    EXPECT_EQ(take(), "nats trouble: a|nats trouble: b|");
    news_.complain("a");
    EXPECT_EQ(take(), "");
    news_.connected("nats://here");
    news_.complain("a");
    EXPECT_EQ(take(), "nats connected: nats://here|nats trouble: a|");
}

TEST_F(EngineNewsTest, ReasonIsReportedOnceUntilEventsAreTakenAgain) {
    news_.stored();
    news_.refused("no space");
    news_.refused("no stream");
    news_.refused("no space");
    EXPECT_EQ(take(),
              "events not taken: no space; they wait|events not taken: no stream; they wait|");
    news_.stored();
    news_.stored();
    EXPECT_EQ(take(), "events are taken again: |");
    news_.refused("no space");
    EXPECT_EQ(take(), "events not taken: no space; they wait|");
}

TEST_F(EngineNewsTest, ServerThatAlwaysSaysSomethingElseFillsNoLog) {
    for (int number = 0; number < 1000; ++number) {
        news_.refused(std::to_string(number));
    }
    EXPECT_EQ(news_.take().size(), EngineNews::MOST_REASONS);
    for (int number = 0; number < 1000; ++number) {
        news_.complain(std::to_string(number));
    }
    EXPECT_EQ(news_.take().size(), EngineNews::MOST);
    for (int number = 0; number < 1000; ++number) {
        news_.tell("x", "");
    }
    EXPECT_EQ(news_.take().size(), EngineNews::MOST);
}

TEST_F(EngineNewsTest, WhatServersSayIsSafeForATerminal) {
    news_.complain("\x1b[2J\n\xff");
    EXPECT_EQ(take(), "nats trouble: \\x1b[2J\\x0a\\xff|");
    news_.complain(std::string(10'000, 'a'));
    EXPECT_LT(take().size(), EngineNews::LONGEST_LINE + 50);
}

}  // namespace

}  // namespace qv::node
