#include "node/audio/recorder.h"

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

#include "node/audio/stereo_recording.h"
#include "node/calls/call.h"

namespace qv::node {

namespace {

// How often the files of a call are asked whether they have failed. With thousands of calls that
// takes time, because little of it is in the cache.
constexpr Micros LOOK{250'000};

// The recordings of one call.
class RecordedCall : public CallListener {
  public:
    RecordedCall(Call& call, std::vector<std::unique_ptr<Recording>> recordings)
        : call_(call), recordings_(std::move(recordings)) {}

    void audio(const Call& call, Side side, const Audio& audio) override {
        if (!call.side(side).running().recording) {
            silence(side, audio.count);
            return;
        }
        begin(side);
        for (const auto& recording : recordings_) {
            recording->audio(side, audio.samples, audio.count);
        }
    }

    void gap(const Call& /*call*/, Side side, const Gap& gap) override {
        silence(side, gap.filled_samples);
    }

    void pause(const Call& /*call*/, Side side, const Pause& pause) override {
        Unrecorded& unrecorded = unrecorded_[index_of(side)];
        if (!unrecorded.over) {
            unrecorded.pauses += pause.samples;
            return;
        }
        for (const auto& recording : recordings_) {
            recording->pause(side, pause.samples);
        }
    }

    void rate_changed(const Call& /*call*/, Side side, const RateChange& change) override {
        Unrecorded& unrecorded = unrecorded_[index_of(side)];
        if (!unrecorded.over) {
            // The first file will have the new rate, so these times are counted at it.
            const auto scaled = [&change](std::uint64_t count) {
                return static_cast<std::uint64_t>(seconds_of(count, change.old_rate) *
                                                  change.new_rate);
            };
            unrecorded.silence = scaled(unrecorded.silence);
            unrecorded.pauses = scaled(unrecorded.pauses);
            return;
        }
        for (const auto& recording : recordings_) {
            recording->rate_changed(side, change.old_rate);
        }
    }

    void tick(const Call& /*call*/, Micros now) override {
        if (now - looked_at_ >= LOOK) {
            looked_at_ = now;
            report_failures();
        }
    }

    void closing(const Call& /*call*/, EndReason /*reason*/) override {
        for (const auto& recording : recordings_) {
            recording->finish();
        }
    }

    bool completing(const Call& /*call*/) const override {
        return std::any_of(recordings_.begin(), recordings_.end(),
                           [](const auto& recording) { return recording->completing(); });
    }

    void summing_up(const Call& /*call*/, EndReason /*reason*/) override {
        report_failures();
        for (FileReport& file : files()) {
            call_.add_file(std::move(file));
        }
    }

  private:
    // Silence and pauses of a side before it is recorded for the first time. They are kept back,
    // because a side that is never recorded has no file.
    struct Unrecorded {
        bool over = false;
        std::uint64_t silence = 0;
        std::uint64_t pauses = 0;
    };

    // Silence takes the place of audio that is missing or must not be recorded. Sample n of a file
    // is therefore sample n of its side.
    void silence(Side side, std::uint64_t count) {
        Unrecorded& unrecorded = unrecorded_[index_of(side)];
        if (!unrecorded.over) {
            unrecorded.silence += count;
            return;
        }
        for (const auto& recording : recordings_) {
            recording->silence(side, count);
        }
    }

    void begin(Side side) {
        Unrecorded& unrecorded = unrecorded_[index_of(side)];
        if (unrecorded.over) {
            return;
        }
        unrecorded.over = true;
        for (const auto& recording : recordings_) {
            recording->silence(side, unrecorded.silence);
            recording->pause(side, unrecorded.pauses);
        }
    }

    std::vector<FileReport> files() const {
        std::vector<FileReport> all;
        for (const auto& recording : recordings_) {
            const std::vector<FileReport> some = recording->files();
            all.insert(all.end(), some.begin(), some.end());
        }
        return all;
    }

    // Each file is reported once.
    void report_failures() {
        std::size_t failed = 0;
        for (const auto& recording : recordings_) {
            failed += recording->failed_files();
        }
        if (failed == reported_.size()) {
            return;
        }
        for (const FileReport& file : files()) {
            if (!file.error.empty() &&
                std::find(reported_.begin(), reported_.end(), file.path) == reported_.end()) {
                reported_.push_back(file.path);
                call_.report_failed_file(file);
            }
        }
    }

    Call& call_;
    std::vector<std::unique_ptr<Recording>> recordings_;
    std::array<Unrecorded, SIDE_COUNT> unrecorded_;
    std::vector<std::string> reported_;  // Paths of failed files.
    Micros looked_at_{0};                // When it was last looked for others.
};

}  // namespace

std::unique_ptr<CallListener> Recorder::begin_call(Call& call) {
    if (call.file_stem().empty()) {
        return nullptr;
    }
    const RateSource rate = [&call](Side side, bool last) {
        return last ? call.decide_rate(side) : call.side(side).sample_rate();
    };
    const FileStem stem = [&call] { return call.file_stem(); };
    std::vector<std::unique_ptr<Recording>> recordings;
    if (options_.sides) {
        recordings.push_back(
            std::make_unique<SideRecording>(store_, stem, rate, options_.recording));
    }
    if (options_.stereo) {
        recordings.push_back(
            std::make_unique<StereoRecording>(store_, stem, rate, options_.recording));
    }
    return std::make_unique<RecordedCall>(call, std::move(recordings));
}

}  // namespace qv::node
