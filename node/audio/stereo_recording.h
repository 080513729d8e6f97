// Writes a call to one file, the originator left and the terminator right, aligned in time.
//
// If one side sends nothing while the other goes on, it is padded with silence. A gap or pause that
// follows is shortened by this padding. Sides with different sample rates cannot share a file: each
// gets a file of its own. So does a side that begins after the file was created, if its rate
// differs from the file's. Belongs to one thread.
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
        std::vector<std::int16_t> waiting;  // Samples that wait for the other side.
        std::uint64_t padding = 0;  // Silence written ahead of the audio that the side has sent.
        bool apart = false;         // Its samples go to `split_`.
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
    std::vector<std::int16_t> frames_;  // Reused buffer.
    std::unique_ptr<AudioFile> file_;
    int file_rate_ = 0;
    std::unique_ptr<SideRecording> split_;  // Takes the sides that are split off.
};

}  // namespace qv::node
