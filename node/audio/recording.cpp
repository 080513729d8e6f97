#include "node/audio/recording.h"

#include <algorithm>
#include <utility>

#include "node/audio/file_names.h"

namespace qv::node {

namespace {

// A block may grow to this many times its size while the sample rate of its side is unknown.
constexpr std::size_t RATE_PATIENCE_BLOCKS = 4;

}  // namespace

SideRecording::SideRecording(AudioStore& store, FileStem stem, RateSource rate,
                             const RecordingOptions& options)
    : store_(store), stem_(std::move(stem)), rate_(std::move(rate)), options_(options) {}

void SideRecording::audio(Side side, const std::int16_t* samples, std::size_t count) {
    Track& into = track(side);
    into.used = true;
    if (into.block.capacity() == 0) {
        into.block.reserve(options_.block_samples + media::MAX_AUDIO_SIZE / 2);
    }
    into.block.insert(into.block.end(), samples, samples + count);
    if (into.block.size() >= options_.block_samples) {
        write_block(side, false);
    }
}

void SideRecording::silence(Side side, std::uint64_t count) {
    if (count >= RATE_PATIENCE_BLOCKS * options_.block_samples) {
        track(side).used = true;
        write_block(side, true);
        track(side).file->write_silence(count);
        return;
    }
    for_each_silent_part(count, [this, side](const std::int16_t* zeros, std::size_t part) {
        audio(side, zeros, part);
    });
}

void SideRecording::pause(Side side, std::uint64_t count) {
    if (options_.keep_pauses) {
        silence(side, count);
    }
}

// Audio may have waited for a file until now.
void SideRecording::rate_changed(Side side, int former_rate) {
    Track& changed = track(side);
    if (std::exchange(changed.used, false)) {
        write_block(side, former_rate);
        changed.file->close();
        changed.complete.push_back(std::move(changed.file));
    }
}

void SideRecording::finish() {
    for (const Side side : BOTH_SIDES) {
        Track& ending = track(side);
        if (ending.used) {
            write_block(side, true);
            ending.file->close();
        }
    }
}

std::size_t SideRecording::failed_files() const {
    const auto failed = [](const std::unique_ptr<AudioFile>& file) {
        return file != nullptr && !file->error().empty();
    };
    std::size_t count = 0;
    for (const Track& track : tracks_) {
        count += failed(track.file) ? 1 : 0;
        count += static_cast<std::size_t>(
            std::count_if(track.complete.begin(), track.complete.end(), failed));
    }
    return count;
}

std::vector<FileReport> SideRecording::files() const {
    std::vector<FileReport> reports;
    for (const Track& track : tracks_) {
        for (const auto& file : track.complete) {
            reports.push_back(report_of(*file));
        }
        if (track.file != nullptr) {
            reports.push_back(report_of(*track.file));
        }
    }
    return reports;
}

bool SideRecording::completing() const {
    return std::any_of(tracks_.begin(), tracks_.end(), [](const Track& track) {
        return (track.file != nullptr && track.file->completing()) ||
               std::any_of(track.complete.begin(), track.complete.end(),
                           [](const auto& file) { return file->completing(); });
    });
}

void SideRecording::write_block(Side side, bool last) {
    Track& from = track(side);
    if (from.file != nullptr) {
        return write_block(side, 0);
    }
    const int rate =
        rate_(side, last || from.block.size() >= RATE_PATIENCE_BLOCKS * options_.block_samples);
    if (rate != 0) {
        write_block(side, rate);
    }
}

// The rate is that of a file that has yet to be created.
void SideRecording::write_block(Side side, int sample_rate) {
    Track& from = track(side);
    if (from.file == nullptr) {
        const std::size_t part = from.complete.size() + 1;
        from.file = store_.create(side_file_name(stem_(), side, part), sample_rate, 1);
    }
    from.file->take(from.block);
}

}  // namespace qv::node
