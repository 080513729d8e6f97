// Names the files of a call, and limits how many files one run may write.
//
// FileNames is the first of the outputs: it gives each call its file stem, which the outputs that
// write files read. The stem comes from a pattern, usually the call's UUID. If the pattern has the
// call reference, the stem is final when the start packet comes, or with the first audio before it.
// Any thread may call it.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "node/audio/audio_files.h"
#include "node/audio/name_pattern.h"
#include "node/calls/call_listener.h"
#include "node/calls/types.h"
#include "quorvane_lib/mutex.h"

namespace qv::node {

// STEM-originator.wav, STEM-terminator.wav; further parts, which begin where the side's sample
// rate changed, are called STEM-originator-part2.wav, and so on.
std::string side_file_name(const std::string& stem, Side side, std::size_t part = 1);
// STEM.wav
std::string stereo_file_name(const std::string& stem);
// STEM.svg
std::string timeline_file_name(const std::string& stem);
// STEM.json
std::string sidecar_file_name(const std::string& stem);

// Returns the name that an audio file had before it was converted, which must not be given again.
// Other names are returned as they are.
std::string wav_name(const std::string& name);

// Returns the stem for a first file of that name. If the store already has files of that call, it
// adds "-2", "-3" and so on: the next number, or a lower one that has become free. It asks the
// store a few times for each doubling of their count.
std::string free_stem(const AudioStore& store, const std::string& first);

class FileNames : public CallListener {
  public:
    struct Options {
        bool overwrite = false;            // Files of earlier runs may be overwritten.
        std::uint64_t max_files = 0;       // Of this run. 0: no limit.
        std::uint64_t files_per_call = 0;  // The most files that one call may write.
        NamePattern pattern{};
        std::function<std::string()> utc_time = [] { return std::string(); };  // The present one.
        // A call takes no files of another one that are not complete, even to overwrite them:
        // they are still being worked on.
        bool keep_incomplete = false;
    };

    // `files_made` returns how many files this run has written so far. `on_first_refusal` is called
    // when a call gets no files for the first time. Any thread must be able to call both, and to
    // ask the store for a name. The store must outlive this object.
    FileNames(const AudioStore& store, const Options& options,
              std::function<std::uint64_t()> files_made, std::function<void()> on_first_refusal);

    std::unique_ptr<CallListener> begin_call(Call& call) override QV_EXCLUDES(mutex_);

    // Of calls that go on, or whose files are not complete.
    std::vector<std::string> present_stems() const QV_EXCLUDES(mutex_);
    // Calls that got no files.
    std::uint64_t refused_calls() const QV_EXCLUDES(mutex_);

  private:
    class NamedCall;
    class UnnamedCall;

    // Present calls that have a stem: all of them have this UUID.
    struct StemUse {
        Uuid uuid;
        std::size_t calls = 0;
    };

    // Counts the call, and says whether it gets files.
    enum class Admission : unsigned char { NAMED, FIRST_REFUSED, REFUSED };
    Admission admit() QV_EXCLUDES(mutex_);
    bool used_up() const QV_REQUIRES(mutex_);
    std::string choose_stem(const Call& call, const std::string& utc_time) const
        QV_REQUIRES(mutex_);
    std::string take_stem(const Call& call, const std::string& utc_time) QV_EXCLUDES(mutex_);
    void give_back_stem(const std::string& stem) QV_EXCLUDES(mutex_);
    void end_call() QV_EXCLUDES(mutex_);

    const AudioStore& store_;
    const Options options_;
    const std::function<std::uint64_t()> files_made_;
    const std::function<void()> on_first_refusal_;
    mutable Mutex mutex_;
    std::uint64_t calls_ QV_GUARDED_BY(mutex_) = 0;                         // Present calls,
    std::unordered_map<std::string, StemUse> stems_ QV_GUARDED_BY(mutex_);  // and their stems.
    std::uint64_t refused_calls_ QV_GUARDED_BY(mutex_) = 0;
};

}  // namespace qv::node
