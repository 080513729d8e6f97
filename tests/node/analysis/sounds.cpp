#include "tests/node/analysis/sounds.h"

#include <random>

namespace qv::tests {

Sound tone(const std::vector<double>& frequencies, double seconds, int rate, double amplitude) {
    Sound sound(samples_in(seconds, rate));
    for (std::size_t i = 0; i < sound.size(); ++i) {
        for (const double frequency : frequencies) {
            sound[i] += static_cast<float>(
                amplitude * std::sin(2 * PI * frequency * static_cast<double>(i) / rate));
        }
    }
    return sound;
}

Sound noise(double seconds, double level, unsigned seed, int rate) {
    std::mt19937 random(seed);
    Sound sound(samples_in(seconds, rate));
    for (float& each : sound) {
        // The sum of four values is close enough to a normal distribution, and the same on every
        // machine.
        double sum = 0;
        for (int i = 0; i < 4; ++i) {
            sum += static_cast<double>(random()) / 4294967295.0 - 0.5;
        }
        each = static_cast<float>(sum * level * std::sqrt(3.0));
    }
    return sound;
}

Sound babble(double seconds, unsigned seed, int rate, double level) {
    std::mt19937 random(seed);
    const auto between = [&](double low, double high) {
        return low + (high - low) * static_cast<double>(random()) / 4294967295.0;
    };
    Sound sound(samples_in(seconds, rate));
    std::size_t at = 0;
    double phase = 0;
    while (at < sound.size()) {
        const double length = between(0.09, 0.22);
        const double pitch[2] = {between(90, 220), between(90, 220)};
        const double first[2] = {between(300, 900), between(300, 900)};
        const double second[2] = {between(1000, 2800), between(1000, 2800)};
        const auto size = std::min(samples_in(length, rate), sound.size() - at);
        for (std::size_t i = 0; i < size; ++i) {
            const double part = static_cast<double>(i) / (length * rate);
            const auto way = [part](const double* ends) {
                return ends[0] + (ends[1] - ends[0]) * part;
            };
            phase += way(pitch) / rate;
            double sum = 0;
            for (int harmonic = 1; harmonic * way(pitch) < 3600; ++harmonic) {
                const double hz = harmonic * way(pitch);
                const double a = (hz - way(first)) / 120;
                const double b = (hz - way(second)) / 200;
                sum += (1 / (1 + a * a) + 0.6 / (1 + b * b)) * std::sin(2 * PI * phase * harmonic);
            }
            sound[at + i] = static_cast<float>(level * sum * std::sin(PI * part));
        }
        at += size;
        if (random() % 4 == 0) {
            at += samples_in(between(0.06, 0.2), rate);
        }
    }
    return sound;
}

std::vector<std::int16_t> pcm(const Sound& sound) {
    std::vector<std::int16_t> samples;
    samples.reserve(sound.size());
    for (const float each : sound) {
        samples.push_back(
            static_cast<std::int16_t>(std::lround(std::clamp(each, -1.0F, 0.99996F) * 32768)));
    }
    return samples;
}

}  // namespace qv::tests
