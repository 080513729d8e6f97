#include "node/report/console.h"

#include <algorithm>
#include <memory>
#include <new>
#include <utility>

namespace qv::node {

namespace {

constexpr std::chrono::milliseconds A_MOMENT{50};

}  // namespace

Console::Console(int descriptor) : outlet_(std::make_unique<EventFile>(descriptor), MOST_BYTES) {}

std::streamsize Console::xsputn(const char* text, std::streamsize size) {
    const std::string_view more(text, static_cast<std::size_t>(size));
    try {
        text_ += more;
    } catch (const std::bad_alloc&) {
        out_of_memory_ = true;
        lose(more);
    }
    return size;
}

Console::int_type Console::overflow(int_type character) {
    const char text = traits_type::to_char_type(character);
    xsputn(&text, 1);
    return traits_type::not_eof(character);
}

int Console::sync() {
    if (std::exchange(out_of_memory_, false)) {
        lose(text_);
    } else if (!text_.empty()) {
        pass_on(text_);
    }
    text_.clear();
    return 0;
}

// Drops lines from the first one on that finds no room, so that no line is missing between others
// without a word.
void Console::pass_on(std::string_view text) {
    if (add(text)) {
        return;
    }
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = std::min(text.find('\n', begin), text.size() - 1) + 1;
        if (!add(text.substr(begin, end - begin))) {
            lose(text.substr(begin));
            return;
        }
        begin = end;
    }
}

void Console::lose(std::string_view text) {
    lost_lines_ += static_cast<std::uint64_t>(std::count(text.begin(), text.end(), '\n'));
}

bool Console::add(std::string_view text) {
    try {
        while (!outlet_.add(text)) {
            if (keep_waiting_ == nullptr || !keep_waiting_()) {
                return false;
            }
            outlet_.wait(std::chrono::steady_clock::now() + A_MOMENT);
        }
    } catch (const std::bad_alloc&) {
        return false;
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
