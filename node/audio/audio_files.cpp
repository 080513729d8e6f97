#include "node/audio/audio_files.h"

#include <fcntl.h>
#include <sndfile.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <system_error>
#include <utility>

#include "quorvane_lib/utils_path.h"

namespace qv::node {

namespace {

// The lengths in the header are updated after so many blocks: the program may be killed.
constexpr unsigned BLOCKS_PER_HEADER = 8;

// A WAV file counts its bytes with 32 bits.
constexpr std::uint64_t MAX_FILE_BYTES = 0xFFFFFFFF - 4096;

// For the socket, the events file and what the libraries open.
constexpr std::size_t SPARE_DESCRIPTORS = 64;

constexpr const char* REMOVED = "the file was removed";

std::string system_text(int error) {
    return std::generic_category().message(error);
}

// The library's error text; for an error of the system, the system's own text.
std::string library_text(const char* text) {
    static constexpr std::string_view prefix = "System error : ";
    std::string words = text;
    if (words.rfind(prefix, 0) == 0) {
        words.erase(0, prefix.size());
        words.erase(words.find_last_not_of('.') + 1);
    }
    return words;
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
    WavFile(WavFolder& folder, std::string path, int sample_rate, int channels)
        : folder_(folder), path_(std::move(path)) {
        format_.samplerate = sample_rate;
        format_.channels = channels;
        format_.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
        open(O_CREAT | (folder.overwrite_ ? O_TRUNC : O_EXCL));
    }
    ~WavFile() override { WavFile::close(); }

    bool write(const std::int16_t* samples, std::size_t count) override {
        if (!error_.empty()) {
            return false;
        }
        if ((written_ + count) * sizeof *samples > MAX_FILE_BYTES) {
            return fail("a WAV file holds no more than 4 GB");
        }
        if (handle_ == nullptr && !open(0)) {
            return false;
        }
        if (removed()) {
            return fail(REMOVED);
        }
        folder_.open_.splice(folder_.open_.end(), folder_.open_, place_);
        errno = 0;
        const auto wanted = static_cast<sf_count_t>(count);
        if (sf_write_short(handle_, samples, wanted) != wanted) {
            return fail(errno != 0 ? system_text(errno) : library_text(sf_strerror(handle_)));
        }
        written_ += count;
        if (++blocks_ % BLOCKS_PER_HEADER == 0) {
            sf_command(handle_, SFC_UPDATE_HEADER_NOW, nullptr, 0);
        }
        return true;
    }

    bool close() override {
        if (!std::exchange(closed_, true) && error_.empty()) {
            error_ = what_became_of_it();
        }
        release();
        return error_.empty();
    }

    const std::string& path() const override { return path_; }
    const std::string& error() const override { return error_; }

    // Closes the descriptor; a later write opens the file again.
    void release() {
        if (handle_ == nullptr) {
            return;
        }
        folder_.open_.erase(place_);
        if (error_.empty() && removed()) {
            error_ = REMOVED;
        }
        errno = 0;
        const int result = sf_close(std::exchange(handle_, nullptr));
        if (result != 0 && error_.empty()) {
            error_ = errno != 0 ? system_text(errno) : library_text(sf_error_number(result));
        }
    }

  private:
    bool open(int how) {
        folder_.make_room();
        descriptor_ = ::open(path_.c_str(), O_RDWR | O_CLOEXEC | how, 0666);
        while (descriptor_ < 0 && (errno == EMFILE || errno == ENFILE) && !folder_.open_.empty()) {
            folder_.open_.front()->release();
            descriptor_ = ::open(path_.c_str(), O_RDWR | O_CLOEXEC | how, 0666);
        }
        if (descriptor_ < 0) {
            return fail(system_text(errno));
        }
        const bool fresh = how != 0;
        handle_ = sf_open_fd(descriptor_, fresh ? SFM_WRITE : SFM_RDWR, &format_, SF_TRUE);
        if (handle_ == nullptr) {
            ::close(descriptor_);
            return fail(library_text(sf_strerror(nullptr)));
        }
        place_ = folder_.open_.insert(folder_.open_.end(), this);
        if (!fresh && sf_seek(handle_, 0, SEEK_END) < 0) {
            return fail(library_text(sf_strerror(handle_)));
        }
        return true;
    }

    // A file without a name is lost when it is closed.
    bool removed() const {
        struct stat file {};
        return ::fstat(descriptor_, &file) == 0 && file.st_nlink == 0;
    }

    // Why the path does not lead to the audio; empty when it does, or when that cannot be found
    // out.
    std::string what_became_of_it() const {
        struct stat named {};
        const bool there = ::stat(path_.c_str(), &named) == 0;
        if (!there && errno != ENOENT && errno != ENOTDIR) {
            return {};
        }
        if (handle_ == nullptr) {
            return there ? "" : REMOVED;
        }
        struct stat file {};
        if (::fstat(descriptor_, &file) != 0 ||
            (there && file.st_dev == named.st_dev && file.st_ino == named.st_ino)) {
            return {};
        }
        return file.st_nlink == 0 ? REMOVED : "the file was moved away";
    }

    bool fail(std::string why) {
        error_ = std::move(why);
        release();
        return false;
    }

    WavFolder& folder_;
    std::string path_;
    SF_INFO format_{};
    sf_private_tag* handle_ = nullptr;     // Null while closed.
    int descriptor_ = -1;                  // Of the handle, which owns it.
    bool closed_ = false;                  // For good.
    std::list<WavFile*>::iterator place_;  // In the folder's list of open files, while open.
    std::uint64_t written_ = 0;
    unsigned blocks_ = 0;
    std::string error_;
};

WavFolder::WavFolder(std::string path, std::size_t max_open, bool overwrite)
    : path_(std::move(path)), max_open_(max_open), overwrite_(overwrite) {}

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

bool WavFolder::exists(const std::string& name) const {
    return ::access((path_ + '/' + name).c_str(), F_OK) == 0;
}

std::unique_ptr<AudioFile> WavFolder::create(const std::string& name, int sample_rate,
                                             int channels) {
    auto file = std::make_unique<WavFile>(*this, path_ + '/' + name, sample_rate, channels);
    created_ += file->error().empty() ? 1 : 0;
    return file;
}

void WavFolder::make_room() {
    while (open_.size() >= max_open_) {
        open_.front()->release();
    }
}

}  // namespace qv::node
