#include "node/audio/background_store.h"

#include <deque>
#include <optional>
#include <utility>
#include <vector>

#include "quorvane_lib/mutex.h"

namespace qv::node {

namespace {

using Clock = std::chrono::steady_clock;
using Samples = std::vector<std::int16_t>;

// Blocks whose memory is kept for later ones: 64 MiB at the usual size of blocks.
constexpr std::size_t MOST_SPARE = 2048;
// What a job takes beside its samples, about.
constexpr std::uint64_t JOB_BYTES = 256;

constexpr const char* ABANDONED = "the disk was given up";

std::uint64_t bytes_of(const Samples& samples) {
    return samples.size() * sizeof(std::int16_t);
}

}  // namespace

// A file. What the jobs need is constant; the rest belongs to one of the threads.
struct BackgroundStore::Written {
    Written(std::string file_name, std::string file_path, int rate, int channel_count)
        : name(std::move(file_name)),
          path(std::move(file_path)),
          sample_rate(rate),
          channels(channel_count) {}

    const std::string name;
    const std::string path;
    const int sample_rate;
    const int channels;

    // The owner's.
    std::string error;
    bool close_wanted = false;
    bool closed = false;
    std::uint64_t dropped_samples = 0;
    std::uint64_t owed_silence = 0;  // For samples that were dropped.

    // The writer's.
    std::unique_ptr<AudioFile> file;
    bool failure_reported = false;
};

struct BackgroundStore::Job {
    enum class Kind : std::uint8_t { CREATE, WRITE, SILENCE, CLOSE };

    std::shared_ptr<Written> file;
    Kind kind;
    Samples samples{};
    std::uint64_t silence = 0;

    std::uint64_t size() const { return JOB_BYTES + bytes_of(samples); }
};

// The queue, and what the writer thread does. Shared by both threads, so that the owner may go
// while the writer waits for the disk.
class BackgroundStore::Writer {
  public:
    struct Result {
        std::shared_ptr<Written> file;
        std::string error;
        bool closed;
    };

    explicit Writer(std::unique_ptr<AudioStore> store) : store_(std::move(store)) {}

    // The writer's thread.
    void run() {
        while (auto job = next()) {
            done(*job, perform(*job));
        }
        end_abandoned();
    }

    // The functions below are the owner's.

    // Returns false if the job would exceed the bound.
    bool add(Job& job, std::uint64_t most_bytes, bool always) QV_EXCLUDES(mutex_) {
        {
            const LockGuard lock(mutex_);
            if (!always && waiting_bytes_ + job.size() > most_bytes) {
                return false;
            }
            waiting_bytes_ += job.size();
            queue_.push_back(std::move(job));
        }
        work_.notify_one();
        return true;
    }
    Samples spare() QV_EXCLUDES(mutex_) {
        const LockGuard lock(mutex_);
        Samples samples;
        if (!spare_.empty()) {
            samples = std::move(spare_.back());
            spare_.pop_back();
        }
        return samples;
    }
    std::vector<Result> take_results() QV_EXCLUDES(mutex_) {
        const LockGuard lock(mutex_);
        return std::exchange(results_, {});
    }
    void wait_for_room(std::uint64_t bytes, std::uint64_t most_bytes) QV_EXCLUDES(mutex_) {
        const LockGuard lock(mutex_);
        while (waiting_bytes_ != 0 && waiting_bytes_ + bytes > most_bytes) {
            progress_.wait(mutex_);
        }
    }
    bool wait(Clock::time_point until) QV_EXCLUDES(mutex_) {
        const LockGuard lock(mutex_);
        while ((busy_ || !queue_.empty()) && results_.empty() &&
               progress_.wait_until(mutex_, until)) {
        }
        return !busy_ && queue_.empty();
    }
    // The thread ends when it has done everything.
    void stop() QV_EXCLUDES(mutex_) {
        {
            const LockGuard lock(mutex_);
            stopping_ = true;
        }
        work_.notify_one();
    }
    // The thread ends when it has done the job at hand. Until then it keeps these files, because
    // their ends use the disk, and the list of open files, which belongs to it.
    void abandon(std::vector<std::shared_ptr<Written>> files) QV_EXCLUDES(mutex_) {
        {
            const LockGuard lock(mutex_);
            abandoned_ = std::move(files);
            for (const Job& job : queue_) {
                waiting_bytes_ -= job.size();
            }
            queue_.clear();
        }
        stop();
    }
    std::uint64_t waiting_bytes() QV_EXCLUDES(mutex_) {
        const LockGuard lock(mutex_);
        return waiting_bytes_;
    }
    std::size_t open_files() QV_EXCLUDES(mutex_) {
        const LockGuard lock(mutex_);
        return open_files_;
    }

  private:
    std::optional<Job> next() QV_EXCLUDES(mutex_) {
        const LockGuard lock(mutex_);
        while (queue_.empty() && !stopping_) {
            work_.wait(mutex_);
        }
        if (queue_.empty()) {
            return std::nullopt;
        }
        busy_ = true;
        Job job = std::move(queue_.front());
        queue_.pop_front();
        return job;
    }

    // Returns what the owner has to know.
    std::optional<Result> perform(const Job& job) {
        Written& written = *job.file;
        switch (job.kind) {
            case Job::Kind::CREATE:
                written.file = store_->create(written.name, written.sample_rate, written.channels);
                break;
            case Job::Kind::WRITE:
                written.file->write(job.samples.data(), job.samples.size());
                break;
            case Job::Kind::SILENCE:
                written.file->write_silence(job.silence);
                break;
            case Job::Kind::CLOSE: {
                written.file->close();
                Result result{job.file, written.file->error(), true};
                written.file.reset();
                return result;
            }
        }
        if (written.file->error().empty() || std::exchange(written.failure_reported, true)) {
            return std::nullopt;
        }
        return Result{job.file, written.file->error(), false};
    }

    void done(Job& job, std::optional<Result> result) QV_EXCLUDES(mutex_) {
        const std::size_t open_files = store_->open_files();
        {
            const LockGuard lock(mutex_);
            busy_ = false;
            open_files_ = open_files;
            waiting_bytes_ -= job.size();
            if (result.has_value()) {
                results_.push_back(std::move(*result));
            }
            if (spare_.size() < MOST_SPARE && job.samples.capacity() != 0) {
                job.samples.clear();
                spare_.push_back(std::move(job.samples));
            }
        }
        progress_.notify_one();
    }

    void end_abandoned() QV_EXCLUDES(mutex_) {
        std::vector<std::shared_ptr<Written>> files;
        {
            const LockGuard lock(mutex_);
            files.swap(abandoned_);
        }
        for (const std::shared_ptr<Written>& each : files) {
            each->file.reset();
        }
    }

    const std::unique_ptr<AudioStore> store_;  // The writer's.
    Mutex mutex_;
    Condition work_;
    Condition progress_;
    std::deque<Job> queue_ QV_GUARDED_BY(mutex_);
    std::vector<Result> results_ QV_GUARDED_BY(mutex_);
    std::vector<Samples> spare_ QV_GUARDED_BY(mutex_);
    std::vector<std::shared_ptr<Written>> abandoned_ QV_GUARDED_BY(mutex_);
    std::uint64_t waiting_bytes_ QV_GUARDED_BY(mutex_) = 0;
    std::size_t open_files_ QV_GUARDED_BY(mutex_) = 0;
    bool busy_ QV_GUARDED_BY(mutex_) = false;
    bool stopping_ QV_GUARDED_BY(mutex_) = false;
};

// The owner's end of a file.
class BackgroundStore::File : public AudioFile {
  public:
    File(BackgroundStore& store, std::shared_ptr<Written> written)
        : store_(store), written_(std::move(written)) {}
    ~File() override { File::close(); }

    bool write(const std::int16_t* samples, std::size_t count) override {
        Samples block = store_.writer_->spare();
        block.assign(samples, samples + count);
        return take(block);
    }

    bool take(Samples& samples) override {
        if (!written_->error.empty() || samples.empty()) {
            samples.clear();
            return written_->error.empty();
        }
        const std::uint64_t count = samples.size();
        Job job{written_, Job::Kind::WRITE, std::exchange(samples, store_.writer_->spare())};
        if (!pay_silence() || !store_.add(std::move(job), false)) {
            written_->dropped_samples += count;
            written_->owed_silence += count;
            store_.dropped_bytes_ += count * sizeof(std::int16_t);
        }
        return true;
    }

    bool write_silence(std::uint64_t count) override {
        if (!written_->error.empty()) {
            return false;
        }
        written_->owed_silence += count;
        pay_silence();
        return true;
    }

    bool close() override {
        if (!std::exchange(written_->close_wanted, true) && !written_->closed) {
            if (written_->owed_silence != 0) {
                store_.add({written_, Job::Kind::SILENCE, {}, written_->owed_silence}, true);
            }
            store_.add({written_, Job::Kind::CLOSE}, true);
        }
        return written_->error.empty();
    }

    bool completing() const override { return written_->close_wanted && !written_->closed; }
    std::uint64_t dropped_samples() const override { return written_->dropped_samples; }
    const std::string& path() const override { return written_->path; }
    const std::string& error() const override { return written_->error; }

  private:
    // Returns whether no silence is owed now.
    bool pay_silence() {
        if (written_->owed_silence != 0 &&
            store_.add({written_, Job::Kind::SILENCE, {}, written_->owed_silence}, false)) {
            written_->owed_silence = 0;
        }
        return written_->owed_silence == 0;
    }

    BackgroundStore& store_;
    std::shared_ptr<Written> written_;
};

BackgroundStore::BackgroundStore(std::unique_ptr<AudioStore> store, std::string folder,
                                 const Options& options)
    : options_(options),
      folder_(std::move(folder)),
      writer_(std::make_shared<Writer>(std::move(store))),
      thread_([writer = writer_] { writer->run(); }) {}

BackgroundStore::~BackgroundStore() {
    if (thread_.joinable()) {
        writer_->stop();
        thread_.join();
    }
}

std::unique_ptr<AudioFile> BackgroundStore::create(const std::string& name, int sample_rate,
                                                   int channels) {
    auto written = std::make_shared<Written>(name, folder_ + '/' + name, sample_rate, channels);
    // Also beyond the bound: a file that begins while the disk stands still is written later.
    if (add({written, Job::Kind::CREATE}, true)) {
        add_name(name);
        ++created_files_;
        incomplete_.emplace(written.get(), written);
    } else {
        written->error = ABANDONED;
        written->closed = true;
    }
    return std::make_unique<File>(*this, std::move(written));
}

// Takes the job, with `always` even beyond the bound; returns whether it was taken.
bool BackgroundStore::add(Job job, bool always) {
    if (!thread_.joinable()) {
        return false;  // Abandoned.
    }
    if (options_.wait_for_room && !always) {
        writer_->wait_for_room(job.size(), options_.most_bytes);
        always = true;
    }
    return writer_->add(job, options_.most_bytes, always);
}

void BackgroundStore::update() {
    for (Writer::Result& result : writer_->take_results()) {
        if (result.file->error.empty()) {
            result.file->error = std::move(result.error);
        }
        if (result.closed) {
            result.file->closed = true;
            incomplete_.erase(result.file.get());
        }
    }
}

bool BackgroundStore::wait(Clock::time_point until) {
    return writer_->wait(until);
}

void BackgroundStore::abandon(const std::string& error) {
    if (!thread_.joinable()) {
        return;
    }
    update();
    std::vector<std::shared_ptr<Written>> files;
    for (const auto& [key, file] : std::exchange(incomplete_, {})) {
        if (file->error.empty()) {
            file->error = error;
        }
        file->closed = true;
        files.push_back(file);
    }
    writer_->abandon(std::move(files));
    thread_.detach();
}

BackgroundStore::Figures BackgroundStore::figures() const {
    return {writer_->waiting_bytes(), dropped_bytes_, created_files_, writer_->open_files()};
}

}  // namespace qv::node
