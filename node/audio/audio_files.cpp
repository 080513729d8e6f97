#include "node/audio/audio_files.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include "node/audio/descriptor.h"
#include "node/audio/new_file.h"
#include "quorvane_lib/utils_path.h"

namespace qv::node {

namespace {

// Left free for the socket, the events file and the files that libraries open.
constexpr std::size_t SPARE_DESCRIPTORS = 64;

constexpr const char* REMOVED = "the file was removed";
constexpr const char* MOVED = "the file was moved away";

// Samples are written to the file as they are in memory.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "WAV samples are little-endian");

std::string system_text(int error) {
    return std::generic_category().message(error);
}

}  // namespace

std::size_t raise_open_file_limit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return SPARE_DESCRIPTORS;
    }
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    getrlimit(RLIMIT_NOFILE, &limit);
    const auto possible = static_cast<std::size_t>(limit.rlim_cur);
    return possible > 2 * SPARE_DESCRIPTORS ? possible - SPARE_DESCRIPTORS
                                            : std::max<std::size_t>(possible / 2, 1);
}

class WavFile : public AudioFile {
  public:
    WavFile(WavFolder& folder, const std::string& name, const WavFormat& format)
        : folder_(folder), name_(name), path_(folder.path_ + '/' + name), format_(format) {
        if (folder_.created_ >= folder_.most_files_) {
            fail("too many files");
            return;
        }
        try {
            make();
        } catch (...) {
            release();
            throw;
        }
    }
    ~WavFile() override { WavFile::close(); }

    bool write(const std::int16_t* samples, std::size_t count) override {
        const std::uint64_t size = count * sizeof *samples;
        return make_ready(size) && append(samples, size);
    }

    // As a hole: silence takes no room on the disk, however long it lasts.
    bool write_silence(std::uint64_t count) override {
        const std::uint64_t size = count * sizeof(std::int16_t);
        if (!make_ready(size)) {
            return false;
        }
        if (::ftruncate(descriptor_, static_cast<off_t>(WAV_HEADER_SIZE + size_ + size)) != 0) {
            return fail(system_text(errno));
        }
        size_ += size;
        return write_header() || fail(system_text(errno));
    }

    bool close() override {
        if (!std::exchange(closed_, true)) {
            if (error_.empty()) {
                error_ = what_became_of_it();
            }
            release();
            folder_.list_.remove(name_);
        }
        return error_.empty();
    }

    const std::string& path() const override { return path_; }
    const std::string& error() const override { return error_; }

    // Closes the descriptor. A later write opens the file again.
    void release() {
        if (descriptor_ < 0) {
            return;
        }
        folder_.open_.erase(place_);
        if (error_.empty() && removed()) {
            error_ = REMOVED;
        }
        if (::close(std::exchange(descriptor_, -1)) != 0 && error_.empty()) {
            error_ = system_text(errno);
        }
    }

  private:
    // Makes the file under its name. If that name belongs to a file of another program, adds a
    // number to it.
    void make() {
        const int error = under_free_name(std::string(name_), [this](const std::string& name) {
            name_ = name;
            path_ = folder_.path_ + '/' + name_;
            folder_.list_.add(name_, format_);
            const int failure = make_named();
            if (failure != 0) {
                folder_.list_.remove(name_);
            }
            return failure;
        });
        if (error != 0) {
            fail(system_text(error));
        }
    }

    // Creates the file and writes its header before the file gets its name. A file that can be seen
    // can therefore always be played. Returns 0 or the error number.
    int make_named() {
        const std::string unfinished = unfinished_path(folder_.path_, name_);
        int error = open_descriptor(unfinished, O_CREAT | (folder_.overwrite_ ? O_TRUNC : O_EXCL));
        if (error != 0) {
            return error;
        }
        const WavHeader header = wav_header(format_, 0);
        const bool written = write_all(header.data(), header.size(), 0) == header.size() &&
                             ::fstat(descriptor_, &made_) == 0;
        error = written ? rename_file(unfinished, path_, folder_.overwrite_) : errno;
        if (error != 0) {
            release();
            error_.clear();
            ::unlink(unfinished.c_str());
        }
        return error;
    }

    // Returns 0 or the error number.
    int open_descriptor(const std::string& path, int how) {
        folder_.make_room();
        descriptor_ = open_regular_file(path, O_RDWR | how).release();
        while (descriptor_ < 0 && (errno == EMFILE || errno == ENFILE) && !folder_.open_.empty()) {
            folder_.open_.front()->release();
            descriptor_ = open_regular_file(path, O_RDWR | how).release();
        }
        if (descriptor_ < 0) {
            return errno;
        }
        try {
            place_ = folder_.open_.insert(folder_.open_.end(), this);
        } catch (...) {
            ::close(std::exchange(descriptor_, -1));
            throw;
        }
        return 0;
    }

    // Another file may have got the name meanwhile.
    bool open_again() {
        const int error = open_descriptor(path_, 0);
        struct stat status {};
        if (error != 0 || ::fstat(descriptor_, &status) != 0) {
            return fail(system_text(error != 0 ? error : errno));
        }
        return is_still(status) || fail(MOVED);
    }

    // Makes the file ready for `size` more bytes of samples.
    bool make_ready(std::uint64_t size) {
        if (!error_.empty()) {
            return false;
        }
        if (size > MAX_WAV_DATA_SIZE - size_) {
            return fail("a WAV file holds no more than 4 GB");
        }
        if (descriptor_ < 0 && !open_again()) {
            return false;
        }
        if (removed()) {
            return fail(REMOVED);
        }
        folder_.open_.splice(folder_.open_.end(), folder_.open_, place_);
        return true;
    }

    // Writes samples, then the header that counts them. If the program is killed in between, the
    // header still fits the samples before. When the disk becomes full, the file keeps what was
    // written.
    bool append(const std::int16_t* samples, std::uint64_t size) {
        const std::uint64_t written = write_all(samples, size, WAV_HEADER_SIZE + size_);
        const int error = errno;
        size_ += written - written % format_.frame_size();
        const bool counted = write_header();
        if (written == size) {
            return counted || fail(system_text(errno));
        }
        // An incomplete frame may stand at the end.
        [[maybe_unused]] const int ignored =
            ::ftruncate(descriptor_, static_cast<off_t>(WAV_HEADER_SIZE + size_));
        return fail(system_text(error));
    }

    // If that fails, errno says why.
    bool write_header() const {
        const WavHeader header = wav_header(format_, size_);
        return write_all(header.data(), header.size(), 0) == header.size();
    }

    // Returns how many bytes were written. If they are fewer than requested, errno says why.
    std::uint64_t write_all(const void* data, std::uint64_t size, std::uint64_t place) const {
        std::uint64_t done = 0;
        while (done < size) {
            const ssize_t written = ::pwrite(descriptor_, static_cast<const char*>(data) + done,
                                             size - done, static_cast<off_t>(place + done));
            if (written > 0) {
                done += static_cast<std::uint64_t>(written);
            } else if (written == 0 || errno != EINTR) {
                break;
            }
        }
        return done;
    }

    // A file that has lost its name is gone when it is closed.
    bool removed() const {
        struct stat file {};
        return ::fstat(descriptor_, &file) == 0 && file.st_nlink == 0;
    }

    // Returns why the path does not lead to the audio. Empty if it does, or if this cannot be found
    // out.
    std::string what_became_of_it() const {
        struct stat named {};
        struct stat file {};
        const bool there = ::stat(path_.c_str(), &named) == 0;
        if (!there && errno != ENOENT && errno != ENOTDIR) {
            return {};
        }
        if (descriptor_ < 0) {
            return !there ? REMOVED : is_still(named) ? "" : MOVED;
        }
        if (::fstat(descriptor_, &file) != 0 || (there && has_number_of(named))) {
            return {};
        }
        return file.st_nlink == 0 ? REMOVED : MOVED;
    }

    bool has_number_of(const struct stat& file) const {
        return file.st_dev == made_.st_dev && file.st_ino == made_.st_ino;
    }
    // For a file that was closed: if it was removed, another one may have its number.
    bool is_still(const struct stat& file) const {
        return has_number_of(file) && file.st_size == static_cast<off_t>(WAV_HEADER_SIZE + size_);
    }

    bool fail(std::string why) {
        error_ = std::move(why);
        release();
        return false;
    }

    WavFolder& folder_;
    std::string name_;
    std::string path_;
    WavFormat format_;
    int descriptor_ = -1;  // Negative while closed.
    struct stat made_ {};  // Of the file when it was made.
    bool closed_ = false;  // Finally; it is not opened again.
    // Its place in the folder's list of open files, while open.
    std::list<WavFile*>::iterator place_;
    std::uint64_t size_ = 0;  // Bytes of samples.
    std::string error_;
};

WavFolder::WavFolder(std::string path, std::size_t max_open, bool overwrite)
    : path_(std::move(path)), max_open_(max_open), overwrite_(overwrite), list_(path_) {}

WavFolder::~WavFolder() = default;

std::string WavFolder::prepare() {
    if (!utils::path::check_or_create_directory(path_, false, 0777,
                                                utils::path::create_policy::optimistic)) {
        return system_text(errno);
    }
    if (::access(path_.c_str(), W_OK | X_OK) != 0) {
        return system_text(errno);
    }
    return {};
}

std::shared_ptr<const PendingFile> WavFolder::write_text(const std::string& name,
                                                         std::string text) {
    NewFile file(path_, name);
    file.write(text);
    file.publish(overwrite_);
    return std::make_shared<PendingFile>(PendingFile{{file.path(), file.error()}, true});
}

bool WavFolder::exists(const std::string& name) const {
    return ::access((path_ + '/' + name).c_str(), F_OK) == 0;
}

std::unique_ptr<AudioFile> WavFolder::create(const std::string& name, int sample_rate,
                                             int channels) {
    auto file = std::make_unique<WavFile>(*this, name, WavFormat{sample_rate, channels});
    created_ += file->error().empty() ? 1 : 0;
    return file;
}

void WavFolder::make_room() {
    while (open_.size() >= max_open_) {
        open_.front()->release();
    }
}

}  // namespace qv::node
