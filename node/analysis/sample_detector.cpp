#include "node/analysis/sample_detector.h"

#include <algorithm>
#include <utility>

namespace qv::node::analysis {

namespace {

// Landmarks that must agree, within how many frames, before frames are compared.
constexpr std::uint32_t VOTES_WANTED = 2;
constexpr std::uint32_t VOTE_LIFE = 64;

// Bits count less than each would alone: those of frames that overlap go together.
constexpr int BIT_GAIN = 1;
constexpr int BIT_LOSS = 3;  // Besides what it would have gained.
// By faintness: where a loud peak is missing, the reference does not play; a faint one may be
// covered by noise.
constexpr int PEAK_GAIN[SampleIndex::FAINTEST + 1] = {26, 26, 26, 26, 26, 24, 20, 0};
constexpr int PEAK_LOSS[SampleIndex::FAINTEST + 1] = {17, 17, 15, 11, 7, 4, 2, 0};

constexpr int ENOUGH = 400;    // Reported.
constexpr int PROMISING = 30;  // Followed.
constexpr int MOST = 800;  // So that what is over ends soon.     // So that what is over ends soon.

// Frames over which the framing of a candidate is chosen.
constexpr std::int64_t CHOICE = 24;

// Two alignments of a reference closer than this are one.
constexpr std::int64_t SAME_FRAMES = 3;

// Silence that is heard of a longer one; the rest is left out by steps that are whole
// numbers of frames and of samples at every rate.
constexpr std::uint64_t SILENCE_HEARD_S = 1;
constexpr std::uint64_t STEP_S = 2;
constexpr std::int64_t STEP_FRAMES = STEP_S * ANALYSIS_RATE / HOP;

int bits_set(std::uint32_t word) {
    return __builtin_popcount(word);
}

std::uint32_t vote_key(std::uint32_t reference, std::int64_t begin) {
    return (reference << 16) | (static_cast<std::uint32_t>(begin) & 0xFFFFu);
}

}  // namespace

SampleDetector::SampleDetector(std::shared_ptr<const SampleIndex> index, int sample_rate,
                               std::uint64_t position)
    : index_(std::move(index)),
      resampler_(sample_rate, ANALYSIS_RATE),
      sample_rate_(sample_rate),
      origin_(position),
      position_(position) {}

void SampleDetector::add(const std::int16_t* samples, std::size_t count, SampleOutput& out) {
    while (count > 0) {
        const std::size_t piece = std::min(count, Resampler::PIECE);
        add_heard(samples, piece, out);
        samples += piece;
        count -= piece;
    }
}

void SampleDetector::skip(std::uint64_t samples, SampleOutput& out) {
    static constexpr std::array<std::int16_t, Resampler::PIECE> silence{};
    const auto rate = static_cast<std::uint64_t>(sample_rate_);
    const std::uint64_t step = STEP_S * rate;
    if (samples > SILENCE_HEARD_S * rate + step) {
        skip(SILENCE_HEARD_S * rate, out);
        samples -= SILENCE_HEARD_S * rate;
        const std::uint64_t steps = samples / step;
        samples -= steps * step;
        position_ += steps * step;
        frame_ += static_cast<std::int64_t>(steps) * STEP_FRAMES;
        first_ = frame_ + 1;
        votes_ = {};
        for (Track& track : tracks_) {
            track.used = track.used && track.reported;
            track.score = 0;
        }
    }
    while (samples > 0) {
        const auto piece =
            static_cast<std::size_t>(std::min<std::uint64_t>(samples, silence.size()));
        add_heard(silence.data(), piece, out);
        samples -= piece;
    }
}

void SampleDetector::add_heard(const std::int16_t* samples, std::size_t count, SampleOutput& out) {
    // At most twice as many as came in: rates below 4 kHz do not occur in calls.
    std::array<float, 4 * Resampler::PIECE> converted;
    const std::size_t size = resampler_.convert(samples, count, converted.data());
    position_ += count;
    for (std::size_t at = 0; at < size;) {
        const std::size_t piece = std::min(size - at, HOP - hop_size_);
        std::copy_n(converted.data() + at, piece, hop_.data() + hop_size_);
        hop_size_ += piece;
        at += piece;
        if (hop_size_ == HOP) {
            hop_size_ = 0;
            add_hop(out);
        }
    }
}

void SampleDetector::add_hop(SampleOutput& out) {
    const std::uint64_t before = fingerprint_.frames();
    fingerprint_.add(hop_.data());
    if (fingerprint_.frames() == before) {
        return;
    }
    ++frame_;
    first_ = std::max(first_, frame_ + 1 - static_cast<std::int64_t>(HISTORY));
    history_[static_cast<std::size_t>(frame_) % HISTORY] = {fingerprint_.bits(),
                                                            fingerprint_.peaks()};
    for (Track& track : tracks_) {
        track.used = track.used && compare(track, frame_ - 1);
    }
    vote();
    follow(out);
}

void SampleDetector::vote() {
    const auto now = static_cast<std::uint32_t>(frame_);
    for (std::size_t i = 0; i < fingerprint_.landmark_count(); ++i) {
        const Landmark& landmark = fingerprint_.landmarks()[i];
        const std::int64_t at = frame_ - landmark.age;
        const SampleIndex::Places places = index_->places(landmark.kind);
        for (const SampleIndex::Place* place = places.begin; place != places.end; ++place) {
            const std::int64_t begin = at - place->frame;
            const std::uint32_t key = vote_key(place->reference, begin);
            Vote& vote = votes_[(key * 2654435761u) >> 24];
            if (vote.key != key || now - vote.frame > VOTE_LIFE) {
                vote = {key, now, 0};
            }
            vote.frame = now;
            if (++vote.count >= VOTES_WANTED) {
                consider(place->reference, begin);
            }
        }
    }
}

bool SampleDetector::is_tracked(std::uint32_t reference, std::int64_t begin) const {
    return std::any_of(tracks_.begin(), tracks_.end(), [=](const Track& track) {
        return track.used && track.reference == reference &&
               std::abs(track.begin - begin) <= SAME_FRAMES;
    });
}

// Finds the framing that fits best, and follows the candidate if it fits at all.
void SampleDetector::consider(std::uint32_t reference, std::int64_t begin) {
    if (is_tracked(reference, begin)) {
        return;
    }
    Track best;
    int most = 0;
    for (std::int64_t each = begin - 1; each <= begin + 1; ++each) {
        for (std::size_t shift = 0; shift < SampleIndex::SHIFTS; ++shift) {
            const int fit = agreement(reference, shift, each);
            if (fit > most) {
                most = fit;
                best.begin = each;
                best.shift = static_cast<std::uint8_t>(shift);
            }
        }
    }
    if (most < PROMISING) {
        return;
    }
    best.reference = reference;
    best.used = true;
    for (std::int64_t frame = std::max(first_, best.begin); frame < frame_; ++frame) {
        if (!compare(best, frame)) {
            return;
        }
    }
    const auto room =
        std::min_element(tracks_.begin(), tracks_.end(), [](const Track& a, const Track& b) {
            const auto worth = [](const Track& track) {
                return !track.used ? -1 : track.reported ? MOST + 1 : track.score;
            };
            return worth(a) < worth(b);
        });
    if (!room->used || (!room->reported && room->score < best.score)) {
        *room = best;
    }
}

int SampleDetector::agreement(std::uint32_t reference, std::size_t shift,
                              std::int64_t begin) const {
    const auto& frames = index_->reference(reference).frames[shift];
    const std::int64_t end = std::min(frame_ + 1, begin + static_cast<std::int64_t>(frames.size()));
    int sum = 0;
    int most = 0;
    for (std::int64_t at = std::max({first_, begin, frame_ + 1 - CHOICE}); at < end; ++at) {
        sum += gain(frames[static_cast<std::size_t>(at - begin)], at);
        sum = std::max(sum, 0);
        most = std::max(most, sum);
    }
    return most;
}

// What a frame of the side says for a frame of a reference, in tenths of the logarithm of how
// much more likely it is where the reference plays.
int SampleDetector::gain(const SampleIndex::Frame& expected, std::int64_t frame) const {
    const int bits = bits_set(expected.mask);
    const int different = bits_set((heard(frame).bits ^ expected.bits) & expected.mask);
    int gain = BIT_GAIN * bits - BIT_LOSS * different;
    unsigned faintness = expected.faintness;
    for (std::size_t region = 0; region < Fingerprint::REGIONS; ++region, faintness >>= 3) {
        const std::uint8_t bin = expected.peaks[region];
        if (bin != Fingerprint::NO_PEAK) {
            gain +=
                has_peak(frame, region, bin) ? PEAK_GAIN[faintness & 7] : -PEAK_LOSS[faintness & 7];
        }
    }
    return gain;
}

// Whether a frame, or one beside it, has a peak at or beside a bin.
bool SampleDetector::has_peak(std::int64_t frame, std::size_t region, std::uint8_t bin) const {
    for (std::int64_t at = std::max(first_, frame - 1); at <= std::min(frame_, frame + 1); ++at) {
        const std::uint8_t peak = heard(at).peaks[region];
        if (peak != Fingerprint::NO_PEAK && std::abs(peak - bin) <= 1) {
            return true;
        }
    }
    return false;
}

// Returns whether the reference goes on after this frame of the side.
bool SampleDetector::compare(Track& track, std::int64_t frame) const {
    const auto& frames = index_->reference(track.reference).frames[track.shift];
    const std::int64_t at = frame - track.begin;
    if (at < 0) {
        return true;
    }
    if (at >= static_cast<std::int64_t>(frames.size())) {
        return false;
    }
    const SampleIndex::Frame& expected = frames[static_cast<std::size_t>(at)];
    const int gained = gain(expected, frame);
    if (track.score == 0) {
        track.bits = 0;
        track.different = 0;
        track.agreed_from = frame;
    }
    track.score = std::clamp(track.score + gained, 0, MOST);
    track.bits += static_cast<std::uint32_t>(bits_set(expected.mask));
    track.different +=
        static_cast<std::uint32_t>(bits_set((heard(frame).bits ^ expected.bits) & expected.mask));
    if (gained > 0) {
        track.agreed_to = frame;
    }
    return true;
}

void SampleDetector::follow(SampleOutput& out) {
    while (true) {
        Track* best = nullptr;
        for (Track& track : tracks_) {
            if (track.used && !track.reported && track.score >= ENOUGH &&
                (best == nullptr || track.score > best->score)) {
                best = &track;
            }
        }
        if (best == nullptr) {
            return;
        }
        report(*best, out);
    }
}

void SampleDetector::report(Track& track, SampleOutput& out) {
    // The same sound at another place of the same reference is no second occurrence.
    for (Track& other : tracks_) {
        if (&other != &track && other.used && other.reference == track.reference &&
            (!other.reported || other.agreed_to >= track.agreed_from)) {
            if (other.reported) {
                track.used = false;
                return;
            }
            other.used = false;
        }
    }
    track.reported = true;
    const double alike = 1 - static_cast<double>(track.different) / std::max(1u, track.bits);
    const SampleIndex::Reference& reference = index_->reference(track.reference);
    const std::int64_t analysed =
        track.begin * static_cast<std::int64_t>(HOP) -
        static_cast<std::int64_t>(track.shift * HOP / SampleIndex::SHIFTS);
    out.sample({track.reference, reference.name, side_position(analysed), position_,
                std::clamp(2 * alike - 1, 0.0, 1.0)});
}

std::int64_t SampleDetector::side_position(std::int64_t analysed) const {
    return static_cast<std::int64_t>(origin_) + analysed * sample_rate_ / ANALYSIS_RATE;
}

}  // namespace qv::node::analysis
