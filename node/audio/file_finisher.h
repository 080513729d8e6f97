// Finishes audio files after the last of their samples: computes their digests.
//
// It stands between the recordings and the store that writes the files. The work is done on a task
// thread, so that neither the receiving thread nor the writer waits for it; a file is complete when
// it is done. Belongs to one thread.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "node/audio/audio_files.h"
#include "node/audio/task_thread.h"

namespace qv::node {

class FileFinisher : public AudioStore {
  public:
    struct Options {
        bool digests = false;
    };

    // Both must outlive this object. If `tasks` is abandoned, files that are not finished stay as
    // they were written.
    FileFinisher(AudioStore& store, TaskThread& tasks, const Options& options)
        : store_(store), tasks_(tasks), options_(options) {}

    bool exists(const std::string& name) const override { return store_.exists(name); }
    std::unique_ptr<AudioFile> create(const std::string& name, int sample_rate,
                                      int channels) override;
    std::shared_ptr<const PendingFile> write_text(const std::string& name,
                                                  std::string text) override {
        return store_.write_text(name, std::move(text));
    }
    std::size_t open_files() const override { return store_.open_files(); }

    // Begins the work on files that have been written. Call it several times a second, after the
    // store has taken note of them.
    void update();

  private:
    class File;
    struct Work;
    struct Closing {
        std::shared_ptr<AudioFile> file;  // Of the store behind.
        std::shared_ptr<Work> work;
    };

    void begin_work(const Closing& file);

    AudioStore& store_;
    TaskThread& tasks_;
    const Options options_;
    std::vector<Closing> closing_;  // Not all of their samples have been written.
};

}  // namespace qv::node
