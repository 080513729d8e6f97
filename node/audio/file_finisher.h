// Finishes audio files after the last of their samples: converts them to another format, and
// computes their digests.
//
// It stands between the recordings and the store that writes the files. The work is done on a task
// thread, so that neither the receiving thread nor the writer waits for it; a file is complete when
// it is done. Belongs to one thread.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "node/audio/audio_files.h"
#include "node/audio/encoder.h"
#include "node/audio/task_thread.h"

namespace qv::node {

class FileFinisher : public AudioStore {
  public:
    struct Options {
        bool digests = false;
        AudioFormat format = AudioFormat::WAV;
        bool replace = false;             // Conversions may replace existing files.
        std::size_t most_waiting = 1000;  // Beyond so many tasks, files stay WAV files.
    };
    // Called for a file that could not be converted and is still a complete WAV file.
    using NotConverted = std::function<void(const std::string& path, const std::string& why)>;

    // Both must outlive this object. If `tasks` is abandoned, files that are not finished stay as
    // they were written.
    FileFinisher(AudioStore& store, TaskThread& tasks, const Options& options,
                 NotConverted not_converted = {})
        : store_(store),
          tasks_(tasks),
          options_(options),
          not_converted_(std::move(not_converted)) {}

    bool exists(const std::string& name) const override { return store_.exists(name); }
    std::unique_ptr<AudioFile> create(const std::string& name, int sample_rate,
                                      int channels) override;
    std::shared_ptr<const PendingFile> write_text(const std::string& name,
                                                  std::string text) override {
        return store_.write_text(name, std::move(text));
    }
    std::size_t open_files() const override { return store_.open_files(); }

    // Begins the work on files that have been written, and reports those that could not be
    // converted. Call it several times a second, after the store has taken note of them.
    void update();

  private:
    class File;
    struct Work;
    struct Closing {
        std::shared_ptr<AudioFile> file;  // Of the store behind.
        std::shared_ptr<Work> work;
    };

    void begin_work(const Closing& file);
    void report(const Work& work);

    AudioStore& store_;
    TaskThread& tasks_;
    const Options options_;
    const NotConverted not_converted_;
    std::vector<Closing> closing_;                // Not all of their samples have been written.
    std::vector<std::shared_ptr<Work>> working_;  // A task works on them or will do so.
};

}  // namespace qv::node
