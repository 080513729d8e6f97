// The analysis behind real calls: packets go in, events come out.
#include "node/analysis/analyser.h"

#include <cmath>
#include <cstdio>
#include <cstring>

#include "quorvane_lib/sanitizer.h"
#include "tests/node/calls/node_call.h"

namespace qv::node {

namespace {

using namespace std::chrono_literals;
using Samples = std::vector<std::int16_t>;

constexpr std::size_t FRAME = 160;
constexpr std::int64_t FRAME_TIME = 20'000;
constexpr unsigned ACTIVITY_OF_BOTH = 0x0C;

class AnalyserTest : public tests::NodeCallTest, public CallListener {
  protected:
    AnalyserTest() { analyse(Analyser::Pace::LIVE, 8'000'000); }
    void TearDown() override { table_.reset(); }

    void analyse(Analyser::Pace pace, std::size_t most_waiting) {
        table_.reset();
        CallLimits limits;
        limits.sample_rate = 8000;
        limits.services = {true, false, Services::Recording::NONE};
        analysis::Worker::Settings settings;
        settings.most_waiting = most_waiting;
        analyser_ = std::make_unique<Analyser>(settings, pace);
        table_ =
            std::make_unique<CallTable>(limits, std::vector<CallListener*>{analyser_.get(), this});
    }

    static void put(tests::Bytes& datagram, std::size_t at, std::uint64_t value, std::size_t size) {
        for (std::size_t i = 0; i < size; ++i, value >>= 8) {
            datagram[at + i] = static_cast<unsigned char>(value & 0xFF);
        }
    }
    tests::Bytes of_call(const std::string& name, std::uint32_t call) const {
        tests::Bytes datagram = tests::golden(name);
        put(datagram, 28, call, 4);
        put(datagram, 32, static_cast<std::uint64_t>(time_), 8);
        return datagram;
    }
    void start(std::uint32_t call = 0) {
        tests::Bytes datagram = of_call("call_1_start", call);
        datagram[78] = datagram[79] = ACTIVITY_OF_BOTH;
        send(datagram);
    }
    void end(std::uint32_t call = 0) { send(of_call("call_7_terminate", call)); }
    // A packet of a call's side; the sequence numbers and offsets are those of one side.
    void send_data(const char* name, const Samples& sound, std::uint32_t call = 0) {
        tests::Bytes datagram = of_call(name, call);
        datagram.resize(50);
        put(datagram, 40, number_, 4);
        put(datagram, 44, offset_, 4);
        put(datagram, 48, sound.size(), 2);
        for (const std::int16_t sample : sound) {
            datagram.resize(datagram.size() + 2);
            put(datagram, datagram.size() - 2, static_cast<std::uint16_t>(sample), 2);
        }
        send(datagram);
    }
    // Sends sound as the originator, in packets of so many samples.
    void speak(const Samples& sound, std::size_t packet = FRAME) {
        for (std::size_t at = 0; at < sound.size(); at += packet) {
            const Samples piece(
                sound.begin() + static_cast<std::ptrdiff_t>(at),
                sound.begin() + static_cast<std::ptrdiff_t>(std::min(at + packet, sound.size())));
            time_ += static_cast<std::int64_t>(piece.size()) * 125;
            send_data("call_2_read", piece);
            ++number_;
            offset_ += static_cast<std::uint32_t>(piece.size());
        }
    }
    // All that is heard of one call of that sound: "+POSITION" and "-POSITION".
    std::string heard(const Samples& sound, std::size_t packet = FRAME) {
        start();
        speak(sound, packet);
        table_->shut_down();
        return changes_;
    }

    static Samples noise(std::size_t count, int peak) {
        Samples sound(count);
        std::uint32_t state = 1;
        for (std::int16_t& sample : sound) {
            state = state * 1664525U + 1013904223U;
            sample = static_cast<std::int16_t>(static_cast<int>(state >> 16) * peak / 32768 - peak);
        }
        return sound;
    }

    // Syllables, each of another pitch: steady noise would become the noise of the line.
    static Samples syllables(std::size_t count) {
        Samples sound(count);
        for (std::size_t i = 0; i < count; ++i) {
            const double t = static_cast<double>(i) / 8000;
            const double pitch = 300 + 170 * std::floor(t * 6);
            sound[i] = static_cast<std::int16_t>(12'000 * std::fabs(std::sin(3.14159 * 6 * t)) *
                                                 std::sin(2 * 3.14159 * pitch * t));
        }
        return sound;
    }

    void activity(const Call& /*call*/, Side /*side*/, const Activity& activity) override {
        EXPECT_LE(activity.position, activity.noticed);
        changes_ += (activity.active ? '+' : '-') + std::to_string(activity.position) + ' ';
    }
    void skipped(const Call& /*call*/, Side /*side*/, std::uint64_t samples) override {
        skipped_ += samples;
    }

    std::unique_ptr<Analyser> analyser_;
    std::int64_t time_ = 3'600'000'250;
    std::uint32_t number_ = 1;
    std::uint32_t offset_ = 0;
    std::string changes_;
    std::uint64_t skipped_ = 0;
};

TEST_F(AnalyserTest, ZerosAreNoActivity) {
    EXPECT_EQ(heard(Samples(16'000, 0)), "");
}

TEST_F(AnalyserTest, DirectCurrentIsNoLastingActivity) {
    heard(Samples(80'000, 12'000));
    EXPECT_EQ(std::count(changes_.begin(), changes_.end(), '+'),
              std::count(changes_.begin(), changes_.end(), '-'));
    EXPECT_LE(std::count(changes_.begin(), changes_.end(), '+'), 1);
}

TEST_F(AnalyserTest, FullScaleNoiseAndClippingAreHeardWhereTheyAre) {
    Samples sound(8000, 0);
    const Samples loud = noise(8000, 32'767);
    sound.insert(sound.end(), loud.begin(), loud.end());
    sound.resize(24'000, 0);
    for (int i = 0; i < 8000; ++i) {  // A clipped tone: as loud as can be.
        sound.push_back(i / 9 % 2 == 0 ? 32'767 : -32'768);
    }
    sound.resize(40'000, 0);
    heard(sound);
    unsigned on = 0;
    unsigned off = 0;
    unsigned on_again = 0;
    unsigned off_again = 0;
    ASSERT_EQ(std::sscanf(changes_.c_str(), "+%u -%u +%u -%u", &on, &off, &on_again, &off_again), 4)
        << changes_;
    EXPECT_NEAR(on, 8000, 400);
    EXPECT_NEAR(off, 16'000, 800);
    EXPECT_NEAR(on_again, 24'000, 400);
    EXPECT_NEAR(off_again, 32'000, 800);
}

TEST_F(AnalyserTest, LengthOfPacketsChangesNothing) {
    Samples sound(4000, 0);
    const Samples loud = noise(4000, 8000);
    sound.insert(sound.end(), loud.begin(), loud.end());
    sound.resize(12'000, 0);
    const std::string by_frames = heard(sound);
    EXPECT_NE(by_frames, "");
    for (const std::size_t packet : {std::size_t{1}, std::size_t{661}}) {
        analyse(Analyser::Pace::LIVE, 8'000'000);
        changes_.clear();
        number_ = 1;
        offset_ = 0;
        EXPECT_EQ(heard(sound, packet), by_frames);
    }
}

TEST_F(AnalyserTest, PauseOfHoursKeepsPositions) {
    start();
    speak(Samples(4000, 0));
    speak(syllables(4000));
    for (int hours = 0; hours < 3; ++hours) {
        time_ += 3'600'000'000;
        speak(Samples(4000, 0));
        speak(syllables(4000));
    }
    table_->shut_down();
    unsigned last = 0;
    const std::size_t at = changes_.rfind('+');
    ASSERT_NE(at, std::string::npos) << changes_;
    ASSERT_EQ(std::sscanf(changes_.c_str() + at, "+%u", &last), 1);
    EXPECT_NEAR(last, 28'000, 400) << changes_;
    EXPECT_EQ(skipped_, 0u);
}

TEST_F(AnalyserTest, WhatTheWorkerCannotKeepUpWithIsSkippedLive) {
    analyse(Analyser::Pace::LIVE, 1000);
    heard(noise(80'000, 8000));
    EXPECT_GT(skipped_, 0u);
    EXPECT_EQ(analyser_->figures().skipped, skipped_);
}

TEST_F(AnalyserTest, ReaderOfACaptureWaitsForTheWorker) {
    analyse(Analyser::Pace::PATIENT, 1000);
    const Samples sound = noise(80'000, 8000);
    const std::string patient = heard(sound);
    EXPECT_EQ(skipped_, 0u);
    analyse(Analyser::Pace::LIVE, 8'000'000);
    changes_.clear();
    number_ = 1;
    offset_ = 0;
    EXPECT_EQ(heard(sound), patient);
}

// Bytes resident.
std::size_t memory() {
    std::size_t pages = 0;
    std::FILE* file = std::fopen("/proc/self/statm", "r");
    EXPECT_EQ(std::fscanf(file, "%*u %zu", &pages), 1);
    std::fclose(file);
    return pages * 4096;
}

TEST_F(AnalyserTest, TenThousandSidesAtOnceLeaveNothingBehind) {
    const Samples frame = noise(FRAME, 8000);
    std::size_t before = 0;
    for (std::uint32_t round = 0; round < 2; ++round) {
        for (std::uint32_t call = 0; call < 5000; ++call) {
            start(round * 5000 + call);
            send_data("call_2_read", frame, round * 5000 + call);
            send_data("call_3_write", frame, round * 5000 + call);
        }
        EXPECT_EQ(analyser_->figures().activity_sides, 10'000u);
        analyser_->update();
        for (std::uint32_t call = 0; call < 5000; ++call) {
            end(round * 5000 + call);
        }
        while (table_->size() != 0) {
            analyser_->update();
            pass(500ms);
        }
        EXPECT_EQ(analyser_->figures().activity_sides, 0u);
        pass(150s);  // Ended calls are forgotten.
        if (round == 0) {
            before = memory();
        }
    }
    EXPECT_EQ(skipped_, 0u);
    if (!ADDRESS_SANITIZER) {  // It keeps freed memory.
        EXPECT_LT(memory(), before + before / 5 + (8 << 20));
    }
}

}  // namespace

}  // namespace qv::node
