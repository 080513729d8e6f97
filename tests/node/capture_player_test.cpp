#include "node/capture_player.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "node/report/text.h"
#include "node/tick.h"
#include "tests/node/audio/folder_test.h"
#include "tests/node/report/outline.h"
#include "tests/support/golden.h"

namespace qv::node {

namespace {

using tests::Bytes;
using tests::Lines;

// A capture file of raw IP packets (link type 101).
class CaptureFile {
  public:
    CaptureFile() {
        for (const std::uint32_t word : {0xa1b2c3d4U, 0x00040002U, 0U, 0U, 65535U, 101U}) {
            put_word(word);
        }
    }
    // A UDP datagram at that time in milliseconds.
    void add(unsigned time_ms, const Bytes& payload) {
        const auto size = static_cast<std::uint32_t>(28 + payload.size());
        for (const std::uint32_t word : {time_ms / 1000, time_ms % 1000 * 1000, size, size}) {
            put_word(word);
        }
        const auto high = [](std::size_t value) { return static_cast<unsigned char>(value >> 8); };
        const auto low = [](std::size_t value) { return static_cast<unsigned char>(value); };
        const std::size_t udp = 8 + payload.size();
        const Bytes headers = {0x45, 0,    high(size), low(size), 0, 0,   0, 0, 64, 17,   0,
                               0,    127,  0,          0,         1, 127, 0, 0, 1,  0x80, 0x01,
                               0x9c, 0x40, high(udp),  low(udp),  0, 0};
        bytes_.insert(bytes_.end(), headers.begin(), headers.end());
        bytes_.insert(bytes_.end(), payload.begin(), payload.end());
    }
    const Bytes& bytes() const { return bytes_; }

  private:
    void put_word(std::uint32_t word) {
        for (int shift = 0; shift < 32; shift += 8) {
            bytes_.push_back(static_cast<unsigned char>(word >> shift));
        }
    }

    Bytes bytes_;
};

class CapturePlayerTest : public tests::FolderTest {
  protected:
    CapturePlayerTest() : player_(program()) {}
    ~CapturePlayerTest() override { report_as_of(std::nullopt); }

    CapturePlayer::Program program() {
        CapturePlayer::Program program;
        program.begin = [this](Micros began) { began_ = began; };
        program.receive = [this](const Datagram& datagram) {
            received_.push_back(datagram.arrival.time);
            media::Packet packet;
            ASSERT_EQ(media::decode_packet(datagram.data, datagram.size, packet),
                      media::DecodeResult::OK);
            calls_.receive(packet, datagram.arrival);
        };
        program.tick = [this](Micros now) {
            ++ticks_;
            calls_.tick(now);
        };
        program.update = [this](Micros now) { updated_ = now; };
        program.complete_files = [] {};
        program.act = [] {};
        program.goes_on = [this] { return goes_on_; };
        program.has_enough = [this] { return received_.size() >= most_datagrams_; };
        program.keep_waiting = [] { return true; };
        return program;
    }
    void play(const CaptureFile& file) {
        put("capture", std::string(file.bytes().begin(), file.bytes().end()));
        ASSERT_EQ(player_.open(path("capture"), std::nullopt), "");
        player_.play(calls_, limits_);
    }
    Lines report() {
        std::ostringstream text;
        LineReport lines(text);
        player_.report(lines);
        return tests::outlines(text.str());
    }

    CallLimits limits_;
    CallTable calls_{limits_, {}};
    CapturePlayer player_;
    Micros began_{0};
    std::vector<Micros> received_;
    std::size_t most_datagrams_ = 1000;
    int ticks_ = 0;
    Micros updated_{0};
    bool goes_on_ = true;
};

constexpr Micros MILLISECOND{1000};

TEST_F(CapturePlayerTest, DatagramsComeAtTheTimesOfTheCapture) {
    CaptureFile file;
    file.add(5000, tests::golden("call_1_start"));
    file.add(5020, tests::golden("call_2_read"));
    play(file);
    EXPECT_EQ(began_, 5000 * MILLISECOND);
    EXPECT_EQ(received_, (std::vector<Micros>{5000 * MILLISECOND, 5020 * MILLISECOND}));
    EXPECT_EQ(player_.taken(), 2u);
    EXPECT_FALSE(player_.damaged());
}

TEST_F(CapturePlayerTest, TimeBetweenDatagramsPassesInTicks) {
    CaptureFile file;
    file.add(5000, tests::golden("call_1_start"));
    file.add(5520, tests::golden("call_2_read"));
    most_datagrams_ = 1;  // The second one is not wanted.
    limits_.linger = Micros{0};
    limits_.reorder.wait = Micros{0};
    play(file);
    EXPECT_EQ(received_.size(), 1u);
    EXPECT_EQ(ticks_, 10 + 2);
    EXPECT_EQ(updated_, 5500 * MILLISECOND + 2 * TICK);
}

TEST_F(CapturePlayerTest, CallThatWasTerminatedEndsAfterTheCapture) {
    CaptureFile file;
    unsigned time = 1000;
    for (const std::string& name : tests::golden_call()) {
        file.add(time += 20, tests::golden(name));
    }
    play(file);
    EXPECT_EQ(calls_.size(), 0u);
}

TEST_F(CapturePlayerTest, TimeWithoutCallsNeedsNoTicks) {
    CaptureFile file;
    file.add(1000, tests::golden("terminate"));
    play(file);
    EXPECT_EQ(ticks_, 0);
}

TEST_F(CapturePlayerTest, NothingMoreIsPlayedOnceTheProgramEnds) {
    CaptureFile file;
    file.add(1000, tests::golden("call_1_start"));
    goes_on_ = false;
    play(file);
    EXPECT_TRUE(received_.empty());
}

TEST_F(CapturePlayerTest, WhatWasInTheCaptureIsReported) {
    CaptureFile file;
    file.add(1000, tests::golden("call_1_start"));
    file.add(1001, Bytes{1, 2, 3, 4});
    play(file);
    EXPECT_EQ(report(), Lines{"capture read: 2 1"});
}

TEST_F(CapturePlayerTest, DamagedCaptureIsReported) {
    CaptureFile file;
    file.add(1000, tests::golden("call_1_start"));
    Bytes cut = file.bytes();
    cut.resize(cut.size() + 20, 0xFF);
    put("damaged", std::string(cut.begin(), cut.end()));
    ASSERT_EQ(player_.open(path("damaged"), std::nullopt), "");
    player_.play(calls_, limits_);
    EXPECT_TRUE(player_.damaged());
    EXPECT_EQ(report().size(), 2u);
}

TEST_F(CapturePlayerTest, FileThatIsNoCaptureIsNamed) {
    put("text", "no capture");
    EXPECT_EQ(player_.open(path("text"), std::nullopt)
                  .rfind("cannot read capture " + path("text") + ": ", 0),
              0u);
    EXPECT_EQ(CapturePlayer({}).taken(), 0u);
}

}  // namespace

}  // namespace qv::node
