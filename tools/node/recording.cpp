#include "tools/node/recording.h"

#include <algorithm>
#include <utility>

#include "tools/node/text.h"

namespace qv::tools::node {

namespace {

// A block may grow so many times over while its side's rate is not known.
constexpr std::size_t PATIENCE = 4;

std::string file_name(const std::string& stem, Side side) {
    return stem + '-' + name_of(side) + ".wav";
}

bool taken(const AudioStore& store, const std::string& stem) {
    return store.exists(file_name(stem, Side::ORIGINATOR)) ||
           store.exists(file_name(stem, Side::TERMINATOR)) || store.exists(stem + ".wav");
}

}  // namespace

std::string free_stem(const AudioStore& store, const Uuid& uuid) {
    const std::string first = uuid_text(uuid);
    std::string stem = first;
    for (unsigned number = 2; taken(store, stem); ++number) {
        stem = first + '-' + std::to_string(number);
    }
    return stem;
}

SideRecording::SideRecording(AudioStore& store, const Uuid& uuid, RateSource rate,
                             std::size_t block_samples)
    : store_(store),
      stem_(free_stem(store, uuid)),
      rate_(std::move(rate)),
      block_samples_(block_samples) {}

void SideRecording::audio(Side side, const std::int16_t* samples, std::size_t count) {
    Track& into = track(side);
    into.used = true;
    if (into.block.capacity() == 0) {
        into.block.reserve(block_samples_ + media::MAX_AUDIO_SIZE / 2);
    }
    into.block.insert(into.block.end(), samples, samples + count);
    if (into.block.size() >= block_samples_) {
        write_block(side, false);
    }
}

void SideRecording::silence(Side side, std::uint64_t count) {
    static constexpr std::array<std::int16_t, 4096> ZEROS{};
    while (count > 0) {
        const auto part = std::min<std::uint64_t>(count, ZEROS.size());
        audio(side, ZEROS.data(), static_cast<std::size_t>(part));
        count -= part;
    }
}

void SideRecording::finish() {
    for (const Side side : BOTH_SIDES) {
        Track& ending = track(side);
        if (ending.used) {
            write_block(side, true);
            failed_ |= !ending.file->close();
        }
    }
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
        const int rate = rate_(side, last || from.block.size() >= PATIENCE * block_samples_);
        if (rate == 0) {
            return;
        }
        create_file(side, rate);
    }
    failed_ |= !from.file->write(from.block.data(), from.block.size());
    from.block.clear();
}

void SideRecording::create_file(Side side, int sample_rate) {
    track(side).file = store_.create(file_name(stem_, side), sample_rate, 1);
}

}  // namespace qv::tools::node
