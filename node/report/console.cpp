#include "node/report/console.h"

#include <algorithm>
#include <memory>
#include <utility>

namespace qv::node {

namespace {

constexpr std::chrono::milliseconds A_MOMENT{50};

}  // namespace

Console::Console(int descriptor) : outlet_(std::make_unique<EventFile>(descriptor), MOST_BYTES) {}

// Drops lines from the first one on that finds no room, so that no line is missing between others
// without a word.
int Console::sync() {
    const std::string text = str();
    str({});
    if (text.empty() || add(text)) {
        return 0;
    }
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find('\n', begin), text.size() - 1) + 1;
        if (!add(text.substr(begin, end - begin))) {
            lost_lines_ += static_cast<std::uint64_t>(
                std::count(text.begin() + static_cast<std::ptrdiff_t>(begin), text.end(), '\n'));
            break;
        }
        begin = end;
    }
    return 0;
}

bool Console::add(const std::string& text) {
    while (!outlet_.add(text)) {
        if (keep_waiting_ == nullptr || !keep_waiting_()) {
            return false;
        }
        outlet_.wait(std::chrono::steady_clock::now() + A_MOMENT);
    }
    return true;
}

bool Console::show(const std::string& text) {
    return outlet_.add(text);
}

void Console::show_frame(const std::string& frame) {
    if (!outlet_.idle() || !outlet_.add(frame)) {
        ++lost_frames_;
    }
}

std::uint64_t Console::take_lost_lines() {
    return outlet_.idle() ? lost_lines_ - std::exchange(reported_lines_, lost_lines_) : 0;
}

}  // namespace qv::node
