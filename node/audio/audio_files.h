// WAV files on disk, with a bound on how many are open at once.
//
// The owner of an AudioFile writes it in large blocks. Between blocks the folder may close it
// and open it again later, when more files are wanted than may be open. A failure (full disk,
// vanished folder, too many open files) ends the file, not the program: the text of the error
// stays with the file. A file that is removed while it grows has failed. One that is moved away
// is completed where it is, but reported as an error: its path does not lead to it. Whatever
// ends the program, and at whatever instruction, each file can be played: its header counts
// what was written before. Belongs to one thread.
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "node/audio/open_list.h"
#include "node/calls/types.h"

namespace qv::node {

// One growing file of 16-bit samples.
class AudioFile {
  public:
    virtual ~AudioFile() = default;

    // Appends `count` samples (of all channels together); false when the file has
    // failed, now or before.
    virtual bool write(const std::int16_t* samples, std::size_t count) = 0;

    // Brings the file into its final form; false when that or an earlier write failed.
    virtual bool close() = 0;

    virtual const std::string& path() const = 0;
    // Empty while all is well.
    virtual const std::string& error() const = 0;
};

// Creates audio files by name.
class AudioStore {
  public:
    virtual ~AudioStore() = default;

    // Whether there is a file of that name (without folder).
    virtual bool exists(const std::string& name) const = 0;

    // Creates the file; never null, but it may have failed at once. The store must
    // outlive it.
    virtual std::unique_ptr<AudioFile> create(const std::string& name, int sample_rate,
                                              int channels) = 0;
};

// Raises the limit of open files as far as the system allows; returns how many audio files
// may be open at once then, at least 1.
std::size_t raise_open_file_limit();

class WavFile;

// A folder of WAV files.
class WavFolder : public AudioStore {
  public:
    // `max_open` is at least 1. With `overwrite` a file that exists is replaced.
    WavFolder(std::string path, std::size_t max_open, bool overwrite);
    ~WavFolder() override;

    // Creates the folder if it is missing. Returns why files cannot be written there, or
    // nothing.
    std::string prepare();
    // Repairs what a run that was killed has left in the folder; see open_list.h.
    std::vector<LeftoverFile> recover() { return recover_leftovers(path_); }

    bool exists(const std::string& name) const override;
    std::unique_ptr<AudioFile> create(const std::string& name, int sample_rate,
                                      int channels) override;

    std::size_t open_files() const { return open_.size(); }
    // Files made since the beginning.
    std::uint64_t created_files() const { return created_; }

  private:
    friend class WavFile;

    void make_room();

    std::string path_;
    std::size_t max_open_;
    bool overwrite_;
    std::uint64_t created_ = 0;
    OpenList list_;
    std::list<WavFile*> open_;  // Not owned; the one written last comes last.
};

}  // namespace qv::node
