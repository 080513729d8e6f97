// The wall clock jumps back and forth by hours while calls are made and tapped. Only two fields
// of the start packet depend on it: the times of creation and of configuration.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/call_transfer.h"
#include "tests/support/clocks.h"
#include "tests/support/media_listener.h"
#include "tests/support/module_test.h"
#include "tests/support/wall_clock.h"

namespace qv::tests {

namespace {

using namespace std::chrono_literals;
using host::Direction;

// How far ahead of the true time the clock is, step by step.
constexpr std::chrono::hours STEPS[] = {5h, -7h, 24h, -48h, 0h, 1h, -1h, 10000h};

// The microseconds in the eight bytes from `offset` on, least significant first.
std::int64_t time_at(const Bytes& packet, std::size_t offset) {
    std::uint64_t value = 0;
    for (std::size_t i = 8; i > 0; --i) {
        value = value << 8 | packet.at(offset + i - 1);
    }
    return static_cast<std::int64_t>(value);
}
std::int64_t send_time(const Bytes& packet) {
    return time_at(packet, 32);
}

// The times of a clock before and after an action. The action's time must be between them.
template <typename Clock>
class Span {
  public:
    void close() { end_ = now_us<Clock>(); }
    void expect(std::int64_t time, const char* name) const {
        EXPECT_LE(begin_, time) << name;
        EXPECT_GE(end_, time) << name;
    }

  private:
    const std::int64_t begin_ = now_us<Clock>();
    std::int64_t end_ = 0;
};
using WallSpan = Span<std::chrono::system_clock>;
using SteadySpan = Span<std::chrono::steady_clock>;

class ClockStep : public ModuleTest {
  protected:
    static Variables variables() {
        return {
            {"quorvane_rule_id", "1"}, {"quorvane_audio_activity", "true"}, {"sip_call_id", "x"}};
    }

    static void feed(host::Call& call, Direction direction) {
        const std::vector<std::int16_t> samples(160, 1234);
        EXPECT_FALSE(call.feed(direction, samples.data(), 320).altered);
    }

    // The packets' send times never decrease, and all are within the time of the test.
    static void expect_steady(const std::vector<Bytes>& packets, const SteadySpan& whole) {
        std::int64_t before = 0;
        for (const Bytes& packet : packets) {
            whole.expect(send_time(packet), "send time");
            EXPECT_LE(before, send_time(packet));
            before = send_time(packet);
        }
    }

    void expect_no_complaint() {
        for (const std::string& line : take_log()) {
            EXPECT_NE(line.rfind("ERROR", 0), 0U) << line;
            EXPECT_NE(line.rfind("WARNING", 0), 0U) << line;
        }
    }

    // Creates and taps a call while the clock is ahead by these amounts.
    void expect_start_packet(std::chrono::hours at_creation, std::chrono::hours at_configuration) {
        WallClock::set_ahead(at_creation);
        WallSpan creation;
        const auto call = start_call(variables());
        creation.close();

        WallClock::set_ahead(at_configuration);
        WallSpan configuration;
        SteadySpan steady;
        call->execute("quorvane");
        steady.close();
        configuration.close();

        const Bytes start = node.receive();
        creation.expect(time_at(start, 40), "created");
        configuration.expect(time_at(start, 48), "configured, wall clock");
        steady.expect(time_at(start, 56), "configured, steady clock");
        steady.expect(send_time(start), "send time");
        EXPECT_LE(time_at(start, 56), send_time(start));
        hangup(*call);
        EXPECT_EQ(node.receive_types(), "82");
    }

    WallClock clock;
};

// If the step did not work, the tests below would prove nothing.
TEST_F(ClockStep, StepsTheWallClockAlone) {
    const std::int64_t wall = now_us<std::chrono::system_clock>();
    const std::int64_t steady = now_us<std::chrono::steady_clock>();
    const std::int64_t host_wall = switch_time_now();
    WallClock::set_ahead(-5h);
    constexpr std::int64_t HOUR = 3600000000;
    EXPECT_LT(now_us<std::chrono::system_clock>(), wall - 4 * HOUR);
    EXPECT_LT(switch_time_now(), host_wall - 4 * HOUR);
    EXPECT_GE(now_us<std::chrono::steady_clock>(), steady);
    EXPECT_LT(now_us<std::chrono::steady_clock>(), steady + HOUR);
}

TEST_F(ClockStep, StartPacketTellsTheClockOfItsMoments) {
    load();
    expect_start_packet(0h, 0h);
    expect_start_packet(-3h, 2h);
    expect_start_packet(3h, -2h);  // The time of configuration is before that of creation.
    expect_start_packet(10000h, 10000h);
    expect_start_packet(0h, 0h);
}

TEST_F(ClockStep, PacketsOfACallStayInTheOrderOfTheSteadyClock) {
    load();
    SteadySpan whole;
    const auto call = start_call(variables());
    call->execute("quorvane");
    bool running = true;
    for (const std::chrono::hours step : STEPS) {
        WallClock::set_ahead(step);
        feed(*call, Direction::READ);
        feed(*call, Direction::WRITE);
        running = !running;
        EXPECT_EQ(call_api(running ? "audio_activity start" : "audio_activity stop"),
                  std::string("audio_activity: control packet for feature update was sent+OK, "
                              "audio_activity: updated: ") +
                      (running ? "old = 0, new = 12" : "old = 12, new = 0"));
    }
    hangup(*call);
    whole.close();

    const std::vector<Bytes> packets = node.receive_all();
    EXPECT_EQ(packets.size(), 2 + 3 * std::size(STEPS));
    expect_steady(packets, whole);
    const CallTransfer transfer(packets);
    EXPECT_EQ(transfer.flaws(), "");
    EXPECT_EQ(transfer.legs[0].samples, 160 * std::size(STEPS));
    EXPECT_EQ(transfer.legs[1].samples, 160 * std::size(STEPS));
    EXPECT_EQ(transfer.controls.size(), std::size(STEPS));
    expect_no_complaint();
}

TEST_F(ClockStep, MediaThreadsNeitherStallNorHurry) {
    constexpr unsigned FRAMES = 50;
    load();
    MediaListener listener(node);
    SteadySpan whole;
    host::CallOptions options;
    options.variables = variables();
    options.frame_time = 10ms;
    const auto call = start_call_as(std::move(options));
    call->execute("quorvane");
    host::MediaPlan plan;
    plan.read = host::play_silence(FRAMES, 80);
    plan.write = host::play_silence(FRAMES, 80);
    plan.threads = host::MediaThreads::OWN;
    const auto media_begin = now_us<std::chrono::steady_clock>();
    call->start_media(std::move(plan));
    std::atomic<bool> playing{true};
    std::thread stepper([&playing] {
        for (std::size_t i = 0; playing; ++i) {
            WallClock::set_ahead(STEPS[i % std::size(STEPS)]);
            std::this_thread::sleep_for(3ms);
        }
    });
    EXPECT_TRUE(call->wait_media(20s));
    playing = false;
    stepper.join();
    hangup(*call);
    whole.close();

    const MediaListener::Packets& calls = listener.finish();
    ASSERT_EQ(calls.size(), 1U);
    const std::vector<Bytes>& packets = calls.begin()->second;
    EXPECT_EQ(CallTransfer(packets).flaws(), "");
    std::vector<std::vector<Bytes>> legs(2);
    for (const Bytes& packet : packets) {
        if (packet[4] == 0x83) {
            legs[packet[7] >> 7].push_back(packet);
        }
    }
    for (const std::vector<Bytes>& leg : legs) {
        ASSERT_EQ(leg.size(), FRAMES);
        expect_steady(leg, whole);
        // A frame may be late, but not early: the last one is due after 49 frame times.
        EXPECT_GE(send_time(leg.back()), media_begin + 490000);
    }
    expect_no_complaint();
}

}  // namespace

}  // namespace qv::tests
