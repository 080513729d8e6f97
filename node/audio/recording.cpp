#include "node/audio/recording.h"

#include <algorithm>
#include <utility>

#include "node/report/text.h"

namespace qv::node {

namespace {

// A block may grow so many times over while its side's rate is not known.
constexpr std::size_t PATIENCE = 4;

std::string file_name(const std::string& stem, Side side) {
    return stem + '-' + name_of(side) + ".wav";
}

bool taken(const AudioStore& store, const std::string& stem) {
    return store.exists(file_name(stem, Side::ORIGINATOR)) ||
           store.exists(file_name(stem, Side::TERMINATOR)) || store.exists(stem + ".wav") ||
           store.exists(stem + ".svg");
}

std::string numbered(const std::string& stem, std::uint64_t number) {
    return number == 1 ? stem : stem + '-' + std::to_string(number);
}

}  // namespace

// Numbers are tried by doubling and then by halving: a sender may begin a call anew as
// often as it likes, and trying one after the other would make each time dearer.
std::string free_stem(const AudioStore& store, const Uuid& uuid) {
    const std::string first = uuid_text(uuid);
    std::uint64_t used_number = 0;
    std::uint64_t free_number = 1;
    while (taken(store, numbered(first, free_number))) {
        used_number = std::exchange(free_number, 2 * free_number);
    }
    while (free_number - used_number > 1) {
        const std::uint64_t middle = used_number + (free_number - used_number) / 2;
        (taken(store, numbered(first, middle)) ? used_number : free_number) = middle;
    }
    return numbered(first, free_number);
}

SideRecording::SideRecording(AudioStore& store, std::string stem, RateSource rate,
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
    for_each_silent_part(count, [this, side](const std::int16_t* zeros, std::size_t part) {
        audio(side, zeros, part);
    });
}

void SideRecording::pause(Side side, std::uint64_t count) {
    if (options_.keep_pauses) {
        silence(side, count);
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
    return static_cast<std::size_t>(std::count_if(
        tracks_.begin(), tracks_.end(),
        [](const Track& track) { return track.file != nullptr && !track.file->error().empty(); }));
}

std::vector<FileReport> SideRecording::files() const {
    std::vector<FileReport> reports;
    for (const Track& track : tracks_) {
        if (track.file != nullptr) {
            reports.push_back({track.file->path(), track.file->error()});
        }
    }
    return reports;
}

void SideRecording::write_block(Side side, bool last) {
    Track& from = track(side);
    if (from.file == nullptr) {
        const int rate =
            rate_(side, last || from.block.size() >= PATIENCE * options_.block_samples);
        if (rate == 0) {
            return;
        }
        create_file(side, rate);
    }
    from.file->write(from.block.data(), from.block.size());
    from.block.clear();
}

void SideRecording::create_file(Side side, int sample_rate) {
    track(side).file = store_.create(file_name(stem_, side), sample_rate, 1);
}

RecordingGroup::RecordingGroup(std::string stem, std::vector<std::unique_ptr<Recording>> members)
    : stem_(std::move(stem)), members_(std::move(members)) {}

void RecordingGroup::audio(Side side, const std::int16_t* samples, std::size_t count) {
    for (const auto& member : members_) {
        member->audio(side, samples, count);
    }
}

void RecordingGroup::silence(Side side, std::uint64_t count) {
    for (const auto& member : members_) {
        member->silence(side, count);
    }
}

void RecordingGroup::pause(Side side, std::uint64_t count) {
    for (const auto& member : members_) {
        member->pause(side, count);
    }
}

void RecordingGroup::finish() {
    for (const auto& member : members_) {
        member->finish();
    }
}

std::size_t RecordingGroup::failed_files() const {
    std::size_t count = 0;
    for (const auto& member : members_) {
        count += member->failed_files();
    }
    return count;
}

std::vector<FileReport> RecordingGroup::files() const {
    std::vector<FileReport> all;
    for (const auto& member : members_) {
        const std::vector<FileReport> some = member->files();
        all.insert(all.end(), some.begin(), some.end());
    }
    return all;
}

}  // namespace qv::node
