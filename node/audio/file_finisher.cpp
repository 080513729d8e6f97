#include "node/audio/file_finisher.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "node/audio/digest.h"
#include "node/audio/failure_text.h"
#include "node/audio/task_outcome.h"

namespace qv::node {

namespace {

constexpr const char* GIVEN_UP = "the program ended first";

}  // namespace

// What the task thread does with a file. Until the outcome is done, only the task touches the
// results.
struct FileFinisher::Work {
    std::string path;
    Options options;
    TaskOutcome outcome;

    Encoded encoded;  // If the file was converted.
    bool converted = false;
    std::string not_converted;
    std::string sha256;  // Of the WAV file, if it was not.
    std::string error;

    void run() {
        if (options.format != AudioFormat::WAV) {
            attempt([this] { convert(); }, not_converted);
        }
        if (options.digests && !converted) {
            attempt([this] { compute_digest(); }, error);
        }
        outcome.finish();
    }

    // The WAV file is complete whatever happens.
    template <typename Step>
    static void attempt(Step step, std::string& failure) {
        try {
            step();
        } catch (const std::exception& error) {  // No memory.
            failure = failure_text(error);
        }
    }

    void convert() {
        encoded = encode(path, {options.format, options.replace, options.digests,
                                [this] { return outcome.go_on(); }});
        converted = encoded.error.empty();
        not_converted = std::move(encoded.error);
    }

    void compute_digest() {
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
        return closed_ && (own_.file->completing() || !own_.work->outcome.settled(given_up()));
    }
    std::uint64_t dropped_samples() const override { return own_.file->dropped_samples(); }
    const std::string& path() const override {
        return converted() ? own_.work->encoded.path : own_.file->path();
    }
    const std::string& error() const override {
        const std::string& error = own_.file->error();
        return error.empty() && done() ? own_.work->error : error;
    }
    FileFacts facts() const override {
        FileFacts facts;
        facts.sample_rate = sample_rate_;
        facts.channels = channels_;
        facts.samples = samples_ / static_cast<std::uint64_t>(channels_);
        if (!done()) {
            const bool wanted = closed_ && finisher_.options_.format != AudioFormat::WAV;
            facts.not_converted = wanted ? GIVEN_UP : "";
        } else if (own_.work->converted) {
            const Encoded& encoded = own_.work->encoded;
            facts.sample_rate = encoded.sample_rate;
            facts.samples = encoded.samples;
            facts.resampled_from = facts.sample_rate != sample_rate_ ? sample_rate_ : 0;
            facts.sha256 = encoded.sha256;
        } else {
            facts.sha256 = own_.work->sha256;
            facts.not_converted = own_.work->not_converted;
        }
        return facts;
    }

  private:
    bool given_up() const { return finisher_.tasks_.abandoned(); }
    // A file that still grows is asked often, and its work is not in the cache.
    bool done() const { return closed_ && own_.work->outcome.done(); }
    bool converted() const { return done() && own_.work->converted; }

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
    const auto done = std::stable_partition(
        working_.begin(), working_.end(),
        [this](const auto& work) { return !work->outcome.settled(tasks_.abandoned()); });
    std::for_each(done, working_.end(), [this](const auto& work) { report(*work); });
    working_.erase(done, working_.end());
}

void FileFinisher::begin_work(const Closing& file) {
    const bool convert = options_.format != AudioFormat::WAV;
    if ((!options_.digests && !convert) || !file.file->error().empty()) {
        file.work->outcome.finish();
        return;
    }
    file.work->path = file.file->path();
    file.work->options = options_;
    if (convert && tasks_.waiting() >= options_.most_waiting) {
        file.work->options.format = AudioFormat::WAV;
        file.work->not_converted = "too many files wait for it";
    }
    working_.push_back(file.work);
    tasks_.add([work = file.work] { work->run(); });
}

void FileFinisher::report(const Work& work) {
    const bool convert = options_.format != AudioFormat::WAV;
    const std::string why = work.outcome.done() ? work.not_converted : convert ? GIVEN_UP : "";
    if (!why.empty() && not_converted_) {
        not_converted_(work.path, why);
    }
}

}  // namespace qv::node
