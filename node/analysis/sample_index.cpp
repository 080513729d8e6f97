#include "node/analysis/sample_index.h"

#include <speex/speex_resampler.h>

#include <algorithm>
#include <bitset>
#include <cmath>
#include <iterator>
#include <numeric>
#include <tuple>
#include <utility>

#include "tools/format.h"
#include "tools/sample_time.h"
#include "tools/speex_resampler.h"

namespace qv::node::analysis {

namespace {

constexpr int RESAMPLER_QUALITY = 5;  // Of 0 to 10.
constexpr int LOWEST_RATE = 4000;
constexpr int HIGHEST_RATE = 384'000;
constexpr double SILENCE = 0.001;        // Amplitude, -60 decibels.
constexpr double SILENT_RANGE = 0.0178;  // Of the loudest piece: -35 decibels.
constexpr std::size_t PIECE = 80;        // The level is measured over this many samples.
// A bit is reliable if it has changed by at least this much; where it is quieter, by more.
constexpr float LEAST_CHANGE_DB = 2.5F;
constexpr float LOUD_DB = 14;           // Decibels below the loudest band of the reference.
constexpr float CHANGE_PER_DB = 0.25F;  // For each decibel below that.
constexpr float RANGE_DB = 45;
constexpr float NO_LEVEL = -200;
// Indexed by faintness. If a loud peak is missing, the reference is not playing; a faint one may be
// covered by noise.
constexpr std::uint8_t PEAK_GAIN[SampleIndex::FAINTEST + 1] = {26, 26, 26, 26, 26, 24, 20, 0};
constexpr std::uint8_t PEAK_LOSS[SampleIndex::FAINTEST + 1] = {17, 17, 15, 11, 7, 4, 2, 0};
// Reliable bits of a place that is preferred if not all places are kept.
constexpr int VERY_RELIABLE = 20;

std::vector<float> at_analysis_rate(const float* samples, std::size_t count, int rate) {
    std::vector<float> sound(samples, samples + count);
    if (rate == ANALYSIS_RATE) {
        return sound;
    }
    const tools::SpeexResampler state =
        tools::make_speex_resampler(rate, ANALYSIS_RATE, RESAMPLER_QUALITY);
    const std::size_t wanted = count * std::size_t{ANALYSIS_RATE} / static_cast<std::size_t>(rate);
    // Flushes the end through the filter.
    sound.resize(count + static_cast<std::size_t>(rate) / 10, 0.0F);
    std::vector<float> result(wanted);
    std::size_t read = 0;
    std::size_t written = 0;
    while (read < sound.size() && written < wanted) {
        auto in = static_cast<spx_uint32_t>(std::min<std::size_t>(sound.size() - read, 65536));
        auto out = static_cast<spx_uint32_t>(std::min<std::size_t>(wanted - written, 65536));
        speex_resampler_process_float(state.get(), 0, sound.data() + read, &in,
                                      result.data() + written, &out);
        read += in;
        written += out;
    }
    return result;
}

// Seconds from the first to the last piece that is not silent.
double seconds_of_sound(const std::vector<float>& sound) {
    std::vector<double> levels;
    for (std::size_t at = 0; at + PIECE <= sound.size(); at += PIECE) {
        double squares = 0;
        for (std::size_t i = at; i < at + PIECE; ++i) {
            squares += static_cast<double>(sound[i]) * static_cast<double>(sound[i]);
        }
        levels.push_back(std::sqrt(squares / PIECE));
    }
    if (levels.empty()) {
        return 0;
    }
    const double loudest = *std::max_element(levels.begin(), levels.end());
    const double least = std::max(SILENCE, loudest * SILENT_RANGE);
    const auto loud = [least](double level) { return level >= least; };
    const auto first = std::find_if(levels.begin(), levels.end(), loud);
    const auto last = std::find_if(levels.rbegin(), levels.rend(), loud).base();
    return first >= last ? 0 : static_cast<double>(last - first) * PIECE / double{ANALYSIS_RATE};
}

std::string seconds_text(double seconds) {
    return tools::format("%.2f s", seconds);
}

using Changes = std::array<Fingerprint::Change, Fingerprint::BITS>;

Changes changes_of(const Fingerprint& fingerprint) {
    Changes changes;
    for (std::size_t n = 0; n < changes.size(); ++n) {
        changes[n] = fingerprint.change(n);
    }
    return changes;
}

// Marks the bits that survive noise, coding and another voice: bits of loud bands that change much.
// In white noise 10 dB below the reference, seven of eight remain.
void mark_reliable(const std::vector<Changes>& changes, std::vector<SampleIndex::Frame>& frames) {
    float loudest = -200;
    for (const Changes& each : changes) {
        for (const Fingerprint::Change& change : each) {
            loudest = std::max(loudest, change.level);
        }
    }
    for (std::size_t i = 0; i < changes.size(); ++i) {
        for (std::size_t n = 0; n < Fingerprint::BITS; ++n) {
            const Fingerprint::Change& change = changes[i][n];
            const float below = loudest - change.level;
            const float wanted = LEAST_CHANGE_DB + std::max(0.0F, below - LOUD_DB) * CHANGE_PER_DB;
            if (below < RANGE_DB && change.difference >= wanted) {
                frames[i].mask |= std::uint32_t{1} << n;
            }
        }
    }
}

using PeakLevels = std::array<float, Fingerprint::REGIONS>;

PeakLevels peak_levels_of(const Fingerprint& fingerprint) {
    PeakLevels levels{};
    for (std::size_t region = 0; region < levels.size(); ++region) {
        const bool is_peak = fingerprint.peaks()[region] != Fingerprint::NO_PEAK;
        levels[region] = is_peak ? fingerprint.peak_level(region) : NO_LEVEL;
    }
    return levels;
}

// A level that few peaks exceed.
float loud_level(const std::vector<PeakLevels>& levels) {
    std::vector<float> all;
    for (const PeakLevels& each : levels) {
        std::copy_if(each.begin(), each.end(), std::back_inserter(all),
                     [](float level) { return level != NO_LEVEL; });
    }
    if (all.empty()) {
        return NO_LEVEL;
    }
    const auto loud = all.end() - 1 - static_cast<std::ptrdiff_t>(all.size() / 50);
    std::nth_element(all.begin(), loud, all.end());
    return *loud;
}

void weigh_peaks(const std::vector<PeakLevels>& levels, std::vector<SampleIndex::Frame>& frames) {
    const float loud = loud_level(levels);
    for (std::size_t i = 0; i < levels.size(); ++i) {
        for (std::size_t region = 0; region < Fingerprint::REGIONS; ++region) {
            if (frames[i].peaks[region] != Fingerprint::NO_PEAK) {
                const std::uint32_t faintness = SampleIndex::faintness(loud - levels[i][region]);
                frames[i].gains[region] = PEAK_GAIN[faintness];
                frames[i].losses[region] = PEAK_LOSS[faintness];
            }
        }
    }
}

// Appends silence, because the last frames and their peaks are complete only some frames after the
// sound.
std::vector<float> with_silence_behind(std::vector<float> sound) {
    sound.resize(sound.size() + FRAME + 4 * HOP, 0.0F);
    return sound;
}

// Empty unless the recording is a tone or a sequence of tones.
TonePattern tone_pattern(const std::vector<float>& sound) {
    const std::vector<float> padded = with_silence_behind(sound);
    Fingerprint fingerprint;
    ToneFinder finder;
    std::vector<Tone> tones;
    std::int64_t audible = 0;
    for (std::size_t at = 0; at + HOP <= padded.size(); at += HOP) {
        fingerprint.add(padded.data() + at);
        if (fingerprint.frames() == 0) {
            continue;
        }
        if (finder.add(fingerprint.power(), static_cast<std::int64_t>(fingerprint.frames()) - 1)) {
            tones.push_back(finder.last());
        }
        audible += finder.audible() ? 1 : 0;
    }
    return TonePattern(std::move(tones), audible);
}

}  // namespace

void SampleIndex::prefetch(const Places& places) {
    if (places.begin == places.end) {
        return;
    }
    constexpr std::size_t line = 64;  // Bytes of a line of the cache.
    const auto* const end = reinterpret_cast<const char*>(places.end);
    for (const auto* at = reinterpret_cast<const char*>(places.begin); at < end; at += line) {
        prefetch_line(at);
    }
    prefetch_line(end - 1);  // The last line, of which the others may have left out a part.
}

std::size_t SampleIndex::bytes() const {
    return sizeof *this + starts_.size() * sizeof starts_[0] + places_.size() * sizeof places_[0] +
           frames_.size() * sizeof frames_[0] + references_.size() * sizeof references_[0];
}

SampleIndexBuilder::SampleIndexBuilder() = default;
SampleIndexBuilder::~SampleIndexBuilder() = default;

std::string SampleIndexBuilder::add(const std::string& name, const float* samples,
                                    std::size_t count, int sample_rate) {
    if (sample_rate < LOWEST_RATE || sample_rate > HIGHEST_RATE) {
        return "sample rate " + std::to_string(sample_rate) + " Hz is not between " +
               std::to_string(LOWEST_RATE) + " and " + std::to_string(HIGHEST_RATE);
    }
    const double seconds = tools::seconds_of_samples(count, sample_rate);
    if (seconds > LONGEST_S) {
        return seconds_text(seconds) + " long, over " + seconds_text(LONGEST_S);
    }
    if (references_.size() == MOST) {
        return "more than " + std::to_string(MOST) + " references";
    }
    const std::vector<float> sound = at_analysis_rate(samples, count, sample_rate);
    const double audible = seconds_of_sound(sound);
    if (audible < SHORTEST_S) {
        return seconds_text(audible) + " of sound, less than " + seconds_text(SHORTEST_S);
    }
    SampleIndex::Reference reference;
    reference.name = name;
    reference.seconds = seconds;
    if (TonePattern pattern = tone_pattern(sound); !pattern.empty()) {
        tones_.push_back({static_cast<std::uint32_t>(references_.size()), std::move(pattern)});
    } else {
        fingerprint(sound, reference);
    }
    references_.push_back(std::move(reference));
    return {};
}

void SampleIndexBuilder::fingerprint(const std::vector<float>& sound,
                                     SampleIndex::Reference& reference) {
    const std::vector<float> padded = with_silence_behind(sound);
    Fingerprint fingerprint;
    std::vector<Seen> seen;
    Framings framings;
    for (std::size_t shift = 0; shift < SampleIndex::SHIFTS; ++shift) {
        fingerprint.reset(0);
        std::vector<SampleIndex::Frame>& frames = framings[shift];
        std::vector<Changes> changes;
        std::vector<PeakLevels> levels;
        for (std::size_t at = shift * HOP / SampleIndex::SHIFTS; at + HOP <= padded.size();
             at += HOP) {
            fingerprint.add(padded.data() + at);
            if (fingerprint.frames() == 0) {
                continue;
            }
            frames.push_back({fingerprint.bits(), 0, fingerprint.peaks(), {}, {}});
            levels.push_back(peak_levels_of(fingerprint));
            changes.push_back(changes_of(fingerprint));
            for (std::size_t i = 0; i < fingerprint.landmark_count(); ++i) {
                const Landmark& landmark = fingerprint.landmarks()[i];
                const std::uint64_t frame = fingerprint.frames() - 1;
                if (frame >= landmark.age) {
                    seen.push_back({landmark.kind, static_cast<std::uint16_t>(frame - landmark.age),
                                    static_cast<std::uint16_t>(frame - Fingerprint::REACH), shift,
                                    landmark.contrast});
                }
            }
        }
        mark_reliable(changes, frames);
        weigh_peaks(levels, frames);
        reference.begin[shift] = frames_.size();
        reference.size[shift] = frames.size();
        frames_.insert(frames_.end(), frames.begin(), frames.end());
    }
    add_places(seen, framings);
}

int SampleIndexBuilder::reliable_bits(const SampleIndex::Place& place) {
    return static_cast<int>(std::bitset<32>(place.mask[0]).count() +
                            std::bitset<32>(place.mask[1]).count());
}

// Returns how many of the places to choose from. If there are more than are kept, and enough of
// them are very reliable, these are moved to the beginning, and only they are chosen from.
std::size_t SampleIndexBuilder::prefer_reliable(EntryIterator begin, EntryIterator end) {
    const auto size = static_cast<std::size_t>(end - begin);
    if (size <= SampleIndex::MOST_OF_CONTRAST) {
        return size;
    }
    const auto others = std::stable_partition(
        begin, end, [](const Entry& entry) { return reliable_bits(entry.place) >= VERY_RELIABLE; });
    const auto very_reliable = static_cast<std::size_t>(others - begin);
    return very_reliable < SampleIndex::MOST_OF_CONTRAST ? size : very_reliable;
}

// Framings that have the same landmark become one place, with the bits in which they agree.
void SampleIndexBuilder::add_places(std::vector<Seen>& seen, const Framings& framings) {
    const auto number = static_cast<std::uint16_t>(references_.size());
    std::sort(seen.begin(), seen.end(), [](const Seen& a, const Seen& b) {
        return std::tie(a.kind, a.first, a.shift) < std::tie(b.kind, b.first, b.shift);
    });
    const auto frames_of = [&framings](const Seen& each) {
        const std::vector<SampleIndex::Frame>& frames = framings[each.shift];
        return std::array{frames[each.first], frames[each.second]};
    };
    for (auto at = seen.begin(); at != seen.end();) {
        const Seen& one = *at;
        const auto frames = frames_of(one);
        SampleIndex::Place place{
            number, one.first, {frames[0].bits, frames[1].bits}, {frames[0].mask, frames[1].mask}};
        float contrasts = 0;
        float count = 0;
        for (; at != seen.end() && at->kind == one.kind && at->first == one.first; ++at) {
            const auto others = frames_of(*at);
            for (std::size_t i = 0; i < others.size(); ++i) {
                place.mask[i] &= others[i].mask & ~(place.bits[i] ^ others[i].bits);
            }
            contrasts += at->contrast;
            ++count;
        }
        if (reliable_bits(place) < SampleIndex::LEAST_RELIABLE) {
            continue;
        }
        const std::size_t step = SampleIndex::contrast_step(contrasts / count);
        entries_.push_back(
            {static_cast<std::uint32_t>(one.kind * SampleIndex::CONTRASTS + step), place});
    }
}

std::shared_ptr<const SampleIndex> SampleIndexBuilder::build() {
    std::stable_sort(entries_.begin(), entries_.end(), [](const Entry& a, const Entry& b) {
        return a.kind_and_contrast < b.kind_and_contrast;
    });
    std::shared_ptr<SampleIndex> index(new SampleIndex);
    index->references_ = std::move(references_);
    index->frames_ = std::move(frames_);
    index->places_.reserve(entries_.size());
    index->starts_.assign(Fingerprint::KINDS * SampleIndex::CONTRASTS + 1, 0);
    for (auto begin = entries_.begin(); begin != entries_.end();) {
        const std::uint32_t kind = begin->kind_and_contrast;
        const auto end = std::find_if(begin, entries_.end(), [kind](const Entry& entry) {
            return entry.kind_and_contrast != kind;
        });
        const std::size_t size = prefer_reliable(begin, end);
        const std::size_t kept = std::min(size, SampleIndex::MOST_OF_CONTRAST);
        for (std::size_t i = 0; i < kept; ++i) {
            // All references alike give places. References that share many landmarks lose different
            // ones.
            const std::size_t chosen = (i * size / kept + kind) % size;
            index->places_.push_back(begin[static_cast<std::ptrdiff_t>(chosen)].place);
        }
        index->starts_[kind + 1] = static_cast<std::uint32_t>(kept);
        begin = end;
    }
    std::partial_sum(index->starts_.begin(), index->starts_.end(), index->starts_.begin());
    index->tones_ = std::move(tones_);
    references_.clear();
    frames_.clear();
    tones_.clear();
    entries_.clear();
    return index;
}

}  // namespace qv::node::analysis
