#include "node/report/audio_stream.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "tests/node/calls/node_call.h"

namespace qv::node {

namespace {

class FakePublisher : public Publisher {
  public:
    const std::string& run() const override { return run_; }
    void push(EngineEvent /*event*/) override {}
    void push(EngineChunk chunk) override { chunks.push_back(std::move(chunk)); }
    EngineFigures figures() const override { return {}; }
    News take_news() override { return {}; }
    bool wait(std::chrono::milliseconds /*longest*/) override { return true; }
    Left finish() override { return {}; }

    std::vector<EngineChunk> chunks;

  private:
    const std::string run_ = "run";
};

class RateDiary : public CallListener {
  public:
    void rate_decided(const Call& /*call*/, Side /*side*/) override { decided = true; }

    bool decided = false;
};

class AudioStreamTest : public tests::NodeCallTest {
  protected:
    AudioStreamTest() { watch({&stream_, &diary_}); }

    // A packet of the originator without audio.
    void send_empty(std::uint16_t sequence_number) {
        tests::Bytes datagram = tests::golden("call_2_read");
        datagram.resize(50);
        datagram[40] = static_cast<unsigned char>(sequence_number & 0xFF);
        datagram[41] = static_cast<unsigned char>(sequence_number >> 8);
        datagram[44] = 0;
        datagram[48] = 0;
        send(datagram);
    }

    FakePublisher publisher_;
    AudioStream stream_{publisher_, 100};
    RateDiary diary_;
};

TEST_F(AudioStreamTest, AudioIsSentWhenItsRateIsKnown) {
    send_call();
    ASSERT_EQ(publisher_.chunks.size(), 4u);
    const EngineChunk& first = publisher_.chunks[0];
    EXPECT_EQ(first.side, "originator");
    EXPECT_EQ(first.sequence, 1u);
    EXPECT_EQ(first.samples, (std::vector<std::int16_t>{0, 100, 200, 100, 0, -100, -200, -100, 0,
                                                        100, 200, 100, 0, -100, -200, -100}));
    EXPECT_EQ(publisher_.chunks[1].side, "originator");
    EXPECT_EQ(publisher_.chunks[1].end, "terminated");
    EXPECT_TRUE(publisher_.chunks[1].samples.empty());
}

TEST_F(AudioStreamTest, PacketsWithoutAudioDoNotWaitForARateForEver) {
    send("call_1_start");
    for (std::uint16_t number = 1; number <= 3000 && !diary_.decided; ++number) {
        send_empty(number);
    }
    EXPECT_TRUE(diary_.decided);
}

}  // namespace

}  // namespace qv::node
