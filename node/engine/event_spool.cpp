#include "node/engine/event_spool.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>
#include <utility>

#include "tools/number.h"

namespace qv::node {

namespace {

namespace fs = std::filesystem;

constexpr const char* ENDING = ".events";

std::string error_text() {
    return std::generic_category().message(errno);
}

// An event is one line, and so is the note that it need not be kept.
std::string kept_line(const EngineEvent& event) {
    return "+ " + event.id + ' ' + event.call + ' ' + event.kind + ' ' + event.text + '\n';
}

std::string released_line(const std::string& id) {
    return "- " + id + '\n';
}

// Returns whether all of it was written.
bool write_all(int descriptor, const std::string& text) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t some = ::write(descriptor, text.data() + done, text.size() - done);
        if (some < 0 && errno == EINTR) {
            continue;
        }
        if (some <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(some);
    }
    return true;
}

std::uint64_t number_of(const fs::path& path) {
    return tools::parse_number<std::uint64_t>(path.stem().string()).value_or(0);
}

}  // namespace

EventSpool::~EventSpool() {
    for (const int descriptor : {growing_, lock_}) {
        if (descriptor >= 0) {
            ::close(descriptor);
        }
    }
}

std::string EventSpool::open(const std::function<void(const Event&)>& use) {
    std::error_code error;
    fs::create_directories(folder_, error);
    lock_ = ::open((folder_ + "/lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (lock_ < 0) {
        return folder_ + ": " + error_text();
    }
    if (flock(lock_, LOCK_EX | LOCK_NB) != 0) {
        return folder_ + ": " + (errno == EWOULDBLOCK ? "another program uses it" : error_text());
    }
    std::vector<std::pair<std::uint64_t, std::string>> found;
    for (const auto& entry : fs::directory_iterator(folder_, error)) {
        if (entry.path().extension() == ENDING && number_of(entry.path()) != 0) {
            found.emplace_back(number_of(entry.path()), entry.path());
        }
    }
    if (error) {
        return folder_ + ": " + error.message();
    }
    std::sort(found.begin(), found.end());
    for (const auto& [number, path] : found) {
        last_file_ = number;
        std::string complaint = read(path, use);
        if (!complaint.empty()) {
            return complaint;
        }
    }
    return {};
}

std::string EventSpool::read(const std::string& path,
                             const std::function<void(const Event&)>& use) {
    std::ifstream stream(path);
    if (!stream) {
        return path + ": " + error_text();
    }
    std::vector<Event> events;
    std::map<std::string, bool> released;
    std::uint64_t whole = 0;  // Bytes of whole lines.
    for (std::string line; std::getline(stream, line) && !stream.eof();) {
        whole += line.size() + 1;
        std::istringstream fields(line);
        std::string sign;
        EngineEvent event;
        fields >> sign >> event.id;
        if (sign == "-") {
            released[event.id] = true;
        } else if (sign == "+" && fields >> event.call >> event.kind >> std::ws &&
                   std::getline(fields, event.text)) {
            events.push_back(std::make_shared<const EngineEvent>(std::move(event)));
        }
    }
    if (stream.bad()) {  // What follows is unread, not cut.
        return path + ": " + error_text();
    }
    // A line that was cut when the program or the disk failed would swallow the next one.
    if (::truncate(path.c_str(), static_cast<off_t>(whole)) != 0) {
        return path + ": " + error_text();
    }
    File file{path};
    for (const Event& event : events) {
        if (released.count(event->id) == 0) {
            ++file.kept;
            places_[event->id] = last_file_;
            use(event);
        }
    }
    file.size = whole;
    file.full = true;
    files_.emplace(last_file_, file);
    if (file.kept == 0) {
        close(last_file_);
    }
    return {};
}

std::string EventSpool::begin_file() {
    const std::uint64_t number = ++last_file_;
    const File file{folder_ + '/' + std::to_string(number) + ENDING};
    const int descriptor =
        ::open(file.path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC, 0600);
    if (descriptor < 0) {
        return file.path + ": " + error_text();
    }
    if (growing_ >= 0) {
        ::close(growing_);
    }
    growing_ = descriptor;
    files_.emplace(number, file);
    return {};
}

std::string EventSpool::keep(const std::vector<Event>& events) {
    if (events.empty()) {
        return {};
    }
    const auto last = files_.find(last_file_);
    if (last == files_.end() || last->second.full) {
        std::string error = begin_file();
        if (!error.empty()) {
            return error;
        }
    }
    std::string text;
    for (const Event& event : events) {
        text += kept_line(*event);
    }
    std::string error = append(last_file_, text);
    if (!error.empty()) {
        return error;
    }
    files_.at(last_file_).kept += events.size();
    for (const Event& event : events) {
        places_[event->id] = last_file_;
    }
    return {};
}

std::string EventSpool::release(const std::vector<std::string>& ids) {
    std::map<std::uint64_t, std::string> notes;
    for (const std::string& id : ids) {
        const auto place = places_.find(id);
        if (place == places_.end()) {
            continue;
        }
        notes[place->second] += released_line(id);
        --files_.at(place->second).kept;
        places_.erase(place);
    }
    std::string error;
    for (const auto& [number, text] : notes) {
        const File& file = files_.at(number);
        if (file.kept != 0 || !file.full) {
            const std::string failure = append(number, text);
            error = error.empty() ? failure : error;
        }
        if (file.kept == 0 && file.full) {  // The note may have filled it.
            close(number);
        }
    }
    return error;
}

// Appends all of it or nothing. Only the last file stays open, because there may be many.
std::string EventSpool::append(std::uint64_t number, const std::string& text) {
    File& file = files_.at(number);
    const bool last = number == last_file_ && growing_ >= 0;
    const int descriptor =
        last ? growing_ : ::open(file.path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    std::string error;
    if (descriptor < 0 || !write_all(descriptor, text)) {
        error = file.path + ": " + error_text();
        // What was written of it is ignored if this fails, too, because its last line is cut.
        file.full = ::truncate(file.path.c_str(), static_cast<off_t>(file.size)) != 0 || file.full;
    } else {
        file.size += text.size();
        file.full = file.full || file.size >= MOST_BYTES;
    }
    if (!last && descriptor >= 0) {
        ::close(descriptor);
    }
    return error;
}

void EventSpool::close(std::uint64_t number) {
    if (number == last_file_ && growing_ >= 0) {
        ::close(growing_);
        growing_ = -1;
    }
    ::unlink(files_.at(number).path.c_str());
    files_.erase(number);
}

}  // namespace qv::node
