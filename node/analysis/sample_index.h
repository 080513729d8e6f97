// The references that sides are searched for: recordings with names.
//
// An index is built once and never changes. Any number of detectors may share it, on any threads. A
// changed folder is read into a new index.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "node/analysis/fingerprint.h"
#include "node/analysis/large_pages.h"
#include "node/analysis/prefetch.h"
#include "node/analysis/tones.h"

namespace qv::node::analysis {

class SampleIndex {
  public:
    // The number of framings of a reference, because frames of a side may begin anywhere in a hop.
    static constexpr std::size_t SHIFTS = 4;

    // Bits of the frames of both peaks of a landmark; see Fingerprint.
    using BitsOfPair = std::array<std::uint32_t, 2>;

    // A place in a reference that has a landmark.
    struct Place {
        std::uint16_t reference;
        std::uint16_t frame;  // Of the first peak.
        BitsOfPair bits;
        BitsOfPair mask;  // The reliable bits.
    };

    // Places with fewer reliable bits are left out: they are found in too much other audio.
    static constexpr int LEAST_RELIABLE = 6;

    // A number for the peak of each region, 0 where the frame has none.
    using PeakWeights = std::array<std::uint8_t, Fingerprint::REGIONS>;

    // One frame of a reference; see Fingerprint.
    struct Frame {
        std::uint32_t bits;
        std::uint32_t mask;  // The reliable bits.
        Fingerprint::Peaks peaks;
        // How much the frame is supported by a side that has the peak, and contradicted by one that
        // lacks it.
        PeakWeights gains;
        PeakWeights losses;
    };
    // The faintness of a peak: 0 for the loudest, and 1 more for every FAINTNESS_DB decibels below
    // it, at most FAINTEST.
    static constexpr std::uint32_t FAINTEST = 7;
    static constexpr float FAINTNESS_DB = 7;
    static std::uint32_t faintness(float below_db) {
        return std::min(FAINTEST,
                        static_cast<std::uint32_t>(std::max(0.0F, below_db) / FAINTNESS_DB));
    }

    struct Reference {
        std::string name;
        double seconds = 0;
        // Of each framing: where its frames begin among those of all references, and their number,
        // which is 0 if the reference is a tone.
        std::array<std::size_t, SHIFTS> begin{};
        std::array<std::size_t, SHIFTS> size{};
    };

    // The number of references.
    std::size_t size() const { return references_.size(); }
    // `number` is below size().
    const Reference& reference(std::size_t number) const { return references_[number]; }

    struct Frames {
        const Frame* begin;
        std::size_t size;
        const Frame& operator[](std::size_t number) const { return begin[number]; }
    };
    // The frames of a reference. `shift` is below SHIFTS.
    Frames frames(std::size_t reference, std::size_t shift) const {
        const Reference& its = references_[reference];
        return {frames_.data() + its.begin[shift], its.size[shift]};
    }

    // The references that are tones.
    struct ToneReference {
        std::uint32_t reference;
        TonePattern pattern;
    };
    const std::vector<ToneReference>& tones() const { return tones_; }

    // The places of a landmark with about the same contrast, from begin to end. There are at most
    // MOST_PLACES.
    struct Places {
        const Place* begin;
        const Place* end;
    };
    Places places(const Landmark& landmark) const {
        const std::size_t kind = landmark.kind * CONTRASTS;
        const std::size_t from = kind + contrast_step(landmark.contrast - CONTRAST_OFF_DB);
        const std::size_t to = kind + contrast_step(landmark.contrast + CONTRAST_OFF_DB) + 1;
        return {places_.data() + starts_[from], places_.data() + starts_[to]};
    }
    static constexpr std::size_t MOST_PLACES = 48;
    // Loads what places() needs into the cache. A large index does not fit there, and to load
    // everything before any of it is used takes much less time.
    void prefetch(const Landmark& landmark) const {
        prefetch_line(&starts_[landmark.kind * CONTRASTS + contrast_step(landmark.contrast)]);
    }
    static void prefetch(const Places& places);

    // Approximate memory of the index, in bytes.
    std::size_t bytes() const;

  private:
    friend class SampleIndexBuilder;
    SampleIndex() = default;

    // Places of a kind are sorted by contrast. Noise and coding change it, but seldom by more than
    // CONTRAST_OFF_DB.
    static constexpr std::size_t CONTRASTS = 16;
    static constexpr float CONTRAST_STEP_DB = 3;
    static constexpr float CONTRAST_OFF_DB = 4;
    // places() returns those of at most this many steps of contrast.
    static constexpr auto STEPS =
        static_cast<std::size_t>(2 * CONTRAST_OFF_DB / CONTRAST_STEP_DB) + 2;
    // Of a kind and contrast, no more places than this are kept, so that a search does not take too
    // long.
    static constexpr std::size_t MOST_OF_CONTRAST = MOST_PLACES / STEPS;
    static std::size_t contrast_step(float contrast) {
        const float step = contrast / CONTRAST_STEP_DB + static_cast<float>(CONTRASTS) / 2;
        return static_cast<std::size_t>(std::clamp(step, 0.0F, static_cast<float>(CONTRASTS - 1)));
    }

    std::vector<Reference> references_;
    LargeVector<Frame> frames_;
    // By kind and contrast of landmark. The last entry is the end.
    LargeVector<std::uint32_t> starts_;
    LargeVector<Place> places_;
    std::vector<ToneReference> tones_;
};

// Collects references. Belongs to one thread.
class SampleIndexBuilder {
  public:
    static constexpr double SHORTEST_S = 0.5;     // Of sound, without silence before and after it.
    static constexpr double LONGEST_S = 15 * 60;  // Of the whole recording.
    static constexpr std::size_t MOST = 65'000;   // References.

    SampleIndexBuilder();
    ~SampleIndexBuilder();

    // Adds a recording of `sample_rate` Hz, with samples from -1 to 1. Returns why the reference is
    // refused, or an empty text. A refused reference is not in the index.
    std::string add(const std::string& name, const float* samples, std::size_t count,
                    int sample_rate);

    // Returns the index of everything that was added. The builder is then empty.
    std::shared_ptr<const SampleIndex> build();

  private:
    struct Entry {
        std::uint32_t kind_and_contrast;
        SampleIndex::Place place;
    };

    // A landmark of one framing of a reference.
    struct Seen {
        std::uint32_t kind;
        std::uint16_t first;  // Frames of its peaks.
        std::uint16_t second;
        std::size_t shift;
        float contrast;
    };

    using Framings = std::array<std::vector<SampleIndex::Frame>, SampleIndex::SHIFTS>;

    void fingerprint(const std::vector<float>& sound, SampleIndex::Reference& reference);
    void add_places(std::vector<Seen>& seen, const Framings& framings);

    using EntryIterator = std::vector<Entry>::iterator;
    static int reliable_bits(const SampleIndex::Place& place);
    static std::size_t prefer_reliable(EntryIterator begin, EntryIterator end);

    std::vector<SampleIndex::Reference> references_;
    LargeVector<SampleIndex::Frame> frames_;
    std::vector<Entry> entries_;
    std::vector<SampleIndex::ToneReference> tones_;
};

}  // namespace qv::node::analysis
