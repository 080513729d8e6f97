#include "node/analysis/fingerprint.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace qv::node::analysis {

namespace {

constexpr std::size_t HOPS = FRAME / HOP;

// The power that the transform gives for a full-scale sine: (FRAME / 2 / 2)^2.
constexpr float FULL_SCALE_POWER = (FRAME / 4.0F) * (FRAME / 4.0F);

constexpr float PEAK_TO_MEAN = 4;  // Power of a peak relative to the mean of its region.

const std::array<float, FRAME>& hann_window() {
    static const std::array<float, FRAME> window = [] {
        std::array<float, FRAME> result{};
        for (std::size_t i = 0; i < FRAME; ++i) {
            result[i] = static_cast<float>(
                0.5 - 0.5 * std::cos(2 * 3.14159265358979 * static_cast<double>(i) / FRAME));
        }
        return result;
    }();
    return window;
}

// The bins at which the bands begin, equally spaced in mels, counted from FIRST_BIN.
template <std::size_t N>
std::array<std::size_t, N + 1> band_edges() {
    const auto mel = [](double hz) { return std::log(1 + hz / 700); };
    const double bin_hz = static_cast<double>(ANALYSIS_RATE) / FRAME;
    const double low = mel(Fingerprint::FIRST_BIN * bin_hz);
    const double high = mel((Fingerprint::FIRST_BIN + Fingerprint::BINS) * bin_hz);
    std::array<std::size_t, N + 1> edges{};
    for (std::size_t i = 0; i <= N; ++i) {
        const double at = low + (high - low) * static_cast<double>(i) / N;
        const double hz = 700 * (std::exp(at) - 1);
        edges[i] = static_cast<std::size_t>(std::lround(hz / bin_hz)) - Fingerprint::FIRST_BIN;
    }
    return edges;
}

constexpr std::array<std::size_t, Fingerprint::REGIONS + 1> REGION_EDGES{
    0, 15, 31, 48, 68, 94, 124, 160, Fingerprint::BINS};

// Ten times the decimal logarithm, with an error of at most 0.02.
float decibels(float power) {
    std::uint32_t word = 0;
    std::memcpy(&word, &power, sizeof word);
    const auto exponent = static_cast<float>(static_cast<int>(word >> 23) - 127);
    word = (word & 0x7FFFFFu) | 0x3F800000u;
    float mantissa = 0;
    std::memcpy(&mantissa, &word, sizeof mantissa);
    const float log2 = exponent - 2.1536207F +
                       mantissa * (3.0478841F + mantissa * (-1.0518804F + mantissa * 0.15824871F));
    return 3.0103F * log2;
}

}  // namespace

Fingerprint::Fingerprint() : transform_(Transform::of_size(FRAME)) {
    reset(0);
}

void Fingerprint::reset(std::uint64_t frames) {
    frames_ = frames;
    heard_ = 0;
    samples_.fill(0);
    spectra_ = {};
    for (auto& bands : bands_) {
        bands.fill(QUIETEST_DB);
    }
    for (Peaks& peaks : peaks_) {
        peaks.fill(NO_PEAK);
    }
    bits_ = 0;
    level_ = QUIETEST_DB;
    landmark_count_ = 0;
}

bool Fingerprint::begin(const float* samples) {
    std::copy(samples_.begin() + HOP, samples_.end(), samples_.begin());
    std::copy(samples, samples + HOP, samples_.end() - HOP);
    landmark_count_ = 0;
    if (++heard_ < HOPS) {
        return false;
    }
    heard_ = HOPS;
    const auto& window = hann_window();
    std::array<float, FRAME> windowed;
    for (std::size_t i = 0; i < FRAME; ++i) {
        windowed[i] = samples_[i] * window[i];
    }
    transform_.power(windowed.data(), power_.data());
    return true;
}

void Fingerprint::finish() {
    ++frames_;
    compare_bands();
    find_peaks();
}

void Fingerprint::compare_bands() {
    static const auto edges = band_edges<BANDS>();
    static const float floor = FULL_SCALE_POWER * std::pow(10.0F, QUIETEST_DB / 10);
    std::copy_backward(bands_.begin(), bands_.end() - 1, bands_.end());
    const float* const power = power_.data() + FIRST_BIN;
    float all = floor;
    for (std::size_t band = 0; band < BANDS; ++band) {
        float sum = floor;
        for (std::size_t bin = edges[band]; bin < edges[band + 1]; ++bin) {
            sum += power[bin];
        }
        bands_[0][band] = decibels(sum / FULL_SCALE_POWER);
        all += sum - floor;
    }
    level_ = decibels(all / FULL_SCALE_POWER);
    bits_ = 0;
    for (std::size_t n = 0; n < BITS; ++n) {
        bits_ |= static_cast<std::uint32_t>(growth(n) > 0) << n;
    }
}

float Fingerprint::growth(std::size_t n) const {
    const auto& now = bands_[0];
    const auto& before = bands_[BACK];
    return (now[n] - now[n + 1]) - (before[n] - before[n + 1]);
}

Fingerprint::Change Fingerprint::change(std::size_t n) const {
    const auto& now = bands_[0];
    const auto& before = bands_[BACK];
    return {std::abs(growth(n)),
            std::min(std::max(now[n], before[n]), std::max(now[n + 1], before[n + 1]))};
}

void Fingerprint::find_peaks() {
    std::copy(power_.begin() + FIRST_BIN, power_.begin() + FIRST_BIN + BINS,
              spectra_[frames_ % KEPT].begin());
    const auto& middle = spectra_[(frames_ + KEPT - REACH) % KEPT];
    Peaks& peaks = peaks_[frames_ % RING];
    for (std::size_t region = 0; region < REGIONS; ++region) {
        peaks[region] = peak_of(region);
        if (peaks[region] != NO_PEAK) {
            levels_[frames_ % RING][region] = decibels(middle[peaks[region]] / FULL_SCALE_POWER);
        }
    }
    pair_peaks();
}

// Returns the strongest bin of a region in the middle kept frame, if no neighbouring frame is
// stronger at that frequency.
std::uint8_t Fingerprint::peak_of(std::size_t region) const {
    static const float floor = FULL_SCALE_POWER * std::pow(10.0F, QUIETEST_DB / 10);
    const auto& middle = spectra_[(frames_ + KEPT - REACH) % KEPT];
    const std::size_t begin = REGION_EDGES[region];
    const std::size_t end = REGION_EDGES[region + 1];
    std::size_t peak = begin;
    float sum = 0;
    for (std::size_t bin = begin; bin < end; ++bin) {
        sum += middle[bin];
        peak = middle[bin] > middle[peak] ? bin : peak;
    }
    const float power = middle[peak];
    if (power < floor || power * static_cast<float>(end - begin) < sum * PEAK_TO_MEAN) {
        return NO_PEAK;
    }
    const std::size_t low = peak == 0 ? 0 : peak - 1;
    const std::size_t high = std::min(peak + 1, BINS - 1);
    if (middle[low] > power || middle[high] > power) {
        return NO_PEAK;  // The slope of a peak in the next region.
    }
    for (const auto& spectrum : spectra_) {
        if (std::max({spectrum[low], spectrum[peak], spectrum[high]}) > power) {
            return NO_PEAK;
        }
    }
    return static_cast<std::uint8_t>(peak);
}

void Fingerprint::pair_peaks() {
    for (std::size_t region = 0; region < REGIONS; ++region) {
        if (peaks()[region] != NO_PEAK) {
            for (std::size_t apart = SHORTEST_PAIR; apart <= LONGEST_PAIR; ++apart) {
                pair_with(region, apart);
            }
        }
    }
}

// Pairs the newest peak of a region with those that are this many frames older.
void Fingerprint::pair_with(std::size_t region, std::size_t apart) {
    constexpr auto widest = static_cast<int>(WIDEST_PAIR);
    const std::size_t before = (frames_ + RING - apart) % RING;
    for (std::size_t other = 0; other < REGIONS; ++other) {
        const std::uint8_t first = peaks_[before][other];
        const int difference = peaks()[region] - first;
        if (first == NO_PEAK || std::abs(difference) >= widest ||
            landmark_count_ == MOST_LANDMARKS) {
            continue;
        }
        const std::size_t pair =
            first * (2 * WIDEST_PAIR - 1) + static_cast<std::size_t>(difference + widest - 1);
        const std::size_t kind = pair * (LONGEST_PAIR - SHORTEST_PAIR + 1) + apart - SHORTEST_PAIR;
        landmarks_[landmark_count_++] = {static_cast<std::uint32_t>(kind),
                                         static_cast<std::uint32_t>(apart + REACH),
                                         peak_level(region) - levels_[before][other]};
    }
}

}  // namespace qv::node::analysis
