#include "tools/call/console.h"

namespace qv::tools::call {

void Console::line(const std::string& text) {
    const LockGuard guard(lock_);
    erase_status();
    out_ << text << '\n' << std::flush;
    draw_status();
}

void Console::set_status(const std::string& text) {
    const LockGuard guard(lock_);
    if (!terminal_) {
        return;
    }
    erase_status();
    status_text_ = text;
    draw_status();
}

void Console::erase_status() {
    if (!status_text_.empty()) {
        status_ << "\r\033[K" << std::flush;
    }
}

void Console::draw_status() {
    if (status_text_.empty()) {
        return;
    }
    // The last column stays free, because some terminals wrap when it is written.
    const std::size_t columns = columns_();
    status_ << (columns > 1 ? status_text_.substr(0, columns - 1) : status_text_) << std::flush;
}

}  // namespace qv::tools::call
