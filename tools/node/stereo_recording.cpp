#include "tools/node/stereo_recording.h"

#include <algorithm>
#include <utility>

namespace qv::tools::node {

namespace {

// So many blocks of one side wait for the other side.
constexpr std::size_t PATIENCE = 8;

}  // namespace

StereoRecording::StereoRecording(AudioStore& store, std::string stem, RateSource rate,
                                 const RecordingOptions& options)
    : store_(store), stem_(std::move(stem)), rate_(std::move(rate)), options_(options) {}

void StereoRecording::audio(Side side, const std::int16_t* samples, std::size_t count) {
    if (split_ != nullptr) {
        return split_->audio(side, samples, count);
    }
    // Audio is never dropped to pay silence back: the side then is a little late.
    track(side).lent = 0;
    append(track(side), samples, count);
}

void StereoRecording::silence(Side side, std::uint64_t count) {
    if (split_ != nullptr) {
        return split_->silence(side, count);
    }
    Track& into = track(side);
    const std::uint64_t returned = std::min(count, into.lent);
    into.lent -= returned;
    for_each_silent_part(count - returned, [&](const std::int16_t* zeros, std::size_t part) {
        append(into, zeros, part);
    });
}

std::size_t StereoRecording::longest() const {
    return std::max(tracks_[0].waiting.size(), tracks_[1].waiting.size());
}

void StereoRecording::append(Track& track, const std::int16_t* samples, std::size_t count) {
    track.used = true;
    track.waiting.insert(track.waiting.end(), samples, samples + count);
    write_what_is_due();
}

void StereoRecording::write_what_is_due() {
    const std::size_t shorter = std::min(tracks_[0].waiting.size(), tracks_[1].waiting.size());
    if (shorter >= options_.block_samples) {
        write_frames(shorter, false);
    } else if (longest() >= PATIENCE * options_.block_samples) {
        write_frames(longest() / 2, true);
    }
}

// Writes `count` samples of each side, lending silence to a side that has fewer. Does
// nothing while the sample rate is not known, unless it must be known at `last`.
void StereoRecording::write_frames(std::size_t count, bool last) {
    if (file_ == nullptr && !open_file(last)) {
        return;
    }
    frames_.resize(SIDE_COUNT * count);
    for (std::size_t channel = 0; channel < SIDE_COUNT; ++channel) {
        Track& from = tracks_[channel];
        if (from.waiting.size() < count) {
            from.lent += count - from.waiting.size();
            from.waiting.resize(count, 0);
        }
        for (std::size_t i = 0; i < count; ++i) {
            frames_[SIDE_COUNT * i + channel] = from.waiting[i];
        }
        from.waiting.erase(from.waiting.begin(),
                           from.waiting.begin() + static_cast<std::ptrdiff_t>(count));
    }
    failed_ |= !file_->write(frames_.data(), frames_.size());
}

// False while a rate is not known, and when the sides turned out to differ.
bool StereoRecording::open_file(bool last) {
    std::array<int, SIDE_COUNT> rates{};
    for (const Side side : BOTH_SIDES) {
        if (track(side).used) {
            rates[index_of(side)] = rate_(side, last);
            if (rates[index_of(side)] == 0) {
                return false;
            }
        }
    }
    if (rates[0] != 0 && rates[1] != 0 && rates[0] != rates[1]) {
        split();
        return false;
    }
    file_ = store_.create(stem_ + ".wav", std::max(rates[0], rates[1]), SIDE_COUNT);
    return true;
}

void StereoRecording::split() {
    split_ = std::make_unique<SideRecording>(store_, stem_ + "-split", rate_, options_);
    for (const Side side : BOTH_SIDES) {
        const std::vector<std::int16_t> waiting = std::exchange(track(side).waiting, {});
        split_->audio(side, waiting.data(), waiting.size());
    }
}

void StereoRecording::finish() {
    if (split_ == nullptr && (tracks_[0].used || tracks_[1].used)) {
        write_frames(longest(), true);
    }
    if (split_ != nullptr) {
        split_->finish();
    } else if (file_ != nullptr) {
        failed_ |= !file_->close();
    }
}

bool StereoRecording::failed() const {
    return failed_ || (split_ != nullptr && split_->failed());
}

std::vector<FileReport> StereoRecording::files() const {
    if (split_ != nullptr) {
        return split_->files();
    }
    if (file_ == nullptr) {
        return {};
    }
    return {{file_->path(), file_->error()}};
}

}  // namespace qv::tools::node
