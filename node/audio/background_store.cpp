#include "node/audio/background_store.h"

#include <algorithm>
#include <atomic>
#include <deque>
#include <exception>
#include <optional>
#include <utility>
#include <vector>

#include "node/audio/failure_text.h"
#include "node/audio/recent_names.h"
#include "quorvane_lib/mutex.h"
#include "tools/thread_priority.h"

namespace qv::node {

namespace {

using Clock = std::chrono::steady_clock;
using Samples = std::vector<std::int16_t>;

// Blocks whose memory is kept for later ones.
constexpr std::size_t MOST_SPARE = 2048;
constexpr std::uint64_t MOST_SPARE_BYTES = std::uint64_t{64} << 20;
// How long the owner waits before it asks whether to go on waiting.
constexpr std::chrono::milliseconds ONE_WAIT{50};
// What a job takes beside its samples, about.
constexpr std::uint64_t JOB_BYTES = 256;

constexpr const char* ABANDONED = "the disk was given up";
constexpr const char* NO_ROOM = "no memory was left while it waited for the disk";

// The lock of the Writer. It has a type of its own, so that no other lock can stand for it where
// the compiler checks that it is held.
class WriterMutex : public Mutex {};

std::uint64_t bytes_of(const Samples& samples) {
    return samples.size() * sizeof(std::int16_t);
}

}  // namespace

// A file. What the jobs need is constant; the rest belongs to one of the threads.
struct BackgroundStore::Written {
    Written(News& owner, std::string file_name, std::string file_path, int rate, int channel_count)
        : news(owner),
          name(std::move(file_name)),
          sample_rate(rate),
          channels(channel_count),
          path(std::move(file_path)) {}

    News& news;  // Of its store.
    const std::string name;
    const int sample_rate;
    const int channels;

    // The owner's.
    std::string path;
    std::string error;
    bool close_wanted = false;
    bool closed = false;
    std::uint64_t dropped_samples = 0;
    std::uint64_t owed_silence = 0;  // For samples that were dropped.

    std::shared_ptr<PendingFile> pending;  // Of a small file.

    // The writer's.
    std::unique_ptr<AudioFile> file;
    bool failed = false;

    // What the owner has to know. The list of news runs through the files, so that reporting needs
    // no memory.
    struct Note {
        std::string error;
        std::string path;
        bool closed = false;
        bool listed = false;
        std::shared_ptr<Written> next;
    };
    Note& note(const WriterMutex& mutex) QV_REQUIRES(mutex);

  private:
    Note note_;
};

// The files of one store that have news. The Writer owns it.
class BackgroundStore::News {
  public:
    // The first of a list.
    std::shared_ptr<Written>& latest(const WriterMutex& mutex) QV_REQUIRES(mutex);

  private:
    std::shared_ptr<Written> latest_;
};

BackgroundStore::Written::Note& BackgroundStore::Written::note(const WriterMutex& /*mutex*/) {
    return note_;
}

std::shared_ptr<BackgroundStore::Written>& BackgroundStore::News::latest(
    const WriterMutex& /*mutex*/) {
    return latest_;
}

struct BackgroundStore::Job {
    enum class Kind : std::uint8_t { CREATE, WRITE, SILENCE, CLOSE, TEXT };

    std::shared_ptr<Written> file;
    Kind kind;
    Samples samples{};
    std::uint64_t silence = 0;
    std::string text{};

    std::uint64_t size() const { return JOB_BYTES + bytes_of(samples) + text.size(); }
};

// The queue, and what the writer thread does. Shared by the stores and their writer thread, so that
// the stores may go while the writer waits for the disk.
class BackgroundStore::Writer {
  public:
    explicit Writer(std::unique_ptr<AudioStore> store) : store_(std::move(store)) {
        const LockGuard lock(mutex_);
        spare_.reserve(MOST_SPARE);
    }
    ~Writer() {
        for (News& news : all_news_) {
            take_news(news, [](const Written& /*file*/, const Written::Note& /*note*/) {
            });  // One by one: the list may be long.
        }
    }
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    // The writer's thread.
    void run() {
        tools::lower_priority(tools::Priority::BUFFERED);
        while (auto job = next()) {
            const std::uint64_t size = job->size();
            done(*job, size, perform(*job));
        }
        end_abandoned();
    }

    // The functions below are those of the stores, on any thread.

    // Returns the news of a further store. They live as long as the writer.
    News& add_news() QV_EXCLUDES(mutex_) {
        const LockGuard lock(mutex_);
        all_news_.emplace_back();
        return all_news_.back();
    }

    // Returns false if the job would exceed the bound, or if the disk was given up.
    bool add(Job& job, std::uint64_t most_bytes, bool always) QV_EXCLUDES(mutex_) {
        {
            const LockGuard lock(mutex_);
            if (given_up_ || (!always && waiting_bytes_ + job.size() > most_bytes)) {
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
            spare_bytes_ -= capacity_of(samples);
        }
        return samples;
    }
    // Calls `use` for each file that has news, while nobody changes them.
    template <typename Use>
    void take_news(News& news, Use use) QV_EXCLUDES(mutex_) {
        const LockGuard lock(mutex_);
        std::shared_ptr<Written>& latest = news.latest(mutex_);
        while (latest != nullptr) {
            const std::shared_ptr<Written> file =
                std::exchange(latest, std::move(latest->note(mutex_).next));
            Written::Note& note = file->note(mutex_);
            note.listed = false;
            --files_in_news_;
            use(*file, std::exchange(note, {}));
        }
    }
    // Bytes of memory that is kept for later blocks.
    std::uint64_t spare_bytes() QV_EXCLUDES(mutex_) {
        const LockGuard lock(mutex_);
        return spare_bytes_;
    }
    // Returns whether there is room.
    bool wait_for_room(std::uint64_t bytes, std::uint64_t most_bytes, Clock::time_point until)
        QV_EXCLUDES(mutex_) {
        const LockGuard lock(mutex_);
        const auto full = [&]() QV_REQUIRES(mutex_) {
            return !given_up_ && waiting_bytes_ != 0 && waiting_bytes_ + bytes > most_bytes;
        };
        while (full() && progress_.wait_until(mutex_, until)) {
        }
        return !full();
    }
    bool wait(Clock::time_point until) QV_EXCLUDES(mutex_) {
        const LockGuard lock(mutex_);
        while ((busy_ || !queue_.empty()) && files_in_news_ == 0 &&
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
            given_up_ = true;
            abandoned_ = std::move(files);
            for (const Job& job : queue_) {
                waiting_bytes_ -= job.size();
            }
            queue_.clear();
        }
        stop();
    }
    bool given_up() QV_EXCLUDES(mutex_) {
        const LockGuard lock(mutex_);
        return given_up_;
    }
    std::uint64_t waiting_bytes() QV_EXCLUDES(mutex_) {
        const LockGuard lock(mutex_);
        return waiting_bytes_;
    }
    std::size_t open_files() QV_EXCLUDES(mutex_) {
        const LockGuard lock(mutex_);
        return open_files_;
    }

    // Counted by the stores.
    std::atomic<std::uint64_t> dropped_bytes{0};
    std::atomic<std::uint64_t> created_files{0};
    std::atomic<std::size_t> incomplete_files{0};

    RecentNames names;

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

    // What the owner has to know of a job.
    struct Result {
        std::string error;
        std::string path;  // Of a new file.
        bool closed = false;
    };

    Result perform(Job& job) {
        Written& written = *job.file;
        Result result;
        try {
            carry_out(job, result);
        } catch (const std::exception& error) {
            result.error = failure_text(error);
        }
        if (!result.error.empty()) {
            written.failed = true;
        }
        result.closed = job.kind == Job::Kind::CLOSE || job.kind == Job::Kind::TEXT;
        if (result.closed) {
            written.file.reset();
        }
        return result;
    }

    void carry_out(Job& job, Result& result) {
        Written& written = *job.file;
        if (job.kind == Job::Kind::TEXT) {
            const auto text_file = store_->write_text(written.name, std::move(job.text));
            result.path = text_file->report.path;
            result.error = text_file->report.error;
            return;
        }
        if (job.kind == Job::Kind::CREATE) {
            written.file = store_->create(written.name, written.sample_rate, written.channels);
            result.path = written.file->path();
        } else if (written.file != nullptr && job.kind == Job::Kind::CLOSE) {
            written.file->close();
        } else if (written.file == nullptr || written.failed) {
            return;  // It could not be created or written.
        } else if (job.kind == Job::Kind::WRITE) {
            written.file->write(job.samples.data(), job.samples.size());
        } else {
            written.file->write_silence(job.silence);
        }
        if (!written.failed) {
            result.error = written.file->error();
        }
    }

    void done(Job& job, std::uint64_t size, Result result) QV_EXCLUDES(mutex_) {
        const std::size_t open_files = store_->open_files();
        {
            const LockGuard lock(mutex_);
            busy_ = false;
            open_files_ = open_files;
            waiting_bytes_ -= size;
            if (result.closed || !result.error.empty() || !result.path.empty()) {
                report(job.file, std::move(result));
            }
            const std::uint64_t capacity = capacity_of(job.samples);
            if (capacity != 0 && spare_.size() < MOST_SPARE &&
                spare_bytes_ + capacity <= MOST_SPARE_BYTES) {
                job.samples.clear();
                spare_bytes_ += capacity;
                spare_.push_back(std::move(job.samples));
            }
        }
        progress_.notify_one();
    }

    void report(const std::shared_ptr<Written>& file, Result result) QV_REQUIRES(mutex_) {
        Written::Note& note = file->note(mutex_);
        if (note.error.empty()) {
            note.error = std::move(result.error);
        }
        if (!result.path.empty()) {
            note.path = std::move(result.path);
        }
        note.closed = note.closed || result.closed;
        if (!std::exchange(note.listed, true)) {
            note.next = std::exchange(file->news.latest(mutex_), file);
            ++files_in_news_;
        }
    }

    static std::uint64_t capacity_of(const Samples& samples) {
        return samples.capacity() * sizeof(std::int16_t);
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
    WriterMutex mutex_;
    Condition work_;
    Condition progress_;
    std::deque<Job> queue_ QV_GUARDED_BY(mutex_);
    std::deque<News> all_news_ QV_GUARDED_BY(mutex_);  // Of each store.
    std::size_t files_in_news_ QV_GUARDED_BY(mutex_) = 0;
    std::vector<Samples> spare_ QV_GUARDED_BY(mutex_);
    std::uint64_t spare_bytes_ QV_GUARDED_BY(mutex_) = 0;
    std::vector<std::shared_ptr<Written>> abandoned_ QV_GUARDED_BY(mutex_);
    std::uint64_t waiting_bytes_ QV_GUARDED_BY(mutex_) = 0;
    std::size_t open_files_ QV_GUARDED_BY(mutex_) = 0;
    bool busy_ QV_GUARDED_BY(mutex_) = false;
    bool stopping_ QV_GUARDED_BY(mutex_) = false;
    bool given_up_ QV_GUARDED_BY(mutex_) = false;
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
            store_.writer_->dropped_bytes += count * sizeof(std::int16_t);
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
      news_(writer_->add_news()),
      thread_([writer = writer_] { writer->run(); }) {}

BackgroundStore::BackgroundStore(BackgroundStore& shared)
    : options_(shared.options_),
      folder_(shared.folder_),
      writer_(shared.writer_),
      news_(writer_->add_news()),
      shared_(&shared) {}

BackgroundStore::~BackgroundStore() {
    if (shared_ != nullptr) {
        auto& all = shared_->sharing_;
        all.erase(std::remove(all.begin(), all.end(), this), all.end());
    }
    if (thread_.joinable()) {
        writer_->stop();
        thread_.join();
    }
}

std::unique_ptr<BackgroundStore> BackgroundStore::share() {
    std::unique_ptr<BackgroundStore> store(new BackgroundStore(*this));
    sharing_.push_back(store.get());
    return store;
}

void BackgroundStore::forget_name(const std::string& name) {
    writer_->names.forget(name);
}

void BackgroundStore::add_name(const std::string& name) {
    writer_->names.add(name);
}

bool BackgroundStore::exists(const std::string& name) const {
    return writer_->names.has(name);
}

// The writer will report the file's end.
void BackgroundStore::expect(const std::shared_ptr<Written>& file) {
    incomplete_.emplace(file.get(), file);
    ++writer_->incomplete_files;
}

std::unique_ptr<AudioFile> BackgroundStore::create(const std::string& name, int sample_rate,
                                                   int channels) {
    auto written =
        std::make_shared<Written>(news_, name, folder_ + '/' + name, sample_rate, channels);
    // Also beyond the bound: a file that begins while the disk stands still is written later.
    if (add({written, Job::Kind::CREATE}, true)) {
        add_name(name);
        ++writer_->created_files;
        expect(written);
    } else {
        written->error = ABANDONED;
        written->closed = true;
    }
    return std::make_unique<File>(*this, std::move(written));
}

// Takes the job, with `always` even beyond the bound; returns whether it was taken.
bool BackgroundStore::add(Job job, bool always) {
    if (options_.keep_waiting != nullptr && !always) {
        while (!writer_->wait_for_room(job.size(), options_.most_bytes, Clock::now() + ONE_WAIT) &&
               options_.keep_waiting()) {
        }
        always = true;
    }
    return writer_->add(job, options_.most_bytes, always);
}

std::shared_ptr<const PendingFile> BackgroundStore::write_text(const std::string& name,
                                                               std::string text) {
    auto written = std::make_shared<Written>(news_, name, folder_ + '/' + name, 0, 0);
    auto pending = std::make_shared<PendingFile>();
    pending->report.path = written->path;
    written->pending = pending;
    expect(written);
    if (add({written, Job::Kind::TEXT, {}, 0, std::move(text)}, false)) {
        add_name(name);
    } else {
        written->error = writer_->given_up() ? ABANDONED : NO_ROOM;
        end(*written);
        incomplete_.erase(written.get());
    }
    return pending;
}

void BackgroundStore::update() {
    writer_->take_news(news_, [this](Written& file, const Written::Note& note) {
        if (file.error.empty()) {
            file.error = note.error;
        }
        const std::string name = note.path.substr(note.path.rfind('/') + 1);
        if (!name.empty() && name != file.name) {
            file.path = folder_ + '/' + name;
            add_name(name);
        }
        if (note.closed && incomplete_.erase(&file) != 0) {  // Unless it was given up.
            end(file);
        }
    });
}

// Nothing more happens to the file.
void BackgroundStore::end(Written& file) {
    file.closed = true;
    --writer_->incomplete_files;
    if (file.pending != nullptr) {
        file.pending->report = {file.path, file.error};
        file.pending->complete = true;
    }
}

bool BackgroundStore::wait(Clock::time_point until) {
    return writer_->wait(until);
}

void BackgroundStore::abandon(const std::string& error) {
    if (!thread_.joinable()) {
        return;
    }
    std::vector<std::shared_ptr<Written>> files;
    fail_incomplete(error, files);
    for (BackgroundStore* each : sharing_) {
        each->fail_incomplete(error, files);
    }
    writer_->abandon(std::move(files));
    thread_.detach();
}

// Adds the files to `files`.
void BackgroundStore::fail_incomplete(const std::string& error,
                                      std::vector<std::shared_ptr<Written>>& files) {
    update();
    for (const auto& [key, file] : std::exchange(incomplete_, {})) {
        if (file->error.empty()) {
            file->error = error;
        }
        end(*file);
        files.push_back(file);
    }
}

BackgroundStore::Figures BackgroundStore::figures() const {
    return {writer_->waiting_bytes(), writer_->dropped_bytes, writer_->created_files,
            writer_->open_files(),    writer_->spare_bytes(), writer_->incomplete_files};
}

}  // namespace qv::node
