#include "node/outputs/engine_output.h"

#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "tests/node/report/outline.h"

namespace qv::node {

namespace {

using tests::Lines;

// What the publisher of a test has and gets. It outlives the publisher.
struct Traffic {
    std::vector<EngineEvent> events;
    Publisher::News news;
    Publisher::Left left;
    EngineFigures figures;
    int waits = 0;
    int waits_needed = 1;
    bool finished = false;
};

class FakePublisher : public Publisher {
  public:
    explicit FakePublisher(Traffic& traffic) : traffic_(traffic) {}

    const std::string& run() const override { return run_; }
    void push(EngineEvent event) override { traffic_.events.push_back(std::move(event)); }
    void push(EngineChunk /*chunk*/) override {}
    EngineFigures figures() const override { return traffic_.figures; }
    News take_news() override { return std::exchange(traffic_.news, {}); }
    bool wait(std::chrono::milliseconds /*longest*/) override {
        return ++traffic_.waits >= traffic_.waits_needed;
    }
    Left finish() override {
        traffic_.finished = true;
        return traffic_.left;
    }

  private:
    const std::string run_ = "run";
    Traffic& traffic_;
};

class EngineOutputTest : public testing::Test {
  protected:
    EngineOutputTest() { settings_.urls = {"nats://127.0.0.1:1"}; }

    EngineOutput output() {
        return {settings_, lines_, [this](const EngineSettings& /*settings*/, std::string& error) {
                    error = refusal_;
                    return refusal_.empty() ? std::make_unique<FakePublisher>(traffic_) : nullptr;
                }};
    }
    Lines lines() const { return tests::outlines(text_.str()); }

    Traffic traffic_;
    std::string refusal_;
    EngineSettings settings_;
    std::ostringstream text_;
    LineReport lines_{text_};
    Patience patience_{false, [] { return true; }};
    EventOutput events_{{}, lines_, patience_};
    Notices notices_{lines_, nullptr, false};
};

TEST_F(EngineOutputTest, WithoutAServerThereIsNothing) {
    settings_.urls.clear();
    EngineOutput engine = output();
    EXPECT_EQ(engine.open(events_), "");
    EXPECT_EQ(engine.audio(), nullptr);
    EXPECT_EQ(events_.log(), nullptr);
    EXPECT_FALSE(engine.figures().wanted);
    engine.report();
    engine.finish(patience_, notices_);
    EXPECT_FALSE(engine.failed());
}

TEST_F(EngineOutputTest, SettingsThatCannotBeUsedAreNamed) {
    refusal_ = "no such file";
    EXPECT_EQ(output().open(events_), "cannot use --nats: no such file");
}

TEST_F(EngineOutputTest, EventsGoToTheServer) {
    EngineOutput engine = output();
    ASSERT_EQ(engine.open(events_), "");
    events_.log()->overflow(7);
    ASSERT_EQ(traffic_.events.size(), 1u);
    EXPECT_EQ(traffic_.events[0].call, "node");
    EXPECT_EQ(traffic_.events[0].kind, "overflow");
    EXPECT_NE(traffic_.events[0].text.find(R"("packets":7)"), std::string::npos);
}

TEST_F(EngineOutputTest, AudioGoesThereUnlessTheSettingsSayNo) {
    EngineOutput with = output();
    ASSERT_EQ(with.open(events_), "");
    EXPECT_NE(with.audio(), nullptr);
    settings_.audio = false;
    EngineOutput without = output();
    ASSERT_EQ(without.open(events_), "");
    EXPECT_EQ(without.audio(), nullptr);
}

TEST_F(EngineOutputTest, NewsOfTheConnectionAreReportedOnce) {
    EngineOutput engine = output();
    ASSERT_EQ(engine.open(events_), "");
    traffic_.news = {{"nats connected", "127.0.0.1:1"}};
    engine.report();
    engine.report();
    EXPECT_EQ(lines(), Lines{"nats connected: 127.0.0.1:1"});
}

TEST_F(EngineOutputTest, EndWaitsUntilTheServerHasEverything) {
    traffic_.waits_needed = 3;
    EngineOutput engine = output();
    ASSERT_EQ(engine.open(events_), "");
    engine.finish(patience_, notices_);
    EXPECT_EQ(traffic_.waits, 3);
    EXPECT_TRUE(traffic_.finished);
    EXPECT_FALSE(engine.failed());
    EXPECT_EQ(lines(), Lines{});
}

TEST_F(EngineOutputTest, EndDoesNotWaitLongerThanTheSettingsSay) {
    traffic_.waits_needed = 1'000'000'000;
    settings_.exit_wait_s = 0.02;
    EngineOutput engine = output();
    ASSERT_EQ(engine.open(events_), "");
    engine.finish(patience_, notices_);
    EXPECT_TRUE(traffic_.finished);
}

TEST_F(EngineOutputTest, WhatIsLeftAtTheEndIsReportedAfterTheLastNews) {
    traffic_.left = {2, 1};
    EngineOutput engine = output();
    ASSERT_EQ(engine.open(events_), "");
    traffic_.news = {{"nats disconnected", ""}};
    engine.finish(patience_, notices_);
    EXPECT_TRUE(engine.failed());
    EXPECT_EQ(lines(), (Lines{"nats disconnected", "not sent to nats: 2 1"}));
}

TEST_F(EngineOutputTest, LossesOfTheRunAreAFailureToo) {
    EngineOutput engine = output();
    ASSERT_EQ(engine.open(events_), "");
    traffic_.figures.lost_chunks = 3;
    engine.finish(patience_, notices_);
    EXPECT_TRUE(engine.failed());
}

}  // namespace

}  // namespace qv::node
