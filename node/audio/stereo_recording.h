// Writes a call to one file, the originator left and the terminator right, aligned in time.
//
// If one side sends nothing while the other goes on, it is padded with silence. A gap or pause that
// follows is shortened by this padding. The file has the highest rate that the sides have before
// its first block. A side with a different rate, or whose rate changes, is converted to the rate of
// the file. If the options say so, it is split off instead and gets files of its own. Belongs to
// one thread.
#pragma once

#include <array>
#include <memory>
#include <string>
#include <vector>

#include "node/audio/rate_converter.h"
#include "node/audio/recording.h"

namespace qv::node {

class StereoRecording : public Recording {
  public:
    // Writes STEM.wav. The store must outlive the recording.
    StereoRecording(AudioStore& store, FileStem stem, RateSource rate,
                    const RecordingOptions& options);

    void audio(Side side, const std::int16_t* samples, std::size_t count) override;
    void silence(Side side, std::uint64_t count) override;
    void pause(Side side, std::uint64_t count) override { silence(side, count); }
    void rate_changed(Side side, int former_rate) override;
    void finish() override;
    std::size_t failed_files() const override;
    std::vector<FileReport> files() const override;
    bool completing() const override;

  private:
    struct Track {
        std::vector<std::int16_t> waiting;  // Samples that wait for the other side.
        std::uint64_t padding = 0;  // Silence written ahead of the audio that the side has sent.
        bool placed = false;        // Whether the waiting samples have the rate of the file.
        std::unique_ptr<RateConverter> converter;  // Null if the rates are the same.
        bool apart = false;                        // Its samples go to `split_`.
    };

    Track& track(Side side) { return tracks_[index_of(side)]; }
    Track& other_track(const Track& track) { return tracks_[&track == tracks_.data() ? 1 : 0]; }
    std::size_t longest() const;
    std::size_t shorter() const;
    Track& placed_track(Side side);
    void append(Track& track, const std::int16_t* samples, std::size_t count);
    void append_silence(Track& track, std::uint64_t count);
    void append_zeros(Track& track, std::uint64_t count);
    void write_silence(Track& track, std::uint64_t count);
    void write_what_is_due();
    void write_frames(std::size_t count);
    bool ready(bool last);
    void place(const std::array<int, SIDE_COUNT>& rates);
    void place(Track& track, int rate);
    void flush_converters();
    void set_others_apart(const std::array<int, SIDE_COUNT>& rates, int rate);
    void set_apart(Side side);
    void split_off(Side side, int former_rate);
    void make_split();

    AudioStore& store_;
    FileStem stem_;
    RateSource rate_;
    RecordingOptions options_;
    std::array<Track, SIDE_COUNT> tracks_;
    std::vector<std::int16_t> frames_;  // Reused buffer.
    std::unique_ptr<AudioFile> file_;
    int file_rate_ = 0;
    int former_rate_ = 0;  // Of samples that are split off when their rate changes.
    std::unique_ptr<SideRecording> split_;  // Takes the sides that are split off.
};

}  // namespace qv::node
