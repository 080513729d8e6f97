// Finds the references of an index in the audio of one side.
//
// If landmarks of the audio also occur in a reference at the same distance, and sound alike, the
// reference becomes a candidate. A candidate is compared frame by frame, and reported when
// enough frames agree. All memory, about 20 KiB, is allocated at construction. Belongs to one
// thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "node/analysis/fingerprint.h"
#include "node/analysis/frame_comparison.h"
#include "node/analysis/resampler.h"
#include "node/analysis/sample_index.h"

namespace qv::node::analysis {

struct SampleFound {
    // The number of the reference in the index, and its name, which is valid as long as the index.
    std::size_t reference;
    const std::string& name;
    // The sample of the side at which the recording of the reference begins. It may lie before the
    // first sample that the detector received, and even below 0, if the side or the search began in
    // the middle of the recording.
    std::int64_t position;
    // Position up to which the side had been heard when this was decided.
    std::uint64_t heard;
    // How well the audio agrees with the reference. 1: no difference. 0: as much as unrelated
    // audio.
    double score;
};

class SampleOutput {
  public:
    virtual ~SampleOutput() = default;
    virtual void sample(const SampleFound& found) = 0;
};

class SampleDetector {
  public:
    // For a side of `sample_rate` Hz whose next sample is at `position`.
    SampleDetector(std::shared_ptr<const SampleIndex> index, int sample_rate,
                   std::uint64_t position = 0);

    // Processes the next samples of the side, any number of them.
    void add(const std::int16_t* samples, std::size_t count, SampleOutput& out);

    // The next samples are not available: a gap, a pause or silence of any length.
    void skip(std::uint64_t samples, SampleOutput& out);

    // The position of the next sample of the side.
    std::uint64_t position() const { return position_; }

  private:
    static constexpr std::size_t TRACKS = 24;
    static constexpr std::uint32_t VOTE_BITS = 9;

    // Landmarks that agree on where a reference begins.
    struct Vote {
        std::uint32_t key = 0;
        std::uint16_t frame = 0;    // When the last one was heard, modulo 2^16.
        std::uint8_t evidence = 0;  // Since frames were last compared; see evidence_of().
        std::uint8_t wanted = 0;    // Frames are compared when there is so much evidence.
    };

    // A reference that may be playing. Frame n of the side is its frame n - begin.
    struct Track {
        std::int64_t begin = 0;
        std::uint32_t reference = 0;
        std::uint8_t shift = 0;
        bool used = false;
        bool reported = false;
        std::int32_t score = 0;
        std::uint32_t bits = 0;       // Bits compared since the score was last 0.
        std::uint32_t different = 0;  // How many of them were different.
        std::int64_t agreed_from = 0;
        std::int64_t agreed_to = 0;  // Last frame of the side that agreed.

        void add(const Comparison& comparison, std::int64_t frame);
    };

    // The places of a landmark of the newest frame.
    struct LandmarkPlace {
        SampleIndex::Places places;
        std::uint32_t age;  // See Landmark.
    };
    using LandmarkPlaces = std::array<LandmarkPlace, Fingerprint::MOST_LANDMARKS>;

    // Where a reference may begin on the side.
    struct Candidate {
        std::uint32_t reference;
        std::int64_t begin;
    };

    void add_heard(const std::int16_t* samples, std::size_t count, SampleOutput& out);
    void add_hop(SampleOutput& out);
    std::size_t places_of_landmarks(LandmarkPlaces& list) const;
    static void prefetch(const LandmarkPlace* begin, const LandmarkPlace* end);
    void vote(const LandmarkPlace* list, std::size_t count);
    bool vote_for(const Candidate& candidate, int evidence);
    void consider(const Candidate& candidate);
    void follow(const Candidate& candidate, std::int64_t framing);
    bool is_tracked(const Candidate& candidate) const;
    bool goes_on(Track& track) const;
    void remember();
    FramesBeside frames_beside(std::uint32_t reference, std::int64_t framing) const;
    void prefetch(std::uint32_t reference, std::int64_t framing) const;
    int agreement(std::uint32_t reference, std::int64_t framing) const;
    bool convincing(const Track& track) const;
    void report_convincing(SampleOutput& out);
    void report(Track& track, SampleOutput& out);
    void find_tones(SampleOutput& out);
    void report_tone(std::uint32_t reference, std::int64_t begin, double score, SampleOutput& out);
    std::int64_t side_position(std::int64_t analysed) const;

    std::shared_ptr<const SampleIndex> index_;
    std::uint8_t evidence_wanted_;  // Of landmarks, before frames are compared.
    int worth_framing_;             // The score of a candidate whose framing is to be chosen.
    FrameComparison compare_;
    Resampler resampler_;
    int sample_rate_;
    std::uint64_t origin_;  // Sample of the side at which the first frame begins.
    std::uint64_t position_;
    Fingerprint fingerprint_;
    std::array<float, HOP> hop_{};
    std::size_t hop_size_ = 0;
    HeardFrames heard_;
    float loudness_ = Fingerprint::QUIETEST_DB;  // Level of the loudest recent peak.
    // Levels of the loudest and quietest frame of the last seconds.
    float loudest_frame_ = Fingerprint::QUIETEST_DB;
    float quietest_frame_ = 0;
    std::array<Vote, 1u << VOTE_BITS> votes_{};
    std::array<Track, TRACKS> tracks_{};

    ToneFinder tone_finder_;
    std::array<Tone, TonePattern::MOST_TONES> heard_tones_{};  // Newest last.
    std::size_t heard_tone_count_ = 0;
    std::uint32_t reported_tone_ = 0;      // The tone that was reported last.
    std::int64_t reported_tone_end_ = -1;  // The frame at which it ends.
};

}  // namespace qv::node::analysis
