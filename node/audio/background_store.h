// Writes audio files on a thread of its own, so that a disk that stands still delays nobody else:
// meanwhile the blocks wait in memory.
//
// Everything that touches the files of the store behind it - creating, writing, completing - is
// done by one writer thread, in the order in which it was asked for. What fails comes back with
// update(); when memory is short, only the file at hand fails. When as much audio waits as memory
// is granted, further blocks are dropped and counted, and silence of the same length is written in
// their place, so that positions in a file stay true.
//
// The public functions belong to the owner's thread, and so do the files. If the disk does not come
// back before the end, the writer thread is left behind: it owns all that it still uses.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>

#include "node/audio/audio_files.h"

namespace qv::node {

class BackgroundStore : public AudioStore {
  public:
    struct Options {
        std::uint64_t most_bytes = std::uint64_t{1} << 30;  // Of audio that waits.
        // At that bound the owner waits for the writer, in place of dropping audio, as long as this
        // returns true. Called every 50 ms meanwhile. When it returns false, the audio is taken
        // beyond the bound: no more of it should follow.
        std::function<bool()> keep_waiting = nullptr;
    };

    // What the writer has to do, and has done.
    struct Figures {
        std::uint64_t waiting_bytes = 0;  // Now.
        std::uint64_t dropped_bytes = 0;  // Audio that found no room.
        std::uint64_t created_files = 0;  // Asked for.
        std::size_t open_files = 0;
        std::uint64_t spare_bytes = 0;     // Memory that is kept for later audio.
        std::size_t incomplete_files = 0;  // Not closed yet, or not written to the end.
    };

    // From now on only the writer thread uses `store`. `folder` is where its files are, for their
    // paths.
    BackgroundStore(std::unique_ptr<AudioStore> store, std::string folder, const Options& options);
    // Waits for the writer, unless it was abandoned.
    ~BackgroundStore() override;
    BackgroundStore(const BackgroundStore&) = delete;
    BackgroundStore& operator=(const BackgroundStore&) = delete;

    // exists() does not ask the disk: it knows these names, and those of the files created since.
    void add_name(const std::string& name) { names_.insert(hash(name)); }

    bool exists(const std::string& name) const override { return names_.count(hash(name)) != 0; }
    std::unique_ptr<AudioFile> create(const std::string& name, int sample_rate,
                                      int channels) override;
    // Fails if as much waits as memory is granted.
    std::shared_ptr<const PendingFile> write_text(const std::string& name,
                                                  std::string text) override;

    // Takes note of what the writer has completed and of what has failed. Call it several times a
    // second.
    void update();
    // Waits until the writer has done everything, until the time has come, or until it has done
    // something new. Returns whether everything is done.
    bool wait(std::chrono::steady_clock::time_point until);
    // Gives up what the writer has not done. Files that are not complete have failed with `error`.
    void abandon(const std::string& error);

    Figures figures() const;
    std::size_t open_files() const override { return figures().open_files; }

  private:
    class File;
    struct Written;
    struct Job;
    class Writer;

    bool add(Job job, bool always);
    static void end(Written& file);

    static std::size_t hash(const std::string& name) { return std::hash<std::string>()(name); }

    const Options options_;
    const std::string folder_;
    std::unordered_set<std::size_t> names_;  // Hashes: a folder may hold millions of files.
    std::unordered_map<const Written*, std::shared_ptr<Written>> incomplete_;
    std::uint64_t dropped_bytes_ = 0;
    std::uint64_t created_files_ = 0;
    std::shared_ptr<Writer> writer_;
    std::thread thread_;
};

}  // namespace qv::node
