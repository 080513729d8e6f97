#include "node/audio/file_names.h"

#include <algorithm>
#include <utility>

#include "node/audio/encoder.h"
#include "node/calls/call.h"

namespace qv::node {

namespace {

bool taken(const AudioStore& store, const std::string& stem) {
    return store.exists(side_file_name(stem, Side::ORIGINATOR)) ||
           store.exists(side_file_name(stem, Side::TERMINATOR)) ||
           store.exists(stereo_file_name(stem)) || store.exists(timeline_file_name(stem)) ||
           store.exists(sidecar_file_name(stem));
}

std::string numbered(const std::string& stem, std::uint64_t number) {
    return number == 1 ? stem : stem + '-' + std::to_string(number);
}

bool is_number(const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

// Returns the text behind the last dash. Empty if there is none.
std::string last_word(const std::string& stem) {
    const std::size_t dash = stem.rfind('-');
    return dash == std::string::npos ? "" : stem.substr(dash + 1);
}

// Whether the stem ends like the name of a file, which may have a number. Its files could then have
// the names of files of a call whose stem is the rest.
bool ends_like_a_file(const std::string& stem) {
    std::string end = last_word(stem);
    if (is_number(end)) {
        end = last_word(stem.substr(0, stem.rfind('-')));
    }
    const std::string part = "part";
    return end == "split" || end == name_of(Side::ORIGINATOR) || end == name_of(Side::TERMINATOR) ||
           (end.compare(0, part.size(), part) == 0 && is_number(end.substr(part.size())));
}

// Doubles the number until it is free, then halves the interval. Many calls may want the same
// stem; trying every number would take longer each time.
template <typename IsTaken>
std::string free_stem(const std::string& first, IsTaken is_taken) {
    std::uint64_t used_number = 0;
    std::uint64_t free_number = 1;
    while (is_taken(numbered(first, free_number))) {
        used_number = std::exchange(free_number, 2 * free_number);
    }
    while (free_number - used_number > 1) {
        const std::uint64_t middle = used_number + (free_number - used_number) / 2;
        (is_taken(numbered(first, middle)) ? used_number : free_number) = middle;
    }
    return numbered(first, free_number);
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

std::string sidecar_file_name(const std::string& stem) {
    return stem + ".json";
}

std::string wav_name(const std::string& name) {
    const std::size_t end = std::min(name.rfind('.'), name.size());
    for (const AudioFormat format : {AudioFormat::FLAC, AudioFormat::OPUS}) {
        if (name.compare(end, std::string::npos, ending_of(format)) == 0) {
            return name.substr(0, end) + ending_of(AudioFormat::WAV);
        }
    }
    return name;
}

std::string free_stem(const AudioStore& store, const std::string& first) {
    return free_stem(first, [&store](const std::string& stem) { return taken(store, stem); });
}

FileNames::FileNames(const AudioStore& store, const Options& options,
                     std::function<std::uint64_t()> files_made,
                     std::function<void()> on_first_refusal)
    : store_(store),
      options_(options),
      files_made_(std::move(files_made)),
      on_first_refusal_(std::move(on_first_refusal)) {}

// Names one call: before its start packet comes without the reference, and for good with the first
// audio, when files may be made.
class FileNames::NamedCall : public CallListener {
  public:
    NamedCall(FileNames& names, Call& call)
        : names_(names), call_(call), utc_time_(names.options_.utc_time()) {
        take_name();
    }
    NamedCall(const NamedCall&) = delete;
    NamedCall& operator=(const NamedCall&) = delete;
    ~NamedCall() override { names_.give_back_stem(call_.file_stem()); }

    void started(const Call& /*call*/, const media::Packet& /*packet*/) override {
        if (!final_) {
            names_.give_back_stem(call_.file_stem());
            take_name();
        }
    }
    void audio(const Call& /*call*/, Side /*side*/, const Audio& /*audio*/) override {
        final_ = true;
    }
    void ended(const Call& /*call*/, EndReason /*reason*/) override { names_.end_call(); }

  private:
    void take_name() { call_.set_file_stem(names_.take_stem(call_, utc_time_)); }

    FileNames& names_;
    Call& call_;
    const std::string utc_time_;
    bool final_ = false;
};

// A call that gets no files.
class FileNames::UnnamedCall : public CallListener {
  public:
    explicit UnnamedCall(FileNames& names) : names_(names) {}
    void ended(const Call& /*call*/, EndReason /*reason*/) override { names_.end_call(); }

  private:
    FileNames& names_;
};

std::unique_ptr<CallListener> FileNames::begin_call(Call& call) {
    const Admission admission = admit();
    if (admission == Admission::NAMED) {
        return std::make_unique<NamedCall>(*this, call);
    }
    if (admission == Admission::FIRST_REFUSED) {
        on_first_refusal_();
    }
    return std::make_unique<UnnamedCall>(*this);
}

FileNames::Admission FileNames::admit() {
    const LockGuard lock(mutex_);
    ++calls_;
    if (!used_up()) {
        return Admission::NAMED;
    }
    return ++refused_calls_ == 1 ? Admission::FIRST_REFUSED : Admission::REFUSED;
}

std::string FileNames::take_stem(const Call& call, const std::string& utc_time) {
    const LockGuard lock(mutex_);
    std::string stem = choose_stem(call, utc_time);
    StemUse& use = stems_[stem];
    use.uuid = call.uuid();
    ++use.calls;
    return stem;
}

void FileNames::give_back_stem(const std::string& stem) {
    const LockGuard lock(mutex_);
    const auto use = stems_.find(stem);
    if (--use->second.calls == 0) {
        stems_.erase(use);
    }
}

void FileNames::end_call() {
    const LockGuard lock(mutex_);
    --calls_;
}

std::uint64_t FileNames::refused_calls() const {
    const LockGuard lock(mutex_);
    return refused_calls_;
}

std::vector<std::string> FileNames::present_stems() const {
    const LockGuard lock(mutex_);
    std::vector<std::string> stems;
    stems.reserve(stems_.size());
    for (const auto& [stem, use] : stems_) {
        stems.push_back(stem);
    }
    return stems;
}

// Calls with different UUIDs that go on at the same time never share a stem. With --overwrite, a
// call that starts again takes the files of the one before it, which may not be complete yet.
std::string FileNames::choose_stem(const Call& call, const std::string& utc_time) const {
    const std::string reference = call.start().has_value() ? call.start()->call_reference : "";
    std::string wanted = options_.pattern.expand({uuid_text(call.uuid()), reference, utc_time});
    wanted += ends_like_a_file(wanted) ? "_" : "";
    // The analysis does not see that the lock is held while this runs.
    const auto is_used = [&](const std::string& stem) QV_NO_THREAD_SAFETY_ANALYSIS {
        const auto use = stems_.find(stem);
        return (use != stems_.end() &&
                (options_.keep_incomplete || use->second.uuid != call.uuid())) ||
               (!(options_.overwrite && stem == wanted) && taken(store_, stem));
    };
    return free_stem(wanted, is_used);
}

// Assumes that every present call writes as many files as it may: how many it writes is known only
// later.
bool FileNames::used_up() const {
    return options_.max_files != 0 &&
           files_made_() + calls_ * options_.files_per_call > options_.max_files;
}

}  // namespace qv::node
