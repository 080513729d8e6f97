#include "node/analysis/tones.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace qv::node::analysis {

namespace {

constexpr std::size_t FIRST = 8;   // Bin of the lowest tone, 125 Hz.
constexpr std::size_t LAST = 230;  // Bin of the highest tone, 3590 Hz.
constexpr std::size_t LOBE = 2;    // Bins on each side that belong to a sine.
constexpr float BIN_HZ = static_cast<float>(ANALYSIS_RATE) / FRAME;

constexpr float LEAST_SHARE = 0.8F;  // Share of the power that the sines must have.
constexpr float LEAST_SINE = 0.05F;  // Power of a sine relative to the strongest one.
constexpr float SAME_HZ = 14;
constexpr std::int64_t MOST_MISSING = 2;  // Frames of a tone that another sound may cover.
// Power of all bins for a sine 60 decibels below full scale.
constexpr float AUDIBLE = 1.5F * 1e-6F * (FRAME / 4.0F) * (FRAME / 4.0F);

// How much shorter or longer a tone of the side may be than in the reference: a fraction of its
// length, and some frames at its edges.
constexpr double MOST_OFF = 0.1;
constexpr std::int64_t SLACK = 3;
constexpr std::int64_t GAP_SLACK = 8;
// How many frames of a reference may have sound without a tone, per frame with a tone: the edges of
// tones.
constexpr double MOST_OTHER = 0.3;

// Returns the frequency of a peak, interpolated between bins.
float frequency_of(const ToneFinder::Power& power, std::size_t bin) {
    const auto level = [&](std::size_t i) { return std::log(power[i] + 1e-20F); };
    const float below = level(bin - 1);
    const float above = level(bin + 1);
    const float curve = below - 2 * level(bin) + above;
    const float shift = curve < 0 ? 0.5F * (below - above) / curve : 0;
    return (static_cast<float>(bin) + shift) * BIN_HZ;
}

}  // namespace

bool Tone::sounds_like(const Tone& other) const {
    if (sines != other.sines) {
        return false;
    }
    for (std::size_t i = 0; i < sines; ++i) {
        if (std::abs(hz[i] - other.hz[i]) > SAME_HZ) {
            return false;
        }
    }
    return true;
}

Tone ToneFinder::tone_of(const Power& power) {
    float all = 0;
    for (std::size_t bin = FIRST; bin <= LAST; ++bin) {
        all += power[bin];
    }
    audible_ = all > AUDIBLE;
    Tone tone;
    if (!audible_) {
        return tone;
    }
    std::array<std::size_t, Tone::MOST_SINES> centres{};
    float sines = 0;
    float strongest = 0;
    for (std::size_t found = 0; found < Tone::MOST_SINES; ++found) {
        std::size_t peak = 0;
        float most = 0;
        for (std::size_t bin = FIRST; bin <= LAST; ++bin) {
            bool taken = false;
            for (std::size_t i = 0; i < found; ++i) {
                taken = taken || (bin + LOBE >= centres[i] && bin <= centres[i] + LOBE);
            }
            if (!taken && power[bin] > most) {
                most = power[bin];
                peak = bin;
            }
        }
        // The slope of a stronger sine is no peak.
        if (peak == 0 || most < strongest * LEAST_SINE || power[peak - 1] > most ||
            power[peak + 1] > most) {
            break;
        }
        strongest = std::max(strongest, most);
        centres[found] = peak;
        for (std::size_t bin = peak - LOBE; bin <= peak + LOBE; ++bin) {
            sines += power[bin];
        }
        tone.hz[tone.sines++] = frequency_of(power, peak);
        if (sines < all / 4) {
            break;  // Usually speech or noise.
        }
    }
    if (sines < LEAST_SHARE * all) {
        return {};
    }
    std::sort(tone.hz.begin(), tone.hz.begin() + static_cast<std::ptrdiff_t>(tone.sines));
    return tone;
}

bool ToneFinder::add(const Power& power, std::int64_t frame) {
    Tone tone = tone_of(power);
    if (current_.sines != 0 && tone.sines != 0 && current_.sounds_like(tone)) {
        current_.end = frame + 1;
        return false;
    }
    if (current_.sines != 0 && tone.sines == 0 && frame - current_.end < MOST_MISSING) {
        return false;
    }
    const bool ended = end_tone();
    if (tone.sines != 0) {
        current_ = tone;
        current_.begin = frame;
        current_.end = frame + 1;
    }
    return ended;
}

bool ToneFinder::end_tone() {
    const bool is_tone = current_.sines != 0 && current_.length() >= SHORTEST;
    if (is_tone) {
        last_ = current_;
    }
    current_ = {};
    return is_tone;
}

TonePattern::TonePattern(std::vector<Tone> tones, std::int64_t audible) {
    std::int64_t sounding = 0;
    for (const Tone& tone : tones) {
        sounding += tone.length();
    }
    if (tones.empty() ||
        static_cast<double>(audible - sounding) >
            MOST_OTHER * static_cast<double>(sounding) +
                static_cast<double>(SLACK * static_cast<std::int64_t>(tones.size() + 1))) {
        return;
    }
    const bool is_cadence = std::all_of(tones.begin(), tones.end(), [&](const Tone& tone) {
        return tone.sounds_like(tones.front());
    });
    if (is_cadence) {
        tones.resize(std::min<std::size_t>(tones.size(), 2));
    }
    if (tones.size() <= MOST_TONES) {
        tones_ = std::move(tones);
    }
}

bool TonePattern::ends(const Tone* heard, std::size_t count, std::int64_t& begin,
                       double& misfit) const {
    if (count < tones_.size()) {
        return false;
    }
    const Tone* const matched = heard + count - tones_.size();
    misfit = 0;
    for (std::size_t i = 0; i < tones_.size(); ++i) {
        const Tone& expected = tones_[i];
        const std::int64_t off = std::abs(matched[i].length() - expected.length());
        const double most = MOST_OFF * static_cast<double>(expected.length()) + SLACK;
        if (!matched[i].sounds_like(expected) || expected.length() > LONGEST ||
            static_cast<double>(off) > most) {
            return false;
        }
        if (i > 0 && std::abs((matched[i].begin - matched[i - 1].end) -
                              (expected.begin - tones_[i - 1].end)) > GAP_SLACK) {
            return false;
        }
        misfit =
            std::max(misfit, static_cast<double>(off) / static_cast<double>(expected.length()));
    }
    begin = matched[0].begin - tones_[0].begin;
    return true;
}

bool TonePattern::goes_on(const Tone& heard) const {
    return tones_.size() == 1 && tones_[0].length() > LONGEST && heard.length() == LONGEST &&
           heard.sounds_like(tones_[0]);
}

}  // namespace qv::node::analysis
