// The audio of one call on its way to files: gathers each side's samples into large
// blocks and writes those, to one file a side.
//
// A file is created when its first block is due, by when the sample rate is known. Files
// are named by the call's UUID alone; nothing that a sender chooses freely becomes part
// of a path. Belongs to one thread.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tools/node/audio_files.h"
#include "tools/node/types.h"

namespace qv::tools::node {

// What became of a file.
struct FileReport {
    std::string path;   // Empty when there was no audio to write.
    std::string error;  // Empty when all of it was written.
};

// Takes the audio of a call, in order per side.
class Recording {
  public:
    virtual ~Recording() = default;
    virtual void audio(Side side, const std::int16_t* samples, std::size_t count) = 0;
    virtual void silence(Side side, std::uint64_t count) = 0;
    // Writes what is left. Nothing may follow.
    virtual void finish() = 0;
    // Whether a file could not be written; files() then says which and why.
    virtual bool failed() const = 0;
    // The files so far.
    virtual std::vector<FileReport> files() const = 0;
};

// Tells a side's sample rate, 0 while it is not known; `last` when it must decide.
using RateSource = std::function<int(Side side, bool last)>;

class SideRecording : public Recording {
  public:
    // The store must outlive the recording.
    SideRecording(AudioStore& store, const Uuid& uuid, RateSource rate, std::size_t block_samples);

    void audio(Side side, const std::int16_t* samples, std::size_t count) override;
    void silence(Side side, std::uint64_t count) override;
    void finish() override;
    bool failed() const override { return failed_; }
    std::vector<FileReport> files() const override;

  private:
    struct Track {
        std::vector<std::int16_t> block;
        std::unique_ptr<AudioFile> file;
        bool used = false;
    };

    Track& track(Side side) { return tracks_[index_of(side)]; }
    void write_block(Side side, bool last);
    void create_file(Side side, int sample_rate);

    AudioStore& store_;
    std::string stem_;
    RateSource rate_;
    std::size_t block_samples_;
    std::array<Track, SIDE_COUNT> tracks_;
    bool failed_ = false;
};

// The UUID's text, with "-2", "-3"... when the store has files of that call already.
std::string free_stem(const AudioStore& store, const Uuid& uuid);

}  // namespace qv::tools::node
