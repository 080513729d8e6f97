// Sounds with known properties for the tests of the analysis. Every run uses the same ones. In a
// library of its own, because they take long to compute in a build that is not optimized.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace qv::tests {

using Sound = std::vector<float>;  // -1 to 1.

constexpr double PI = 3.14159265358979;

inline std::size_t samples_in(double seconds, int rate) {
    return static_cast<std::size_t>(std::llround(seconds * rate));
}

inline Sound silence(double seconds, int rate = 8000) {
    return Sound(samples_in(seconds, rate));
}

Sound tone(const std::vector<double>& frequencies, double seconds, int rate = 8000,
           double amplitude = 0.2);

// White noise with this root mean square.
Sound noise(double seconds, double level, unsigned seed, int rate = 8000);

// Similar to speech without words: syllables of a buzz with two moving formants, which differ for
// each seed, and short pauses between words.
Sound babble(double seconds, unsigned seed, int rate = 8000, double level = 0.1);

inline Sound operator+(Sound first, const Sound& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

inline Sound mixed(Sound sound, const Sound& other, std::size_t at = 0) {
    sound.resize(std::max(sound.size(), at + other.size()));
    for (std::size_t i = 0; i < other.size(); ++i) {
        sound[at + i] += other[i];
    }
    return sound;
}

inline Sound louder(Sound sound, double decibels) {
    for (float& each : sound) {
        each *= static_cast<float>(std::pow(10.0, decibels / 20));
    }
    return sound;
}

inline Sound part(const Sound& sound, double from, double to) {
    const auto size = static_cast<double>(sound.size());
    return Sound(sound.begin() + static_cast<std::ptrdiff_t>(from * size),
                 sound.begin() + static_cast<std::ptrdiff_t>(to * size));
}

std::vector<std::int16_t> pcm(const Sound& sound);

}  // namespace qv::tests
