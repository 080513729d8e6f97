// A call in one file: originator left, terminator right, side by side in time.
//
// A side of which nothing comes while the other goes on is padded with silence, which counts
// as the beginning of a gap or pause that follows. Sides of different sample rates cannot
// share a file: each gets its own. So does a side that begins after the file was made, if its
// rate differs from the file's. Belongs to one thread.
#pragma once

#include <array>
#include <memory>
#include <string>
#include <vector>

#include "node/audio/recording.h"

namespace qv::node {

class StereoRecording : public Recording {
  public:
    // Writes STEM.wav. The store must outlive the recording.
    StereoRecording(AudioStore& store, std::string stem, RateSource rate,
                    const RecordingOptions& options);

    void audio(Side side, const std::int16_t* samples, std::size_t count) override;
    void silence(Side side, std::uint64_t count) override;
    void pause(Side side, std::uint64_t count) override { silence(side, count); }
    void finish() override;
    std::size_t failed_files() const override;
    std::vector<FileReport> files() const override;

  private:
    struct Track {
        std::vector<std::int16_t> waiting;  // For the other side.
        std::uint64_t padding = 0;          // Silence written in advance of what the side has sent.
        bool apart = false;                 // Goes to `split_`.
    };

    Track& track(Side side) { return tracks_[index_of(side)]; }
    std::size_t longest() const;
    std::size_t shorter() const;
    void append(Track& track, const std::int16_t* samples, std::size_t count);
    void write_what_is_due();
    void write_frames(std::size_t count);
    bool ready(bool last);
    void set_others_apart(const std::array<int, SIDE_COUNT>& rates, int rate);
    void set_apart(Side side);

    AudioStore& store_;
    std::string stem_;
    RateSource rate_;
    RecordingOptions options_;
    std::array<Track, SIDE_COUNT> tracks_;
    std::vector<std::int16_t> frames_;  // Scratch.
    std::unique_ptr<AudioFile> file_;
    int file_rate_ = 0;
    std::unique_ptr<SideRecording> split_;  // Takes the sides that are apart.
};

}  // namespace qv::node
