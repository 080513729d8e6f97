// A call in one file: originator left, terminator right, side by side in time.
//
// A side that is silent while the other goes on is filled with silence. Sides of
// different sample rates cannot share a file: they get one each; a side that begins once
// the file is there, with another rate than the file's, gets one of its own. Belongs to
// one thread.
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
        std::uint64_t lent = 0;             // Silence written ahead of what the side has sent.
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
