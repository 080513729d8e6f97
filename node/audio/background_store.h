// Writes audio files on a thread of its own, so that a disk that stands still delays nobody else:
// meanwhile the blocks wait in memory.
//
// Everything that touches the files of the store behind it - creating, writing, completing - is
// done by one writer thread, in the order in which it was asked for. What fails comes back with
// update(); when memory is short, only the file at hand fails. When the granted memory is full of
// waiting audio, further blocks are dropped and counted, and silence of the same length is written
// in their place, so that positions in a file stay true.
//
// Several threads can have a store of their own with the same writer: share(). A store and its
// files belong to the thread of their owner, except for the functions that any thread may call. If
// the disk does not come back before the end, the writer thread is left behind: it owns all that it
// still uses.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

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

    // What the writer has to do, and has done, for all stores that share it.
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
    // If no other store made this one: waits for the writer, unless it was abandoned.
    ~BackgroundStore() override;
    BackgroundStore(const BackgroundStore&) = delete;
    BackgroundStore& operator=(const BackgroundStore&) = delete;

    // Returns a store for another thread, with the same writer and the same bound. It must not
    // outlive this one.
    std::unique_ptr<BackgroundStore> share();

    // exists() does not ask the disk: it knows these names and those of the files created since, of
    // both together about RecentNames::MOST. Any thread may call these.
    void add_name(const std::string& name);
    void forget_name(const std::string& name);
    bool exists(const std::string& name) const override;

    std::unique_ptr<AudioFile> create(const std::string& name, int sample_rate,
                                      int channels) override;
    // Fails if what waits already fills the memory that the options grant.
    std::shared_ptr<const PendingFile> write_text(const std::string& name,
                                                  std::string text) override;

    // Takes note of what the writer has completed and of what has failed. Call it several times a
    // second.
    void update();
    // Waits until the writer has done everything, until the time has come, or until a store that
    // shares it has something to take note of. Returns whether everything is done.
    bool wait(std::chrono::steady_clock::time_point until);
    // Gives up what the writer has not done, also for the stores that share() returned, which no
    // other thread may use any more. Files that are not complete have failed with `error`.
    void abandon(const std::string& error);

    // Any thread may call it.
    Figures figures() const;
    std::size_t open_files() const override { return figures().open_files; }

  private:
    class File;
    struct Written;
    struct Job;
    class News;
    class Writer;

    explicit BackgroundStore(BackgroundStore& shared);

    bool add(Job job, bool always);
    void expect(const std::shared_ptr<Written>& file);
    void end(Written& file);
    void fail_incomplete(const std::string& error, std::vector<std::shared_ptr<Written>>& files);

    const Options options_;
    const std::string folder_;
    std::unordered_map<const Written*, std::shared_ptr<Written>> incomplete_;
    std::shared_ptr<Writer> writer_;
    News& news_;                             // Of the writer.
    BackgroundStore* shared_ = nullptr;      // The store that made this one, or null.
    std::vector<BackgroundStore*> sharing_;  // The stores that this one has made.
    std::thread thread_;                     // Not of a store that another one made.
};

}  // namespace qv::node
