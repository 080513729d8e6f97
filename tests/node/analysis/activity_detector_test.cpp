#include "node/analysis/activity_detector.h"

#include <gtest/gtest.h>

#include <cmath>
#include <stdexcept>

#include "tests/node/analysis/sounds.h"
#include "tests/support/names.h"

namespace qv::node::analysis {

namespace {

using namespace tests;

struct Changes : ActivityOutput {
    std::vector<ActivityChange> list;
    void activity(const ActivityChange& change) override { list.push_back(change); }
};

std::vector<ActivityChange> changes_in(const Sound& sound, int rate,
                                       const ActivityOptions& options = {},
                                       std::size_t packet = 0) {
    const auto samples = pcm(sound);
    ActivityDetector detector(rate, options);
    Changes changes;
    packet = packet == 0 ? samples_in(0.02, rate) : packet;
    for (std::size_t at = 0; at < samples.size(); at += packet) {
        detector.add(samples.data() + at, std::min(packet, samples.size() - at), changes);
    }
    detector.finish(changes);
    return changes.list;
}

// Sound from 1 to 2 and from 3 to 3.5 seconds, in faint noise.
Sound two_pieces(int rate) {
    const Sound sound = silence(1, rate) + babble(1, 1, rate) + silence(1, rate) +
                        babble(0.5, 2, rate) + silence(1, rate);
    return mixed(sound, noise(4.5, 0.001, 3, rate));
}

TEST(ActivityDetectorTest, TellsWhereSoundBeginsAndEndsAtEveryRate) {
    for (const int rate : {8000, 11025, 16000, 24000, 32000, 44100, 48000}) {
        const auto changes = changes_in(two_pieces(rate), rate);
        ASSERT_EQ(changes.size(), 4u) << rate;
        const double truth[] = {1, 2, 3, 3.5};
        for (std::size_t i = 0; i < 4; ++i) {
            EXPECT_EQ(changes[i].active, i % 2 == 0);
            EXPECT_NEAR(static_cast<double>(changes[i].position) / rate, truth[i], 0.04)
                << rate << " Hz, change " << i;
        }
    }
}

// A buzz with the level -30 dB that falls to -55 dB, the level of activity, within `fade` seconds.
Sound fading_buzz(double seconds, double fade, unsigned seed) {
    Sound sound;
    const double pitch = 95 + 12 * seed;
    const double formant = 350 + 80 * seed;
    const std::size_t steady = samples_in(seconds, 8000);
    double squares = 0;
    for (std::size_t i = 0; i < steady + samples_in(fade, 8000); ++i) {
        double sum = 0;
        for (int harmonic = 1; harmonic * pitch < 3600; ++harmonic) {
            const double off = (harmonic * pitch - formant) / 150;
            sum += std::sin(2 * PI * pitch * harmonic * static_cast<double>(i) / 8000) /
                   (1 + off * off);
        }
        const double faded = i < steady ? 0 : static_cast<double>(i - steady) / (fade * 8000);
        squares += i < steady ? sum * sum : 0;
        sound.push_back(static_cast<float>(sum * std::pow(10, -25 * faded / 20)));
    }
    return louder(sound, -30 - 10 * std::log10(squares / static_cast<double>(steady)));
}

// Returns how many seconds too late the detector reports the end of `sound` in noise, on average
// over several sounds.
double lateness_of_end(double fade) {
    constexpr unsigned sounds = 8;
    double sum = 0;
    for (unsigned seed = 1; seed <= sounds; ++seed) {
        const Sound sound = silence(3) + fading_buzz(0.5, fade, seed) + silence(1.5);
        const auto changes = changes_in(mixed(sound, noise(5 + fade, 0.01, seed)), 8000);
        EXPECT_FALSE(changes.empty());
        for (const ActivityChange& change : changes) {
            const double late = static_cast<double>(change.position) / 8000 - (3.5 + fade);
            if (!change.active && std::abs(late) < 0.4) {
                sum += late;
            }
        }
    }
    return sum / sounds;
}

TEST(ActivityDetectorTest, FollowsSoundThatFadesIntoTheNoise) {
    EXPECT_NEAR(lateness_of_end(0.3), 0, 0.04);
    EXPECT_NEAR(lateness_of_end(0.2), 0, 0.04);
}

TEST(ActivityDetectorTest, EndsSoundThatStopsSuddenlyWhereItStops) {
    EXPECT_NEAR(lateness_of_end(0.001), 0, 0.03);
}

TEST(ActivityDetectorTest, DoesNotDependOnHowTheSoundIsCutIntoPackets) {
    const auto whole = changes_in(two_pieces(8000), 8000, {}, 100'000);
    const auto single = changes_in(two_pieces(8000), 8000, {}, 1);
    ASSERT_EQ(whole.size(), single.size());
    for (std::size_t i = 0; i < whole.size(); ++i) {
        EXPECT_EQ(whole[i].position, single[i].position);
    }
}

TEST(ActivityDetectorTest, HearsNothingInZerosAndInSteadyNoise) {
    EXPECT_TRUE(changes_in(silence(20), 8000).empty());
    const auto noisy = changes_in(noise(20, 0.02, 1), 8000);
    for (const ActivityChange& change : noisy) {
        EXPECT_LT(change.position, 8000 * 2u) << "the noise is known after two seconds";
    }
}

TEST(ActivityDetectorTest, RefusesOptionsAndRatesThatMakeNoSense) {
    ActivityOptions options;
    EXPECT_EQ(options.complaint(), "");
    options.level_db = std::nan("");
    EXPECT_TRUE(names(options.complaint(), {"level", "-90", "0"}));
    options = {};
    options.hang_over_ms = -1;
    EXPECT_TRUE(names(options.complaint(), {"hang-over", "0", "10000"}));
    options = {};
    options.minimum_ms = 10'001;
    EXPECT_TRUE(names(options.complaint(), {"minimum", "0", "10000"}));
    EXPECT_THROW(ActivityDetector(8000, options), std::invalid_argument);
    EXPECT_THROW(ActivityDetector(0, {}), std::invalid_argument);
    EXPECT_THROW(ActivityDetector(96'000, {}), std::invalid_argument);
}

TEST(ActivityDetectorTest, BridgesPausesUpToTheHangOver) {
    const Sound sound =
        silence(1) + tone({500}, 0.5) + silence(0.3) + tone({500}, 0.5) + silence(2);
    ActivityOptions options;
    options.hang_over_ms = 200;
    EXPECT_EQ(changes_in(sound, 8000, options).size(), 4u);
    options.hang_over_ms = 400;
    EXPECT_EQ(changes_in(sound, 8000, options).size(), 2u);
}

// The pauses are as long as the hang-over bridges, but in the noise the sound before them seems to
// end earlier.
TEST(ActivityDetectorTest, BridgesPausesThatFollowSoundThatFadesIntoTheNoise) {
    for (unsigned seed = 1; seed <= 8; ++seed) {
        const Sound buzz = fading_buzz(0.5, 0.3, seed);
        const Sound sound = silence(3) + buzz + silence(0.12) + buzz + silence(1.5);
        const auto changes = changes_in(mixed(sound, noise(6.2, 0.01, seed)), 8000);
        std::size_t sounds = 0;
        for (const ActivityChange& change : changes) {
            sounds += change.active && change.position > 2 * 8000 ? 1 : 0;
        }
        EXPECT_EQ(sounds, 1u) << seed;
    }
}

TEST(ActivityDetectorTest, ReportsNothingShorterThanTheMinimum) {
    const Sound sound = silence(1) + tone({500}, 0.3) + silence(2);
    ActivityOptions options;
    options.minimum_ms = 500;
    EXPECT_TRUE(changes_in(sound, 8000, options).empty());
    options.minimum_ms = 250;
    EXPECT_EQ(changes_in(sound, 8000, options).size(), 2u);
}

TEST(ActivityDetectorTest, ReportsNothingBelowItsLevel) {
    ActivityOptions options;
    options.level_db = -40;
    const Sound sound = silence(1) + tone({500}, 1, 8000, 0.1) + silence(1);
    EXPECT_EQ(changes_in(sound, 8000, options).size(), 2u);
    EXPECT_TRUE(changes_in(louder(sound, -30), 8000, options).empty());
}

TEST(ActivityDetectorTest, EndsActivityWhereAGapBegins) {
    const auto samples = pcm(silence(1) + babble(1, 1));
    ActivityDetector detector(8000, {}, 500);
    Changes changes;
    detector.add(samples.data(), samples.size(), changes);
    const std::uint64_t gap = 8000ull * 3600 * 50;
    detector.skip(gap, changes);
    ASSERT_EQ(changes.list.size(), 2u);
    EXPECT_NEAR(static_cast<double>(changes.list[0].position), 8500, 320);
    EXPECT_NEAR(static_cast<double>(changes.list[1].position), 16'500, 320);
    detector.add(samples.data(), samples.size(), changes);
    ASSERT_EQ(changes.list.size(), 3u);
    EXPECT_NEAR(static_cast<double>(changes.list[2].position),
                static_cast<double>(16'500 + gap + 8000), 320);
    EXPECT_EQ(detector.position(), 500 + gap + 2 * samples.size());
}

TEST(ActivityDetectorTest, StillKnowsTheNoiseAfterAGap) {
    const auto before = pcm(noise(3, 0.01, 1));
    const auto after = pcm(mixed(noise(2.5, 0.01, 2), silence(0.5) + fading_buzz(0.5, 0.001, 1)));
    ActivityDetector detector(8000, {});
    Changes changes;
    detector.add(before.data(), before.size(), changes);
    detector.skip(80'000, changes);
    changes.list.clear();
    detector.add(after.data(), after.size(), changes);
    ASSERT_EQ(changes.list.size(), 2u);
    EXPECT_NEAR(static_cast<double>(changes.list[1].position) / 8000, 14, 0.04);
}

TEST(ActivityDetectorTest, EndsActivityThatGoesOnWhenTheSideEnds) {
    const auto changes = changes_in(silence(1) + babble(1, 1), 8000);
    ASSERT_EQ(changes.size(), 2u);
    EXPECT_FALSE(changes[1].active);
    EXPECT_LE(changes[1].position, 16'000u);
}

TEST(ActivityDetectorTest, StandsFullScaleNoiseClippingAndDirectCurrent) {
    for (const double level : {0.05, 1.0, 4.0}) {
        for (const ActivityChange& change : changes_in(noise(5, level, 1), 8000)) {
            EXPECT_LE(change.position, 40'000u);
        }
    }
    EXPECT_TRUE(changes_in(Sound(8000 * 5, 0.9F), 8000).size() <= 2);
    EXPECT_TRUE(changes_in(Sound(8000 * 5, -1.0F), 8000).size() <= 2);
}

}  // namespace

}  // namespace qv::node::analysis
