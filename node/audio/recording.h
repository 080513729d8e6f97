// Writes the audio of one call to one file per side, in large blocks.
//
// A file is created when its first block is due; the sample rate is known by then. A side whose
// rate changes continues in a new file. Belongs to one thread.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "node/audio/audio_files.h"
#include "node/calls/call_listener.h"
#include "node/calls/types.h"

namespace qv::node {

// Receives the audio of a call, in order within each side.
class Recording {
  public:
    virtual ~Recording() = default;
    virtual void audio(Side side, const std::int16_t* samples, std::size_t count) = 0;
    // Audio that was lost.
    virtual void silence(Side side, std::uint64_t count) = 0;
    // Time in which the sender sent nothing, although no audio is missing.
    virtual void pause(Side side, std::uint64_t count) = 0;
    // The side's audio had `former_rate` Hz up to here. From here on its rate is that of the
    // RateSource.
    virtual void rate_changed(Side side, int former_rate) = 0;
    // Writes the collected samples and closes the files. No audio may follow.
    virtual void finish() = 0;
    // How many files could not be written. files() says which ones and why.
    virtual std::size_t failed_files() const = 0;
    // The files so far.
    virtual std::vector<FileReport> files() const = 0;
    // Whether files are still being completed after finish().
    virtual bool completing() const = 0;
};

// Returns the sample rate of a side in Hz, or 0 if it is unknown. With `last`, it decides on a
// rate.
using RateSource = std::function<int(Side side, bool last)>;

// Returns the beginning of the names of the files. It is asked when a file is made.
using FileStem = std::function<std::string()>;

struct RecordingOptions {
    std::size_t block_samples = std::size_t{16} * 1024;
    bool keep_pauses = false;  // In files of one side. Stereo files always keep them.
    bool resample = true;      // Whether sides of different rates share a stereo file.
};

// One file per side and sample rate: STEM-originator.wav and STEM-terminator.wav.
class SideRecording : public Recording {
  public:
    // The store must outlive the recording.
    SideRecording(AudioStore& store, FileStem stem, RateSource rate,
                  const RecordingOptions& options);

    void audio(Side side, const std::int16_t* samples, std::size_t count) override;
    void silence(Side side, std::uint64_t count) override;
    void pause(Side side, std::uint64_t count) override;
    void rate_changed(Side side, int former_rate) override;
    void finish() override;
    std::size_t failed_files() const override;
    std::vector<FileReport> files() const override;
    bool completing() const override;

  private:
    struct Track {
        std::vector<std::int16_t> block;
        std::unique_ptr<AudioFile> file;
        std::vector<std::unique_ptr<AudioFile>> complete;  // Files of former rates.
        bool used = false;  // Whether audio came since the rate changed.
    };

    Track& track(Side side) { return tracks_[index_of(side)]; }
    void write_block(Side side, bool last);
    void write_block(Side side, int sample_rate);

    AudioStore& store_;
    FileStem stem_;
    RateSource rate_;
    RecordingOptions options_;
    std::array<Track, SIDE_COUNT> tracks_;
};

// What reports say of a file.
inline FileReport report_of(const AudioFile& file) {
    return {file.path(), file.error(), file.dropped_samples(), file.facts()};
}

// Calls `use(zeros, size)` until `count` zeros have been used.
template <typename Use>
void for_each_silent_part(std::uint64_t count, Use use) {
    static constexpr std::array<std::int16_t, 4096> zeros{};
    while (count > 0) {
        const auto part = static_cast<std::size_t>(std::min<std::uint64_t>(count, zeros.size()));
        use(zeros.data(), part);
        count -= part;
    }
}

}  // namespace qv::node
