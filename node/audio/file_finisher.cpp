#include "node/audio/file_finisher.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <utility>

#include "node/audio/digest.h"

namespace qv::node {

// What the task thread does with a file. Until `done`, only the task touches the results.
struct FileFinisher::Work {
    std::string path;

    std::string sha256;
    std::string error;
    std::atomic<bool> done{false};

    void run() {
        sha256 = sha256_of_file(path, error);
        error = error.empty() ? "" : "no digest: " + error;
    }
};

class FileFinisher::File : public AudioFile {
  public:
    File(FileFinisher& finisher, std::unique_ptr<AudioFile> file, int sample_rate, int channels)
        : finisher_(finisher),
          own_{std::move(file), std::make_shared<Work>()},
          sample_rate_(sample_rate),
          channels_(channels) {}
    ~File() override { File::close(); }

    bool write(const std::int16_t* samples, std::size_t count) override {
        samples_ += count;
        return own_.file->write(samples, count);
    }
    bool take(std::vector<std::int16_t>& samples) override {
        samples_ += samples.size();
        return own_.file->take(samples);
    }
    bool write_silence(std::uint64_t count) override {
        samples_ += count;
        return own_.file->write_silence(count);
    }

    bool close() override {
        if (!std::exchange(closed_, true)) {
            own_.file->close();
            if (own_.file->completing()) {
                finisher_.closing_.push_back(own_);
            } else {
                finisher_.begin_work(own_);
            }
        }
        return error().empty();
    }

    bool completing() const override {
        return closed_ &&
               (own_.file->completing() || (!own_.work->done && !finisher_.tasks_.abandoned()));
    }
    std::uint64_t dropped_samples() const override { return own_.file->dropped_samples(); }
    const std::string& path() const override { return own_.file->path(); }
    const std::string& error() const override {
        const std::string& error = own_.file->error();
        return error.empty() && own_.work->done ? own_.work->error : error;
    }
    FileFacts facts() const override {
        return {sample_rate_, channels_, samples_ / static_cast<std::uint64_t>(channels_),
                own_.work->done ? own_.work->sha256 : std::string()};
    }

  private:
    FileFinisher& finisher_;
    const Closing own_;
    const int sample_rate_;
    const int channels_;
    std::uint64_t samples_ = 0;  // Of all channels together.
    bool closed_ = false;
};

std::unique_ptr<AudioFile> FileFinisher::create(const std::string& name, int sample_rate,
                                                int channels) {
    return std::make_unique<File>(*this, store_.create(name, sample_rate, channels), sample_rate,
                                  channels);
}

void FileFinisher::update() {
    const auto written =
        std::stable_partition(closing_.begin(), closing_.end(),
                              [](const Closing& each) { return each.file->completing(); });
    std::for_each(written, closing_.end(), [this](const Closing& each) { begin_work(each); });
    closing_.erase(written, closing_.end());
}

void FileFinisher::begin_work(const Closing& file) {
    if (!options_.digests || !file.file->error().empty()) {
        file.work->done = true;
        return;
    }
    file.work->path = file.file->path();
    tasks_.add([work = file.work] {
        try {
            work->run();
        } catch (const std::exception& error) {  // No memory.
            work->error = error.what();
        }
        work->done = true;
    });
}

}  // namespace qv::node
