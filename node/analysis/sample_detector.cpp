#include "node/analysis/sample_detector.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>

#include "node/analysis/peak_match.h"
#include "node/analysis/place_filter.h"

namespace qv::node::analysis {

namespace {

// Frames are compared after landmarks that agree on where a reference begins have given enough
// evidence, each at most this many frames after the one before.
constexpr std::uint32_t VOTE_LIFE = 64;
// With thousands of references, many landmarks agree by chance. So each time that the number of
// references doubles beyond 2^MANY_DOUBLINGS, more evidence is wanted. With less, too many
// references would be compared in vain; with more, references in noise would be missed.
constexpr int EVIDENCE_WANTED = 24;
constexpr int EVIDENCE_PER_DOUBLING = 6;
constexpr int MANY_DOUBLINGS = 10;

// Bits count less than their probability alone suggests, because the bits of overlapping frames
// depend on each other.
constexpr int BIT_GAIN = 1;
constexpr int BIT_LOSS = 3;  // In addition to the gain that is missed.
// The loss if the reference lacks a peak of the side. The index is the faintness of the peak: the
// louder it is, the higher the loss.
constexpr std::uint8_t STRANGE_LOSS[SampleIndex::FAINTEST + 1] = {8, 7, 5, 2, 0, 0, 0, 0};
// More than all losses of a region together.
constexpr std::uint8_t WEIGHT_OFFSET = 64;
constexpr float LOUDNESS_DECAY_DB = 0.3F;  // Per frame.

// A candidate is reported if its score is at least LEAST_SCORE, and at least ENOUGH when SPAN_SCORE
// is added for each frame that it has agreed. Chance agreement soon ends, while a reference in
// noise agrees less but continues.
constexpr int ENOUGH = 800;
constexpr int ENOUGH_IN_NOISE = 430;
constexpr int SPAN_SCORE = 8;
constexpr int LEAST_SCORE = 200;
// In noise, true candidates score less, but false candidates are rarer. A side is noisy if its
// level never falls further than this below the level of its loudest sound.
constexpr float NOISY_RANGE_DB = 22;
constexpr float RANGE_DECAY_DB = 0.05F;  // Per frame.

constexpr int PROMISING = 140;  // A candidate with this score is followed.
constexpr int MOST = 1100;  // Limits the score, so that a candidate ends soon after its reference.

// The framing of a candidate is chosen over this many frames.
constexpr std::int64_t CHOICE = 24;

// Frames of a reference in a line of the cache.
constexpr std::int64_t FRAMES_OF_LINE = 64 / sizeof(SampleIndex::Frame);

// Alignments of a reference that are closer than this count as one.
constexpr std::int64_t SAME_FRAMES = 3;

// Of a longer silence, only this much is processed. The rest is skipped in steps that are whole
// numbers of frames and, at every rate, of samples.
constexpr std::uint64_t SILENCE_HEARD_S = 1;
constexpr std::uint64_t STEP_S = 2;
constexpr std::int64_t STEP_FRAMES = STEP_S * ANALYSIS_RATE / HOP;

struct BitCounts {
    int first;
    int second;
};

// How many bits of each word are set. Not written with the processor's instruction, which not every
// processor has.
BitCounts count_bits_of_each(std::uint32_t first, std::uint32_t second) {
    std::uint64_t word = first | (std::uint64_t{second} << 32);
    word -= (word >> 1) & 0x5555555555555555u;
    word = (word & 0x3333333333333333u) + ((word >> 2) & 0x3333333333333333u);
    word = (word + (word >> 4)) & 0x0F0F0F0F0F0F0F0Fu;
    word += word >> 8;
    word += word >> 16;
    return {static_cast<int>(word & 0x3F), static_cast<int>((word >> 32) & 0x3F)};
}

int sum(RegionBytes bytes) {
    std::uint64_t word = 0;
    std::memcpy(&word, &bytes, sizeof word);
    constexpr std::uint64_t even = 0x00FF00FF00FF00FFu;
    word = (word & even) + ((word >> 8) & even);
    return static_cast<int>((word * 0x0001000100010001u) >> 48);
}

std::uint8_t evidence_wanted(std::size_t references) {
    int wanted = EVIDENCE_WANTED;
    for (std::size_t many = references >> MANY_DOUBLINGS; many > 0; many /= 2) {
        wanted += EVIDENCE_PER_DOUBLING;
    }
    return static_cast<std::uint8_t>(wanted);
}

std::uint32_t vote_key(std::uint32_t reference, std::int64_t begin) {
    return (reference << 16) | (static_cast<std::uint32_t>(begin) & 0xFFFFu);
}

// A framing is where a reference begins on the side, in parts of a hop. It is rounded up to a whole
// hop, and frames of the reference are shifted by the rest.
std::int64_t begin_of(std::int64_t framing) {
    constexpr auto parts = static_cast<std::int64_t>(SampleIndex::SHIFTS);
    return framing > 0 ? (framing + parts - 1) / parts : framing / parts;
}

std::uint8_t shift_of(std::int64_t framing) {
    constexpr auto parts = static_cast<std::int64_t>(SampleIndex::SHIFTS);
    return static_cast<std::uint8_t>(begin_of(framing) * parts - framing);
}

}  // namespace

SampleDetector::SampleDetector(std::shared_ptr<const SampleIndex> index, int sample_rate,
                               std::uint64_t position)
    : index_(std::move(index)),
      evidence_wanted_(evidence_wanted(index_->size())),
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
        tone_finder_.reset();
        heard_tone_count_ = 0;
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
    // The result has at most twice as many samples, because calls do not have rates below 4 kHz.
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

// The landmarks of a frame vote one frame later. Their places come from memory meanwhile: a large
// index does not fit into the cache, and the next frame takes longer to compute than memory to
// answer.
void SampleDetector::add_hop(SampleOutput& out) {
    LandmarkPlaces list;
    const std::size_t count = places_of_landmarks(list);
    const std::uint64_t before = fingerprint_.frames();
    fingerprint_.add(hop_.data());
    if (fingerprint_.frames() == before) {
        return;
    }
    for (std::size_t i = 0; i < fingerprint_.landmark_count(); ++i) {
        index_->prefetch(fingerprint_.landmarks()[i]);
    }
    vote(list.data(), count);
    ++frame_;
    first_ = std::max(first_, frame_ + 1 - static_cast<std::int64_t>(HISTORY));
    remember();
    for (Track& track : tracks_) {
        // If a candidate that was dropped agrees again, its landmarks find it again.
        track.used =
            track.used && advance(track, frame_ - 1) && (track.reported || track.score > 0);
    }
    follow(out);
    if (!index_->tones().empty()) {
        find_tones(out);
    }
}

// Returns how many landmarks the newest frame has.
std::size_t SampleDetector::places_of_landmarks(LandmarkPlaces& list) const {
    const std::size_t count = fingerprint_.landmark_count();
    for (std::size_t i = 0; i < count; ++i) {
        const Landmark& landmark = fingerprint_.landmarks()[i];
        list[i] = {index_->places(landmark), landmark.age};
        SampleIndex::prefetch(list[i].places);
    }
    return count;
}

void SampleDetector::remember() {
    Heard& heard = history_[static_cast<std::size_t>(frame_) % HISTORY];
    heard = {fingerprint_.bits(), fingerprint_.peaks(), {}};
    const float level = fingerprint_.level_db();
    if (level > Fingerprint::QUIETEST_DB + 3) {
        loudest_frame_ = std::max(level, loudest_frame_ - RANGE_DECAY_DB);
        quietest_frame_ = std::min(level, quietest_frame_ + RANGE_DECAY_DB);
    }
    std::array<float, Fingerprint::REGIONS> levels{};
    loudness_ -= LOUDNESS_DECAY_DB;
    for (std::size_t region = 0; region < levels.size(); ++region) {
        if (heard.peaks[region] != Fingerprint::NO_PEAK) {
            levels[region] = fingerprint_.peak_level(region);
            loudness_ = std::max(loudness_, levels[region]);
        }
    }
    for (std::size_t region = 0; region < levels.size(); ++region) {
        if (heard.peaks[region] != Fingerprint::NO_PEAK) {
            heard.losses[region] = STRANGE_LOSS[SampleIndex::faintness(loudness_ - levels[region])];
        }
    }
}

void SampleDetector::vote(const LandmarkPlace* list, std::size_t count) {
    static const PlaceFilter filter = fastest_place_filter();
    std::array<Alike, SampleIndex::MOST_PLACES> alike;
    for (const LandmarkPlace* each = list; each != list + count; ++each) {
        const std::int64_t at = frame_ - each->age;
        if (at < first_) {
            continue;
        }
        const SampleIndex::BitsOfPair bits{
            heard(at).bits, heard(frame_ - static_cast<std::int64_t>(Fingerprint::REACH)).bits};
        const std::size_t alike_count = filter(each->places, bits, alike.data());
        for (std::size_t k = 0; k < alike_count; ++k) {
            const SampleIndex::Place& place = *alike[k].place;
            vote_for(place.reference, at - place.frame, alike[k].evidence);
        }
    }
}

void SampleDetector::vote_for(std::uint32_t reference, std::int64_t begin, int evidence) {
    constexpr int most = std::numeric_limits<std::uint8_t>::max();
    const auto now = static_cast<std::uint16_t>(frame_);
    const std::uint32_t key = vote_key(reference, begin);
    Vote& vote = votes_[(key * 2654435761u) >> (32 - VOTE_BITS)];
    if (vote.key != key || static_cast<std::uint16_t>(now - vote.frame) > VOTE_LIFE) {
        vote = {key, now, 0, evidence_wanted_};
    }
    vote.frame = now;
    vote.evidence = static_cast<std::uint8_t>(std::min(vote.evidence + evidence, most));
    if (vote.evidence >= vote.wanted) {
        // A candidate that does not fit is compared again after twice as much new evidence.
        vote.evidence = 0;
        vote.wanted = static_cast<std::uint8_t>(std::min(2 * vote.wanted, most));
        consider(reference, begin);
    }
}

bool SampleDetector::is_tracked(std::uint32_t reference, std::int64_t begin) const {
    return std::any_of(tracks_.begin(), tracks_.end(), [=](const Track& track) {
        return track.used && track.reference == reference &&
               std::abs(track.begin - begin) <= SAME_FRAMES;
    });
}

// Chooses the framing that fits best, and follows the candidate if it fits well enough.
void SampleDetector::consider(std::uint32_t reference, std::int64_t begin) {
    if (is_tracked(reference, begin)) {
        return;
    }
    // Framings are numbered in parts of a hop.
    constexpr auto parts = static_cast<std::int64_t>(SampleIndex::SHIFTS);
    std::int64_t framing = begin * parts;
    int most = agreement(reference, framing);
    if (most < PROMISING * 2 / 3) {
        return;
    }
    for (std::int64_t step = parts; step > 0; step /= 2) {
        const std::int64_t middle = framing;
        for (const std::int64_t each : {middle - step, middle + step}) {
            const int fit = agreement(reference, each);
            if (fit > most) {
                most = fit;
                framing = each;
            }
        }
    }
    if (most < PROMISING) {
        return;
    }
    Track best;
    best.begin = begin_of(framing);
    best.shift = shift_of(framing);
    best.reference = reference;
    best.used = true;
    for (std::int64_t frame = std::max(first_, best.begin); frame < frame_; ++frame) {
        if (!advance(best, frame)) {
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

// Compares a frame of the side with frame `at` of a reference. A peak matches within one frame and
// one bin.
inline SampleDetector::Comparison SampleDetector::compare(const SampleIndex::Frames& frames,
                                                          std::int64_t at,
                                                          std::int64_t frame) const {
    const auto i = static_cast<std::size_t>(at);
    const SampleIndex::Frame& expected = frames[i];
    const Heard& now = heard(frame);
    const auto [reliable, different] =
        count_bits_of_each(expected.mask, (now.bits ^ expected.bits) & expected.mask);
    const RegionBytes present = matching(expected.peaks, heard(std::max(first_, frame - 1)).peaks,
                                         now.peaks, heard(std::min(frame_, frame + 1)).peaks);
    const RegionBytes known = matching(now.peaks, frames[i == 0 ? 0 : i - 1].peaks, expected.peaks,
                                       frames[std::min(i + 1, frames.size - 1)].peaks);
    // All weights are added up at once. The offset keeps each byte positive.
    const RegionBytes weights = WEIGHT_OFFSET + (all_regions(expected.gains) & present) -
                                (all_regions(expected.losses) & ~present) -
                                (all_regions(now.losses) & ~known);
    const int gain = BIT_GAIN * reliable - BIT_LOSS * different + sum(weights) -
                     static_cast<int>(WEIGHT_OFFSET * Fingerprint::REGIONS);
    return {gain, reliable, different};
}

int SampleDetector::agreement(std::uint32_t reference, std::int64_t framing) const {
    const std::int64_t begin = begin_of(framing);
    const SampleIndex::Frames frames = index_->frames(reference, shift_of(framing));
    const std::int64_t end = std::min(frame_ + 1, begin + static_cast<std::int64_t>(frames.size));
    const std::int64_t from = std::max({first_, begin, frame_ + 1 - CHOICE});
    // Candidates come from anywhere in the index, and a large index is not in the cache.
    for (std::int64_t at = from; at < end; at += FRAMES_OF_LINE) {
        __builtin_prefetch(frames.begin + (at - begin));
    }
    int score = 0;
    int most = 0;
    for (std::int64_t at = from; at < end; ++at) {
        score += compare(frames, at - begin, at).gain;
        score = std::max(score, 0);
        most = std::max(most, score);
    }
    return most;
}

// Returns whether the reference continues after this frame of the side.
bool SampleDetector::advance(Track& track, std::int64_t frame) const {
    const SampleIndex::Frames frames = index_->frames(track.reference, track.shift);
    const std::int64_t at = frame - track.begin;
    if (at < 0) {
        return true;
    }
    if (at >= static_cast<std::int64_t>(frames.size)) {
        return false;
    }
    const Comparison comparison = compare(frames, at, frame);
    if (track.score == 0) {
        track.bits = 0;
        track.different = 0;
        track.agreed_from = frame;
    }
    track.score = std::clamp(track.score + comparison.gain, 0, MOST);
    track.bits += static_cast<std::uint32_t>(comparison.reliable);
    track.different += static_cast<std::uint32_t>(comparison.different);
    if (comparison.gain > 0) {
        track.agreed_to = frame;
    }
    return true;
}

bool SampleDetector::convincing(const Track& track) const {
    const std::int64_t span = frame_ - track.agreed_from;
    const int enough = loudest_frame_ - quietest_frame_ < NOISY_RANGE_DB ? ENOUGH_IN_NOISE : ENOUGH;
    return track.score >= LEAST_SCORE && track.score + SPAN_SCORE * span >= enough;
}

void SampleDetector::follow(SampleOutput& out) {
    while (true) {
        Track* best = nullptr;
        for (Track& track : tracks_) {
            if (track.used && !track.reported && convincing(track) &&
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
    // A match of the same sound at another place of the same reference is not a second occurrence.
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

void SampleDetector::find_tones(SampleOutput& out) {
    if (tone_finder_.add(fingerprint_.power(), frame_)) {
        std::copy(heard_tones_.begin() + 1, heard_tones_.end(), heard_tones_.begin());
        heard_tones_.back() = tone_finder_.last();
        heard_tone_count_ = std::min(heard_tone_count_ + 1, heard_tones_.size());
        const Tone* const heard = heard_tones_.data() + heard_tones_.size() - heard_tone_count_;
        const SampleIndex::ToneReference* best = nullptr;
        std::int64_t begin = 0;
        double misfit = 2;
        for (const SampleIndex::ToneReference& each : index_->tones()) {
            std::int64_t its_begin = 0;
            double its_misfit = 0;
            if (each.pattern.ends(heard, heard_tone_count_, its_begin, its_misfit) &&
                its_misfit < misfit) {
                best = &each;
                begin = its_begin;
                misfit = its_misfit;
            }
        }
        if (best != nullptr) {
            report_tone(best->reference, begin, 1 - misfit, out);
        }
    }
    const Tone& current = tone_finder_.current();
    if (current.length() == TonePattern::LONGEST) {
        for (const SampleIndex::ToneReference& each : index_->tones()) {
            if (each.pattern.goes_on(current)) {
                report_tone(each.reference, current.begin - each.pattern.first().begin, 1, out);
                break;
            }
        }
    }
}

void SampleDetector::report_tone(std::uint32_t reference, std::int64_t begin, double score,
                                 SampleOutput& out) {
    // If the reference contains several repetitions of a cadence, they are one occurrence.
    if (reference == reported_tone_ && begin < reported_tone_end_) {
        return;
    }
    const SampleIndex::Reference& found = index_->reference(reference);
    reported_tone_ = reference;
    reported_tone_end_ = begin + static_cast<std::int64_t>(found.seconds * ANALYSIS_RATE / HOP);
    out.sample({reference, found.name, side_position(begin * static_cast<std::int64_t>(HOP)),
                position_, score});
}

std::int64_t SampleDetector::side_position(std::int64_t analysed) const {
    return static_cast<std::int64_t>(origin_) + analysed * sample_rate_ / ANALYSIS_RATE;
}

}  // namespace qv::node::analysis
