#include "node/audio/retention.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <exception>
#include <memory>
#include <optional>
#include <set>
#include <system_error>
#include <unordered_map>
#include <utility>

#include "node/audio/call_file_names.h"
#include "node/audio/descriptor.h"
#include "node/audio/open_list.h"
#include "node/audio/wav_header.h"
#include "quorvane_lib/mutex.h"

namespace qv::node {

namespace {

constexpr Micros YOUNG{600'000'000};        // Files of the last ten minutes stay.
constexpr Micros DAY{86'400'000'000};       // How long the clock is watched before it is trusted.
constexpr Micros LONG_JUMP{3'600'000'000};  // Of the clock, between two looks.

struct FolderFile {
    std::string name;
    Micros changed;  // Since 1970.
    std::uint64_t bytes;
    ino_t inode;
};

struct FolderCall {
    std::string stem;
    std::vector<FolderFile> files;

    Micros changed() const {
        Micros latest{0};
        for (const FolderFile& file : files) {
            latest = std::max(latest, file.changed);
        }
        return latest;
    }
    std::uint64_t bytes() const {
        std::uint64_t sum = 0;
        for (const FolderFile& file : files) {
            sum += file.bytes;
        }
        return sum;
    }
};

Micros changed_of(const struct stat& status) {
    return Micros(status.st_mtim.tv_sec * 1'000'000 + status.st_mtim.tv_nsec / 1000);
}

struct DirCloser {
    void operator()(DIR* entries) const { ::closedir(entries); }
};

// An open folder. Files are named relative to it, so that none outside of it can be reached.
class Folder {
  public:
    explicit Folder(const std::string& path)
        : descriptor_(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {}

    // Reads on while `visit` returns true. Returns false if the folder is not read to its end.
    template <typename Visit>
    bool for_each_name(Visit visit) const {
        const int copy =
            descriptor_.is_open() ? ::openat(descriptor_.number(), ".", O_RDONLY | O_CLOEXEC) : -1;
        const std::unique_ptr<DIR, DirCloser> entries(copy < 0 ? nullptr : ::fdopendir(copy));
        if (entries == nullptr) {
            return false;
        }
        errno = 0;
        bool stopped = false;
        // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread uses this stream.
        while (const dirent* const entry = stopped ? nullptr : ::readdir(entries.get())) {
            stopped = !visit(std::string(entry->d_name));
            errno = 0;
        }
        return !stopped && errno == 0;
    }

    // Returns nothing unless it is a regular file of this folder itself.
    std::optional<FolderFile> look_at(const std::string& name) const {
        struct stat status {};
        if (::fstatat(descriptor_.number(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 ||
            !S_ISREG(status.st_mode)) {
            return std::nullopt;
        }
        return FolderFile{name, changed_of(status),
                          static_cast<std::uint64_t>(status.st_blocks) * 512, status.st_ino};
    }

    std::string beginning_of(const std::string& name, std::size_t size) const {
        const Descriptor file(::openat(descriptor_.number(), name.c_str(),
                                       O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
        std::string text(size, '\0');
        const ssize_t there = file.is_open() ? ::read(file.number(), text.data(), size) : 0;
        text.resize(there > 0 ? static_cast<std::size_t>(there) : 0);
        return text;
    }

    // Removes the file unless it has changed since it was looked at. Returns 0 or the error number:
    // ENOENT if it is gone, ESTALE if it has changed.
    int remove(const FolderFile& file, const Retention::Remove& remove) const {
        const std::optional<FolderFile> now = look_at(file.name);
        if (!now.has_value()) {
            return ENOENT;
        }
        if (now->inode != file.inode || now->changed != file.changed) {
            return ESTALE;
        }
        return remove(descriptor_.number(), file.name.c_str());
    }

  private:
    const Descriptor descriptor_;
};

bool contains(const std::string& text, const char* part) {
    return text.find(part) != std::string::npos;
}

// Whether a file that is named after a call alone, without a side, looks like one of this program.
// Other programs name their files after calls, too.
bool looks_like_ours(const Folder& folder, const FolderFile& file, const std::string& ending) {
    const std::string begin = folder.beginning_of(file.name, 4096);
    if (ending == ".wav") {
        WavHeader header{};
        if (begin.size() < header.size()) {
            return false;
        }
        std::copy_n(begin.begin(), header.size(), header.begin());
        const auto fields = parse_wav_header(header);
        return fields.has_value() && fields->format.channels == 2;
    }
    if (ending == ".json") {
        return contains(begin, "\"sidecar_version\":") &&
               contains(begin, "\"program\": \"quorvane-node\"");
    }
    if (ending == ".svg") {
        return contains(begin, "<svg xmlns=") && contains(begin, "<pattern id=\"pause\"");
    }
    return contains(begin, "quorvane-node");  // The comment in FLAC and Opus.
}

}  // namespace

int remove_from_folder(int folder, const char* name) {
    return ::unlinkat(folder, name, 0) == 0 ? 0 : errno;
}

// What the thread does. It owns all that it uses, so that it may outlive the Retention.
class Retention::Work {
  public:
    explicit Work(const Options& options) : options_(options), names_(options.pattern) {}

    // The thread's: one look at the folder.
    void look(const std::set<std::string>& present) QV_EXCLUDES(mutex_) {
        const Folder folder(options_.folder);
        std::optional<std::vector<FolderCall>> found = finished_calls(folder, present);
        if (!found.has_value()) {
            return;
        }
        std::vector<FolderCall>& calls = *found;
        const Micros now = options_.wall_clock();
        note_clock(now, calls);
        std::sort(calls.begin(), calls.end(), [](const FolderCall& one, const FolderCall& another) {
            return one.changed() < another.changed();
        });
        std::uint64_t bytes = all_bytes_;
        // The room that a call was to make is not taken from newer calls.
        bool failed = false;
        for (const FolderCall& call : calls) {
            const bool young = call.changed() > now - YOUNG;
            const bool old = options_.limits.age.has_value() && trusted() &&
                             call.changed() < now - *options_.limits.age;
            const bool too_much = !failed && bytes > options_.limits.bytes.value_or(bytes);
            if (ending_ || young || (!old && !too_much)) {
                continue;
            }
            const Removal removal = remove(folder, call, old);
            bytes -= std::min(bytes, removal.freed);
            failed = failed || removal.failed;
        }
    }

    RetentionResult take() QV_EXCLUDES(mutex_) {
        const LockGuard lock(mutex_);
        return std::exchange(result_, {});
    }

    void end() { ending_ = true; }

  private:
    struct Removal {
        std::uint64_t freed;  // Bytes.
        bool failed;          // A file of the call is still there.
    };

    // Returns the calls whose files may be removed, and counts the bytes of all. Returns nothing if
    // the folder could not be read to its end: what was not seen may protect a call.
    std::optional<std::vector<FolderCall>> finished_calls(const Folder& folder,
                                                          const std::set<std::string>& present) {
        std::unordered_map<std::string, FolderCall> calls;
        std::set<std::string> open = present;
        const bool whole = folder.for_each_name([&](const std::string& name) {
            if (is_open_list(name)) {
                add_open_stems(name, open);
                return !ending_;
            }
            const auto parsed = names_.parse(name);
            const auto file = parsed.has_value() ? folder.look_at(name) : std::nullopt;
            if (file.has_value() &&
                (parsed->of_side || looks_like_ours(folder, *file, parsed->ending))) {
                FolderCall& call = calls[parsed->stem];
                call.stem = parsed->stem;
                call.files.push_back(*file);
            }
            return !ending_;
        });
        if (!whole) {
            return std::nullopt;
        }
        all_bytes_ = 0;
        std::vector<FolderCall> finished;
        for (auto& [stem, call] : calls) {
            all_bytes_ += call.bytes();
            if (open.count(stem) == 0) {
                finished.push_back(std::move(call));
            }
        }
        return finished;
    }

    // The files that this program or another one is writing to the folder.
    void add_open_stems(const std::string& list, std::set<std::string>& stems) const {
        for (const std::string& name : listed_names(options_.folder + '/' + list)) {
            const auto parsed = names_.parse(name);
            if (parsed.has_value()) {
                stems.insert(parsed->stem);
            }
        }
    }

    // Decides whether the clock can be trusted.
    void note_clock(Micros now, const std::vector<FolderCall>& calls) {
        const Micros ahead = now - options_.uptime();
        const bool first = !ahead_.has_value();
        const Micros jump = first ? Micros{0} : ahead - *ahead_;
        ahead_ = ahead;
        if (jump > LONG_JUMP || jump < -LONG_JUMP) {
            distrust("the clock has jumped by more than an hour");
        } else if (first && !calls.empty() &&
                   std::none_of(calls.begin(), calls.end(), [now](const FolderCall& call) {
                       return call.changed() > now - DAY && call.changed() <= now;
                   })) {
            distrust("no call of the last day is in the folder: the clock may be wrong");
        }
    }

    void distrust(const std::string& why) QV_EXCLUDES(mutex_) {
        distrusted_until_ = options_.uptime() + DAY;
        if (options_.limits.age.has_value()) {
            const LockGuard lock(mutex_);
            result_.distrust = why;
        }
    }

    bool trusted() const { return options_.uptime() >= distrusted_until_; }

    // A call that could not be removed is reported once, and tried again with each look.
    Removal remove(const Folder& folder, const FolderCall& call, bool by_age) QV_EXCLUDES(mutex_) {
        RemovedCall removed{call.stem, {}, 0, by_age, {}};
        std::uint64_t gone = 0;  // Bytes that another program has freed meanwhile.
        for (const FolderFile& file : call.files) {
            const int error = folder.remove(file, options_.remove);
            if (error == 0) {
                removed.files.push_back(file.name);
                removed.bytes += file.bytes;
            } else if (error == ENOENT) {
                gone += file.bytes;
            } else if (error != ESTALE) {
                removed.error = file.name + ": " + std::generic_category().message(error);
            }
        }
        std::sort(removed.files.begin(), removed.files.end());
        const Removal removal{removed.bytes + gone, !removed.error.empty()};
        const bool new_error = removal.failed && failed_.insert(call.stem).second;
        if (!removal.failed) {
            failed_.erase(call.stem);
        }
        if (!removed.files.empty() || new_error) {
            const LockGuard lock(mutex_);
            result_.removed.push_back(std::move(removed));
        }
        return removal;
    }

    const Options options_;
    const CallFileNames names_;
    std::uint64_t all_bytes_ = 0;
    std::optional<Micros> ahead_;  // The clock ahead of the uptime, when it was looked at last.
    Micros distrusted_until_ = Micros::min();  // In uptime.
    std::set<std::string> failed_;             // Stems of calls that could not be removed.
    std::atomic<bool> ending_{false};
    Mutex mutex_;
    RetentionResult result_ QV_GUARDED_BY(mutex_);
};

Retention::Retention(const Options& options) : work_(std::make_shared<Work>(options)) {}

Retention::~Retention() {
    work_->end();
    if (!tasks_.wait(std::chrono::steady_clock::now())) {
        tasks_.abandon();
    }
}

void Retention::begin(std::vector<std::string> present_stems) {
    if (!tasks_.wait(std::chrono::steady_clock::now())) {
        return;
    }
    tasks_.add([work = work_, stems = std::move(present_stems)] {
        try {
            work->look({stems.begin(), stems.end()});
        } catch (const std::exception&) {  // No memory. The next look may have more.
        }
    });
}

RetentionResult Retention::take() {
    return work_->take();
}

void Retention::end(std::chrono::steady_clock::time_point until) {
    work_->end();
    tasks_.wait(until);
}

}  // namespace qv::node
