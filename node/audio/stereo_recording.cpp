#include "node/audio/stereo_recording.h"

#include <algorithm>
#include <utility>

#include "node/audio/file_names.h"

namespace qv::node {

namespace {

// A side waits for the other side until it has this many blocks.
constexpr std::size_t SIDE_PATIENCE_BLOCKS = 8;

}  // namespace

StereoRecording::StereoRecording(AudioStore& store, FileStem stem, RateSource rate,
                                 const RecordingOptions& options)
    : store_(store), stem_(std::move(stem)), rate_(std::move(rate)), options_(options) {}

void StereoRecording::audio(Side side, const std::int16_t* samples, std::size_t count) {
    if (track(side).apart) {
        return split_->audio(side, samples, count);
    }
    Track& into = placed_track(side);
    // Audio is also written if padding has taken its place. The side is late from then on.
    into.padding = 0;
    if (into.converter == nullptr) {
        append(into, samples, count);
        return;
    }
    into.converter->convert(samples, count, into.waiting);
    write_what_is_due();
}

void StereoRecording::silence(Side side, std::uint64_t count) {
    if (track(side).apart) {
        return split_->silence(side, count);
    }
    Track& into = placed_track(side);
    if (into.converter != nullptr) {
        into.converter->flush(into.waiting);
        count = into.converter->convert_silence(count);
    }
    append_silence(into, count);
}

// A side that begins after the file was created gets the file's rate when its own is known.
StereoRecording::Track& StereoRecording::placed_track(Side side) {
    Track& placed = track(side);
    if (options_.resample && file_ != nullptr && !placed.placed) {
        const int rate = rate_(side, false);
        if (rate != 0) {
            place(placed, rate);
        }
    }
    return placed;
}

void StereoRecording::append_silence(Track& track, std::uint64_t count) {
    const std::uint64_t written = std::min(count, track.padding);
    track.padding -= written;
    if (count - written >= SIDE_PATIENCE_BLOCKS * options_.block_samples) {
        write_silence(track, count - written);
    } else {
        append_zeros(track, count - written);
    }
}

void StereoRecording::append_zeros(Track& track, std::uint64_t count) {
    for_each_silent_part(
        count, [&](const std::int16_t* zeros, std::size_t part) { append(track, zeros, part); });
}

// Writes what waits, and then the silence of both sides at once: it may last for hours. The other
// side is padded.
void StereoRecording::write_silence(Track& track, std::uint64_t count) {
    Track& other = other_track(track);
    if (track.waiting.size() < other.waiting.size()) {
        const std::uint64_t beside =
            std::min<std::uint64_t>(count, other.waiting.size() - track.waiting.size());
        append_zeros(track, beside);
        count -= beside;
    }
    if (longest() > 0) {
        if (!ready(true)) {
            return append_zeros(track, count);
        }
        write_frames(longest());
    }
    if (file_ == nullptr || track.apart) {
        return append_zeros(track, count);
    }
    file_->write_silence(SIDE_COUNT * count);
    other.padding += count;
}

void StereoRecording::rate_changed(Side side, int former_rate) {
    Track& changed = track(side);
    if (!options_.resample) {
        split_off(side, former_rate);
        return;
    }
    const int rate = rate_(side, true);
    if (file_ == nullptr) {
        RateConverter converter(former_rate, rate);
        const auto waiting = std::exchange(changed.waiting, {});
        converter.convert(waiting.data(), waiting.size(), changed.waiting);
        converter.flush(changed.waiting);
        return;
    }
    place(changed, former_rate);
    if (changed.converter != nullptr) {
        changed.converter->flush(changed.waiting);
    }
    changed.converter =
        rate != file_rate_ ? std::make_unique<RateConverter>(rate, file_rate_) : nullptr;
}

std::size_t StereoRecording::longest() const {
    return std::max(tracks_[0].waiting.size(), tracks_[1].waiting.size());
}

std::size_t StereoRecording::shorter() const {
    return std::min(tracks_[0].waiting.size(), tracks_[1].waiting.size());
}

void StereoRecording::append(Track& track, const std::int16_t* samples, std::size_t count) {
    track.waiting.insert(track.waiting.end(), samples, samples + count);
    write_what_is_due();
}

void StereoRecording::write_what_is_due() {
    const std::size_t bound = SIDE_PATIENCE_BLOCKS * options_.block_samples;
    const bool last = longest() >= bound;
    if ((shorter() < options_.block_samples && !last) || !ready(last)) {
        return;
    }
    if (shorter() >= options_.block_samples) {
        write_frames(shorter());
    } else if (longest() >= bound) {
        write_frames(longest() / 2);
    }
}

// Writes `count` samples of each side. Pads a side that has fewer.
void StereoRecording::write_frames(std::size_t count) {
    frames_.resize(SIDE_COUNT * count);
    for (std::size_t channel = 0; channel < SIDE_COUNT; ++channel) {
        Track& from = tracks_[channel];
        if (from.waiting.size() < count) {
            from.padding += count - from.waiting.size();
            from.waiting.resize(count, 0);
        }
        for (std::size_t i = 0; i < count; ++i) {
            frames_[SIDE_COUNT * i + channel] = from.waiting[i];
        }
        from.waiting.erase(from.waiting.begin(),
                           from.waiting.begin() + static_cast<std::ptrdiff_t>(count));
    }
    file_->take(frames_);
}

// Creates the file if necessary, and splits off sides whose rate differs from the file's. Returns
// whether samples may go to the file: false while a rate is unknown (with `last`, one is decided
// on) and when both sides are split off.
bool StereoRecording::ready(bool last) {
    std::array<int, SIDE_COUNT> rates{};
    for (const Side side : BOTH_SIDES) {
        if (!track(side).waiting.empty() && !track(side).apart) {
            rates[index_of(side)] = rate_(side, last);
            if (rates[index_of(side)] == 0) {
                return false;
            }
        }
    }
    if (!options_.resample && file_ != nullptr) {
        set_others_apart(rates, file_rate_);
    } else if (!options_.resample && rates[0] != 0 && rates[1] != 0 && rates[0] != rates[1]) {
        set_others_apart(rates, 0);
    } else if (file_ == nullptr) {
        file_rate_ = std::max(rates[0], rates[1]);
        file_ = store_.create(stereo_file_name(stem_()), file_rate_, SIDE_COUNT);
    }
    place(rates);
    return longest() > 0;
}

void StereoRecording::place(const std::array<int, SIDE_COUNT>& rates) {
    for (const Side side : BOTH_SIDES) {
        if (rates[index_of(side)] != 0 && file_ != nullptr) {
            place(track(side), rates[index_of(side)]);
        }
    }
}

// The waiting samples, and those that follow, have this rate. They are converted to the file's.
void StereoRecording::place(Track& track, int rate) {
    if (std::exchange(track.placed, true) || rate == file_rate_) {
        return;
    }
    track.converter = std::make_unique<RateConverter>(rate, file_rate_);
    const std::vector<std::int16_t> waiting = std::exchange(track.waiting, {});
    track.converter->convert(waiting.data(), waiting.size(), track.waiting);
}

void StereoRecording::flush_converters() {
    for (Track& track : tracks_) {
        if (track.converter != nullptr) {
            track.converter->flush(track.waiting);
        }
    }
}

void StereoRecording::set_others_apart(const std::array<int, SIDE_COUNT>& rates, int rate) {
    for (const Side side : BOTH_SIDES) {
        if (rates[index_of(side)] != 0 && rates[index_of(side)] != rate) {
            set_apart(side);
        }
    }
}

// The waiting samples have the former rate. They go to the file that is open, if there is one.
void StereoRecording::split_off(Side side, int former_rate) {
    Track& changed = track(side);
    if (changed.apart) {
        split_->rate_changed(side, former_rate);
    } else if (file_ != nullptr) {
        make_split();
        changed.apart = true;
    } else if (!changed.waiting.empty()) {
        former_rate_ = former_rate;
        set_apart(side);
        former_rate_ = 0;
        split_->rate_changed(side, former_rate);
    }
}

void StereoRecording::make_split() {
    if (split_ == nullptr) {
        const RateSource rate = [this](Side of, bool last) {
            return former_rate_ != 0 ? former_rate_ : rate_(of, last);
        };
        split_ = std::make_unique<SideRecording>(
            store_, [this] { return stem_() + "-split"; }, rate, options_);
    }
}

void StereoRecording::set_apart(Side side) {
    make_split();
    track(side).apart = true;
    const std::vector<std::int16_t> waiting = std::exchange(track(side).waiting, {});
    split_->audio(side, waiting.data(), waiting.size());
}

void StereoRecording::finish() {
    flush_converters();
    if (longest() > 0 && ready(true)) {
        flush_converters();
        write_frames(longest());
    }
    if (split_ != nullptr) {
        split_->finish();
    }
    if (file_ != nullptr) {
        file_->close();
    }
}

bool StereoRecording::completing() const {
    return (file_ != nullptr && file_->completing()) || (split_ != nullptr && split_->completing());
}

std::size_t StereoRecording::failed_files() const {
    const std::size_t own = file_ != nullptr && !file_->error().empty() ? 1 : 0;
    return own + (split_ != nullptr ? split_->failed_files() : 0);
}

std::vector<FileReport> StereoRecording::files() const {
    std::vector<FileReport> reports;
    if (file_ != nullptr) {
        reports.push_back(report_of(*file_));
    }
    if (split_ != nullptr) {
        const std::vector<FileReport> apart = split_->files();
        reports.insert(reports.end(), apart.begin(), apart.end());
    }
    return reports;
}

}  // namespace qv::node
