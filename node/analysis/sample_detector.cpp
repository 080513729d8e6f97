#include "node/analysis/sample_detector.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "node/analysis/place_filter.h"
#include "node/analysis/prefetch.h"

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

// The loss if the reference lacks a peak of the side. The index is the faintness of the peak: the
// louder it is, the higher the loss.
constexpr std::uint8_t STRANGE_LOSS[SampleIndex::FAINTEST + 1] = {8, 7, 5, 2, 0, 0, 0, 0};
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
// A candidate that has this score before its framing is chosen may be promising afterwards. With
// thousands of references, most candidates agree by chance, and few of those that are reported have
// less than the second score.
constexpr int WORTH_FRAMING = 93;
constexpr int WORTH_FRAMING_OF_MANY = 115;
constexpr int MOST = 1100;  // Limits the score, so that a candidate ends soon after its reference.

// The framing of a candidate is chosen over this many frames.
constexpr std::int64_t CHOICE = 24;

// The frames of a track are asked for this many frames before they are compared.
constexpr std::size_t FRAMES_AHEAD = 4;

// Framings of a reference that begin in the same hop.
constexpr auto PARTS = static_cast<std::int64_t>(SampleIndex::SHIFTS);

// Alignments of a reference that are closer than this count as one.
constexpr std::int64_t SAME_FRAMES = 3;

// Of a longer silence, only this much is processed. The rest is skipped in steps that are whole
// numbers of frames and, at every rate, of samples.
constexpr std::uint64_t SILENCE_HEARD_S = 1;
constexpr std::uint64_t STEP_S = 2;
constexpr std::int64_t STEP_FRAMES = STEP_S * ANALYSIS_RATE / HOP;

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
    return framing > 0 ? (framing + PARTS - 1) / PARTS : framing / PARTS;
}

std::uint8_t shift_of(std::int64_t framing) {
    return static_cast<std::uint8_t>(begin_of(framing) * PARTS - framing);
}

}  // namespace

SampleDetector::SampleDetector(std::shared_ptr<const SampleIndex> index, int sample_rate,
                               std::uint64_t position)
    : index_(std::move(index)),
      evidence_wanted_(evidence_wanted(index_->size())),
      worth_framing_(index_->size() >> MANY_DOUBLINGS == 0 ? WORTH_FRAMING : WORTH_FRAMING_OF_MANY),
      compare_(fastest_frame_comparison()),
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
        heard_.newest += static_cast<std::int64_t>(steps) * STEP_FRAMES;
        heard_.oldest = heard_.newest + 1;
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
    // The processor can wait for little memory at once, so the places are asked for in two parts.
    const LandmarkPlace* const half = list.data() + (count + 1) / 2;
    prefetch(list.data(), half);
    if (!fingerprint_.begin(hop_.data())) {
        return;
    }
    prefetch(half, list.data() + count);
    fingerprint_.finish();
    for (std::size_t i = 0; i < fingerprint_.landmark_count(); ++i) {
        index_->prefetch(fingerprint_.landmarks()[i]);
    }
    vote(list.data(), count);
    ++heard_.newest;
    heard_.oldest =
        std::max(heard_.oldest, heard_.newest + 1 - static_cast<std::int64_t>(HeardFrames::MOST));
    remember();
    for (Track& track : tracks_) {
        // If a candidate that was dropped agrees again, its landmarks find it again.
        track.used = track.used && goes_on(track) && (track.reported || track.score > 0);
    }
    report_convincing(out);
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
    }
    return count;
}

void SampleDetector::prefetch(const LandmarkPlace* begin, const LandmarkPlace* end) {
    std::for_each(begin, end,
                  [](const LandmarkPlace& each) { SampleIndex::prefetch(each.places); });
}

void SampleDetector::remember() {
    HeardFrame& heard = heard_[heard_.newest];
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
    // The frames of the candidates come from memory while the other landmarks vote.
    std::array<Candidate, 16> candidates;
    std::size_t candidate_count = 0;
    const auto consider_all = [&] {
        std::for_each(candidates.begin(), candidates.begin() + candidate_count,
                      [this](const Candidate& each) { consider(each); });
        candidate_count = 0;
    };
    for (const LandmarkPlace* each = list; each != list + count; ++each) {
        const std::int64_t at = heard_.newest - each->age;
        if (at < heard_.oldest) {
            continue;
        }
        const SampleIndex::BitsOfPair bits{
            heard_[at].bits,
            heard_[heard_.newest - static_cast<std::int64_t>(Fingerprint::REACH)].bits};
        const std::size_t alike_count = filter(each->places, bits, alike.data());
        for (std::size_t k = 0; k < alike_count; ++k) {
            const SampleIndex::Place& place = *alike[k].place;
            const Candidate candidate{place.reference, at - place.frame};
            if (vote_for(candidate, alike[k].evidence) && !is_tracked(candidate)) {
                if (candidate_count == candidates.size()) {
                    consider_all();
                }
                prefetch(candidate.reference, PARTS * candidate.begin);
                candidates[candidate_count++] = candidate;
            }
        }
    }
    consider_all();
}

// Returns whether there is enough evidence to compare frames.
bool SampleDetector::vote_for(const Candidate& candidate, int evidence) {
    constexpr int most = std::numeric_limits<std::uint8_t>::max();
    const auto now = static_cast<std::uint16_t>(heard_.newest);
    const std::uint32_t key = vote_key(candidate.reference, candidate.begin);
    Vote& vote = votes_[(key * 2654435761u) >> (32 - VOTE_BITS)];
    // Without branches, which would be predicted wrongly.
    const bool is_new =
        (vote.key != key) | (static_cast<std::uint16_t>(now - vote.frame) > VOTE_LIFE);
    vote.key = key;
    vote.frame = now;
    vote.evidence =
        static_cast<std::uint8_t>(std::min((is_new ? 0 : vote.evidence) + evidence, most));
    vote.wanted = is_new ? evidence_wanted_ : vote.wanted;
    if (vote.evidence < vote.wanted) {
        return false;
    }
    // A candidate that does not fit is compared again after twice as much new evidence.
    vote.evidence = 0;
    vote.wanted = static_cast<std::uint8_t>(std::min(2 * vote.wanted, most));
    return true;
}

bool SampleDetector::is_tracked(const Candidate& candidate) const {
    return std::any_of(tracks_.begin(), tracks_.end(), [=](const Track& track) {
        return track.used && track.reference == candidate.reference &&
               std::abs(track.begin - candidate.begin) <= SAME_FRAMES;
    });
}

// Chooses the framing that fits best, and follows the candidate if it fits well enough.
void SampleDetector::consider(const Candidate& candidate) {
    if (is_tracked(candidate)) {
        return;  // Since another candidate was considered.
    }
    const std::uint32_t reference = candidate.reference;
    std::int64_t framing = candidate.begin * PARTS;
    int most = agreement(reference, framing);
    if (most < worth_framing_) {
        return;
    }
    for (std::int64_t step = PARTS; step > 0; step /= 2) {
        const std::int64_t middle = framing;
        if (step > 1) {  // These are the next ones.
            prefetch(reference, middle - step / 2);
            prefetch(reference, middle + step / 2);
        }
        for (const std::int64_t each : {middle - step, middle + step}) {
            const int fit = agreement(reference, each);
            if (fit > most) {
                most = fit;
                framing = each;
            }
        }
    }
    if (most >= PROMISING) {
        follow(candidate, framing);
    }
}

void SampleDetector::follow(const Candidate& candidate, std::int64_t framing) {
    Track track;
    track.begin = begin_of(framing);
    track.shift = shift_of(framing);
    track.reference = candidate.reference;
    track.used = true;
    const SampleIndex::Frames frames = index_->frames(track.reference, track.shift);
    const std::int64_t from = std::max(heard_.oldest, track.begin);
    // The newest frame is compared when the next one is known.
    const auto count = static_cast<std::size_t>(std::max<std::int64_t>(0, heard_.newest - from));
    const auto at = static_cast<std::size_t>(from - track.begin);
    if (at + count > frames.size) {
        return;  // It has ended.
    }
    std::array<Comparison, HeardFrames::MOST> comparisons;
    compare_(heard_, {from, frames, at, count}, comparisons.data());
    for (std::size_t i = 0; i < count; ++i) {
        track.add(comparisons[i], from + static_cast<std::int64_t>(i));
    }
    const auto room =
        std::min_element(tracks_.begin(), tracks_.end(), [](const Track& a, const Track& b) {
            const auto worth = [](const Track& each) {
                return !each.used ? -1 : each.reported ? MOST + 1 : each.score;
            };
            return worth(a) < worth(b);
        });
    if (!room->used || (!room->reported && room->score < track.score)) {
        *room = track;
    }
}

// The newest frames of the side, over which the framing of a candidate is chosen.
FramesBeside SampleDetector::frames_beside(std::uint32_t reference, std::int64_t framing) const {
    const std::int64_t begin = begin_of(framing);
    const SampleIndex::Frames frames = index_->frames(reference, shift_of(framing));
    const std::int64_t end =
        std::min(heard_.newest + 1, begin + static_cast<std::int64_t>(frames.size));
    const std::int64_t first = std::max({heard_.oldest, begin, heard_.newest + 1 - CHOICE});
    return {first, frames, static_cast<std::size_t>(first - begin),
            static_cast<std::size_t>(std::max<std::int64_t>(0, end - first))};
}

// Candidates come from anywhere in the index, and a large index is not in the cache.
void SampleDetector::prefetch(std::uint32_t reference, std::int64_t framing) const {
    constexpr std::size_t line = 64 / sizeof(SampleIndex::Frame);  // Frames in a line of the cache.
    const FramesBeside beside = frames_beside(reference, framing);
    for (std::size_t i = 0; i < beside.count; i += line) {
        prefetch_line(beside.frames.begin + beside.begin + i);
    }
}

int SampleDetector::agreement(std::uint32_t reference, std::int64_t framing) const {
    const FramesBeside beside = frames_beside(reference, framing);
    std::array<Comparison, CHOICE> comparisons;
    compare_(heard_, beside, comparisons.data());
    int score = 0;
    int most = 0;
    for (std::size_t i = 0; i < beside.count; ++i) {
        score = std::max(0, score + comparisons[i].gain);
        most = std::max(most, score);
    }
    return most;
}

void SampleDetector::Track::add(const Comparison& comparison, std::int64_t frame) {
    if (score == 0) {
        bits = 0;
        different = 0;
        agreed_from = frame;
    }
    score = std::clamp(score + comparison.gain, 0, MOST);
    bits += comparison.reliable;
    different += comparison.different;
    if (comparison.gain > 0) {
        agreed_to = frame;
    }
}

// Compares the frame before the newest one. Returns whether the reference continues after it.
bool SampleDetector::goes_on(Track& track) const {
    const SampleIndex::Frames frames = index_->frames(track.reference, track.shift);
    const std::int64_t frame = heard_.newest - 1;
    const std::int64_t at = frame - track.begin;
    if (at < 0) {
        return true;
    }
    if (at >= static_cast<std::int64_t>(frames.size)) {
        return false;
    }
    prefetch_line(&frames[std::min(static_cast<std::size_t>(at) + FRAMES_AHEAD, frames.size - 1)]);
    Comparison comparison;
    compare_(heard_, {frame, frames, static_cast<std::size_t>(at), 1}, &comparison);
    track.add(comparison, frame);
    return true;
}

bool SampleDetector::convincing(const Track& track) const {
    const std::int64_t span = heard_.newest - track.agreed_from;
    const int enough = loudest_frame_ - quietest_frame_ < NOISY_RANGE_DB ? ENOUGH_IN_NOISE : ENOUGH;
    return track.score >= LEAST_SCORE && track.score + SPAN_SCORE * span >= enough;
}

void SampleDetector::report_convincing(SampleOutput& out) {
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
    if (tone_finder_.add(fingerprint_.power(), heard_.newest)) {
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
