// WAV files on disk. Limits how many are open at the same time.
//
// The owner of an AudioFile writes it in large blocks. Between blocks, the folder may close the
// file and open it again later, because more files may be wanted than may be open. A failure (full
// disk, missing folder, too many open files) ends the file, not the program; the file keeps the
// text of the error. A file that is removed while it grows has failed. A file that is moved is
// completed where it is, but reported as an error because its path no longer leads to it. However
// the program ends, each file can be played: its header counts what was written before. Belongs to
// one thread.
#pragma once

#include <cstdint>
#include <limits>
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

    // Appends `count` samples, of all channels together. Returns false if the file has failed, now
    // or earlier.
    virtual bool write(const std::int16_t* samples, std::size_t count) = 0;

    // The same for all samples of a block. The block is empty afterwards, perhaps with another
    // capacity: its memory may have been kept.
    virtual bool take(std::vector<std::int16_t>& samples) {
        const bool written = write(samples.data(), samples.size());
        samples.clear();
        return written;
    }

    // Appends so many samples of silence, of all channels together. Returns false if the file has
    // failed, now or earlier.
    virtual bool write_silence(std::uint64_t count) = 0;

    // Completes the file. Returns false if this or an earlier write failed.
    virtual bool close() = 0;
    // Whether the completion goes on although close() has returned. If it fails, error() says so
    // later.
    virtual bool completing() const { return false; }
    // Samples in whose place there is silence, because the disk was too slow.
    virtual std::uint64_t dropped_samples() const { return 0; }

    // What the file holds, as far as the object knows it.
    virtual FileFacts facts() const { return {}; }

    virtual const std::string& path() const = 0;
    // Empty if the file has not failed.
    virtual const std::string& error() const = 0;
};

// Creates audio files by name.
class AudioStore {
  public:
    virtual ~AudioStore() = default;

    // Whether a file of that name (without folder) exists.
    virtual bool exists(const std::string& name) const = 0;

    // Creates the file. Never returns null, but the file may have failed already. If another
    // program has made a file of that name meanwhile, the file gets another name. The store must
    // outlive it.
    virtual std::unique_ptr<AudioFile> create(const std::string& name, int sample_rate,
                                              int channels) = 0;

    // Writes a small file in one go, or leaves no file behind. It may get another name, as above.
    // Never returns null.
    virtual std::shared_ptr<const PendingFile> write_text(const std::string& name,
                                                          std::string text) = 0;

    // Files that are open now.
    virtual std::size_t open_files() const = 0;
};

// Raises the limit of open files as far as the system allows. Returns how many audio files may then
// be open at the same time; at least 1.
std::size_t raise_open_file_limit();

class WavFile;

// A folder of WAV files.
class WavFolder : public AudioStore {
  public:
    // `max_open` is at least 1. With `overwrite`, an existing file is replaced.
    WavFolder(std::string path, std::size_t max_open, bool overwrite);
    ~WavFolder() override;

    // Creates the folder if it is missing. Returns why files cannot be written there, or an empty
    // text.
    std::string prepare();
    // Repairs the files that a killed run has left in the folder; see open_list.h.
    std::vector<LeftoverFile> recover() { return recover_leftovers(path_); }

    // Files beyond so many are not made: they fail at once.
    void limit_files(std::uint64_t most) { most_files_ = most; }

    bool exists(const std::string& name) const override;
    std::unique_ptr<AudioFile> create(const std::string& name, int sample_rate,
                                      int channels) override;
    std::shared_ptr<const PendingFile> write_text(const std::string& name,
                                                  std::string text) override;

    std::size_t open_files() const override { return open_.size(); }
    // Files created by this object.
    std::uint64_t created_files() const { return created_; }

  private:
    friend class WavFile;

    void make_room();

    std::string path_;
    std::size_t max_open_;
    bool overwrite_;
    std::uint64_t created_ = 0;
    std::uint64_t most_files_ = std::numeric_limits<std::uint64_t>::max();
    OpenList list_;
    std::list<WavFile*> open_;  // Not owned. The file that was written last comes last.
};

}  // namespace qv::node
