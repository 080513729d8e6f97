#include "node/audio/file_names.h"

#include <utility>

#include "node/calls/call.h"

namespace qv::node {

namespace {

bool taken(const AudioStore& store, const std::string& stem) {
    return store.exists(side_file_name(stem, Side::ORIGINATOR)) ||
           store.exists(side_file_name(stem, Side::TERMINATOR)) ||
           store.exists(stereo_file_name(stem)) || store.exists(timeline_file_name(stem));
}

std::string numbered(const std::string& stem, std::uint64_t number) {
    return number == 1 ? stem : stem + '-' + std::to_string(number);
}

}  // namespace

std::string side_file_name(const std::string& stem, Side side, std::size_t part) {
    return stem + '-' + name_of(side) + (part > 1 ? "-part" + std::to_string(part) : "") + ".wav";
}

std::string stereo_file_name(const std::string& stem) {
    return stem + ".wav";
}

std::string timeline_file_name(const std::string& stem) {
    return stem + ".svg";
}

// Doubles the number until it is free, then halves the interval. A sender may restart a call as
// often as it likes; trying every number would take longer each time.
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

FileNames::FileNames(const AudioStore& store, const Options& options,
                     std::function<std::uint64_t()> files_made,
                     std::function<void()> on_first_refusal)
    : store_(store),
      options_(options),
      files_made_(std::move(files_made)),
      on_first_refusal_(std::move(on_first_refusal)) {}

std::unique_ptr<CallListener> FileNames::begin_call(Call& call) {
    ++calls_;
    if (!used_up()) {
        call.set_file_stem(options_.overwrite ? uuid_text(call.uuid())
                                              : free_stem(store_, call.uuid()));
    } else if (++refused_calls_ == 1) {
        on_first_refusal_();
    }
    return nullptr;
}

void FileNames::ended(const Call& /*call*/, EndReason /*reason*/) {
    --calls_;
}

// Assumes that every present call writes as many files as it may: how many it writes is known only
// later.
bool FileNames::used_up() const {
    return options_.max_files != 0 &&
           files_made_() + calls_ * options_.files_per_call > options_.max_files;
}

}  // namespace qv::node
