#include "node/audio/open_list.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>
#include <utility>

#include "node/audio/descriptor.h"

namespace qv::node {

namespace {

constexpr const char* LIST_PREFIX = ".quorvane-node-open-";

// A longer list is rewritten when most of its lines name completed files.
constexpr std::size_t FEW_LINES = 1000;

constexpr const char* NOT_OURS = "it is no WAV file of this program any more";

// Whether it is a file itself, and not a link. To open a FIFO would block.
bool is_regular_file(const std::string& path) {
    std::error_code error;
    return std::filesystem::is_regular_file(std::filesystem::symlink_status(path, error));
}

std::vector<std::string> lists_in(const std::string& folder) {
    std::vector<std::string> lists;
    std::error_code error;
    const std::filesystem::directory_iterator end;
    for (std::filesystem::directory_iterator entry(folder, error); !error && entry != end;
         entry.increment(error)) {
        if (is_open_list(entry->path().filename()) && is_regular_file(entry->path())) {
            lists.push_back(entry->path());
        }
    }
    std::sort(lists.begin(), lists.end());
    return lists;
}

// Writes the header that matches the size of the file. Leaves files of other programs unchanged.
void repair(int file, std::uint64_t size, LeftoverFile& leftover) {
    WavHeader header{};
    const bool whole =
        ::pread(file, header.data(), header.size(), 0) == static_cast<ssize_t>(header.size());
    // After a power cut, a file may be empty, or have its full length without its contents.
    const bool blank = !whole || header == WavHeader{};
    const auto fields = parse_wav_header(header);
    if (!blank && !fields.has_value()) {
        leftover.error = NOT_OURS;
        return;
    }
    if (fields.has_value()) {
        leftover.format = fields->format;
    }
    const std::size_t frame = leftover.format.frame_size();
    const std::uint64_t there =
        size < WAV_HEADER_SIZE ? 0 : std::min(size - WAV_HEADER_SIZE, MAX_WAV_DATA_SIZE);
    leftover.frames = there / frame;
    const std::uint64_t data_size = leftover.frames * frame;
    const std::uint64_t counted = fields.has_value() ? fields->data_size : 0;
    leftover.recovered = data_size > counted ? (data_size - counted) / frame : 0;
    header = wav_header(leftover.format, data_size);
    if (::pwrite(file, header.data(), header.size(), 0) != static_cast<ssize_t>(header.size()) ||
        ::ftruncate(file, static_cast<off_t>(WAV_HEADER_SIZE + data_size)) != 0) {
        leftover.error = std::generic_category().message(errno);
    }
}

// The file stays as old as its audio: otherwise, an old call would count as one of today.
void keep_time(int file, const struct stat& status) {
    const timespec times[] = {{0, UTIME_OMIT}, status.st_mtim};
    ::futimens(file, times);
}

// Adds the file to `leftovers` if it is there.
void recover(const std::string& folder, const std::string& name, const WavFormat& format,
             std::vector<LeftoverFile>& leftovers) {
    ::unlink(unfinished_path(folder, name).c_str());
    LeftoverFile leftover{folder + '/' + name, format, 0, 0, {}};
    const Descriptor file(
        ::open(leftover.path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    struct stat status {};
    if (!file.is_open() || ::fstat(file.number(), &status) != 0) {
        if (errno == ENOENT) {
            return;
        }
        leftover.error = std::generic_category().message(errno);
    } else if (!S_ISREG(status.st_mode)) {
        leftover.error = NOT_OURS;
    } else {
        repair(file.number(), static_cast<std::uint64_t>(status.st_size), leftover);
        keep_time(file.number(), status);
    }
    leftovers.push_back(std::move(leftover));
}

// Reads the next line that may name a file. Returns false if there is none. Longer lines are passed
// over, and the list ends at one that has no end: any user may have put a list there.
bool next_line(std::istream& lines, std::string& line) {
    constexpr std::streamsize longest_ignored = 1 << 20;
    std::array<char, 512> read{};  // A name has at most 255 bytes.
    while (!lines.getline(read.data(), read.size())) {
        if (lines.eof() || lines.gcount() == 0) {
            return false;
        }
        lines.clear();
        if (lines.ignore(longest_ignored, '\n').gcount() == longest_ignored) {
            return false;
        }
    }
    line = read.data();
    return true;
}

// Calls `use` for each file on the list at that path, with its name and its format.
template <typename Use>
void for_each_listed(const std::string& path, Use use) {
    constexpr int most_lines = 1'000'000;  // Many more than files can be open.
    std::ifstream lines(path);
    std::string line;
    for (int i = 0; i < most_lines && next_line(lines, line); ++i) {
        std::istringstream words(line);
        WavFormat format;
        std::string name;
        // The last line may have been cut off.
        if (words >> format.sample_rate >> format.channels >> name && format.sample_rate > 0 &&
            (format.channels == 1 || format.channels == 2) && name.find('/') == std::string::npos) {
            use(name, format);
        }
    }
}

}  // namespace

bool is_open_list(const std::string& name) {
    return name.rfind(LIST_PREFIX, 0) == 0;
}

std::vector<std::string> listed_names(const std::string& path) {
    std::vector<std::string> names;
    if (!is_regular_file(path)) {
        return names;
    }
    for_each_listed(path, [&names](const std::string& name, const WavFormat& /*format*/) {
        names.push_back(name);
    });
    return names;
}

OpenList::~OpenList() {
    if (descriptor_ >= 0) {
        end();
    }
}

void OpenList::add(const std::string& name, const WavFormat& format) {
    struct stat status {};
    if (descriptor_ >= 0 && ::fstat(descriptor_, &status) == 0 && status.st_nlink == 0) {
        end();  // The list was removed with its folder, which may exist again.
    }
    std::string& line = lines_[name];
    line = std::to_string(format.sample_rate) + ' ' + std::to_string(format.channels) + ' ' + name +
           '\n';
    if (descriptor_ < 0) {
        rewrite();
    } else {
        write(line);
    }
}

void OpenList::remove(const std::string& name) {
    lines_.erase(name);
    if (descriptor_ < 0) {
        return;
    }
    if (lines_.empty()) {
        end();
    } else if (written_lines_ > FEW_LINES && written_lines_ > 4 * lines_.size()) {
        rewrite();
    }
}

// Creates an empty list. Returns false if this fails.
bool OpenList::begin() {
    path_ = folder_ + '/' + LIST_PREFIX + "XXXXXX";
    descriptor_ = ::mkostemp(path_.data(), O_CLOEXEC | O_APPEND);
    written_lines_ = 0;
    if (descriptor_ >= 0) {
        ::flock(descriptor_, LOCK_EX | LOCK_NB);
    }
    return descriptor_ >= 0;
}

void OpenList::end() {
    ::unlink(path_.c_str());
    ::close(std::exchange(descriptor_, -1));
}

void OpenList::write(const std::string& lines) {
    // On a full disk the list lacks this name. Nothing else is lost.
    [[maybe_unused]] const ssize_t written = ::write(descriptor_, lines.data(), lines.size());
    ++written_lines_;
}

// The new list is complete before it replaces the old one.
void OpenList::rewrite() {
    const int old = descriptor_;
    const std::string old_path = path_;
    if (begin()) {
        for (const auto& [name, line] : lines_) {
            write(line);
        }
    }
    if (old >= 0) {
        ::unlink(old_path.c_str());
        ::close(old);
    }
}

std::string unfinished_path(const std::string& folder, const std::string& name) {
    return folder + "/." + name + ".new";
}

std::vector<LeftoverFile> recover_leftovers(const std::string& folder) {
    std::vector<LeftoverFile> leftovers;
    for (const std::string& list : lists_in(folder)) {
        const Descriptor file(::open(list.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
        if (!file.is_open() || ::flock(file.number(), LOCK_EX | LOCK_NB) != 0) {
            continue;  // That run is still active.
        }
        for_each_listed(list, [&](const std::string& name, const WavFormat& format) {
            recover(folder, name, format, leftovers);
        });
        ::unlink(list.c_str());
    }
    return leftovers;
}

}  // namespace qv::node
