#include "node/report/text_outlet.h"

#include <algorithm>
#include <new>
#include <utility>

#include "quorvane_lib/mutex.h"
#include "tools/thread_priority.h"

namespace qv::node {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds TRY_AGAIN{100};
constexpr std::chrono::milliseconds PATIENCE_AT_THE_END{200};

std::uint64_t lines_in(const std::string& text) {
    return static_cast<std::uint64_t>(std::count(text.begin(), text.end(), '\n'));
}

}  // namespace

struct TextOutlet::Shared {
    Shared(std::unique_ptr<EventFile> opened, std::size_t bytes)
        : file(std::move(opened)), most_bytes(bytes) {}

    void run() QV_EXCLUDES(mutex);
    bool next() QV_EXCLUDES(mutex);
    void write() QV_EXCLUDES(mutex);
    bool is_idle() const QV_REQUIRES(mutex) { return waiting.empty() && !busy; }

    // The thread's.
    const std::unique_ptr<EventFile> file;
    std::string in_hand;      // Text that the file has not taken.
    bool failed = false;      // The latest write.
    bool reopen_now = false;  // After it.

    const std::size_t most_bytes;
    mutable Mutex mutex;
    mutable Condition work;
    mutable Condition progress;
    std::string waiting QV_GUARDED_BY(mutex);
    std::size_t bytes_in_hand QV_GUARDED_BY(mutex) = 0;
    std::uint64_t lines_in_hand QV_GUARDED_BY(mutex) = 0;
    std::string error QV_GUARDED_BY(mutex);
    std::uint64_t replaced QV_GUARDED_BY(mutex) = 0;
    bool busy QV_GUARDED_BY(mutex) = false;  // The thread has text in hand.
    bool reopening QV_GUARDED_BY(mutex) = false;
    std::optional<std::string> reopened QV_GUARDED_BY(mutex);
    bool stopping QV_GUARDED_BY(mutex) = false;
    bool ended QV_GUARDED_BY(mutex) = false;
};

void TextOutlet::Shared::run() {
    tools::lower_priority(tools::Priority::BUFFERED);
    bool going = true;
    while (going) {
        try {
            going = next();
            if (going) {
                write();
            }
        } catch (const std::bad_alloc&) {
            failed = true;  // Tries again.
        }
    }
    const LockGuard lock(mutex);
    ended = true;
    progress.notify_all();
}

// Waits for work, and after a failure for the time to try again. Returns false at the end.
bool TextOutlet::Shared::next() {
    const LockGuard lock(mutex);
    const auto again = Clock::now() + TRY_AGAIN;
    while (failed && !stopping && !reopening && work.wait_until(mutex, again)) {
    }
    while (!stopping && !reopening && is_idle()) {
        work.wait(mutex);
    }
    if (stopping) {
        return false;
    }
    in_hand += waiting;
    waiting.clear();
    reopen_now = std::exchange(reopening, false);
    bytes_in_hand = in_hand.size();
    lines_in_hand = lines_in(in_hand);
    busy = true;
    return true;
}

void TextOutlet::Shared::write() {
    const std::size_t written = file->write(in_hand.data(), in_hand.size());
    failed = written < in_hand.size() || file->in_midst();
    in_hand.erase(0, written);
    std::optional<std::string> result;
    if (std::exchange(reopen_now, false)) {
        result = file->reopen();
        failed = !in_hand.empty() || file->in_midst();
    }
    const LockGuard lock(mutex);
    if (result.has_value()) {
        reopened = std::move(result);
    }
    error = failed ? file->error() : std::string();
    replaced = file->replaced();
    bytes_in_hand = in_hand.size();
    lines_in_hand = lines_in(in_hand) + (file->in_midst() ? 1 : 0);
    busy = !in_hand.empty() || file->in_midst();
    progress.notify_all();
}

TextOutlet::TextOutlet(std::unique_ptr<EventFile> file, std::size_t most_bytes)
    : shared_(std::make_shared<Shared>(std::move(file), most_bytes)),
      thread_([shared = shared_] { shared->run(); }) {}

TextOutlet::~TextOutlet() {
    const auto until = Clock::now() + PATIENCE_AT_THE_END;
    wait(until);
    bool ended = false;
    {
        const LockGuard lock(shared_->mutex);
        shared_->stopping = true;
        shared_->work.notify_all();
        while (!shared_->ended && shared_->progress.wait_until(shared_->mutex, until)) {
        }
        ended = shared_->ended;
    }
    if (ended) {
        thread_.join();
    } else {
        thread_.detach();
    }
}

bool TextOutlet::add(std::string_view text) {
    const LockGuard lock(shared_->mutex);
    const std::size_t before = shared_->waiting.size() + shared_->bytes_in_hand;
    if (!shared_->is_idle() && before + text.size() > shared_->most_bytes) {
        return false;
    }
    shared_->waiting += text;
    shared_->work.notify_all();
    return true;
}

bool TextOutlet::idle() const {
    const LockGuard lock(shared_->mutex);
    return shared_->is_idle();
}

bool TextOutlet::wait(Clock::time_point until) const {
    const LockGuard lock(shared_->mutex);
    while (!shared_->is_idle() && shared_->progress.wait_until(shared_->mutex, until)) {
    }
    return shared_->is_idle();
}

std::uint64_t TextOutlet::waiting_lines() const {
    const LockGuard lock(shared_->mutex);
    return lines_in(shared_->waiting) + shared_->lines_in_hand;
}

std::string TextOutlet::error() const {
    const LockGuard lock(shared_->mutex);
    return shared_->error;
}

std::uint64_t TextOutlet::replaced() const {
    const LockGuard lock(shared_->mutex);
    return shared_->replaced;
}

void TextOutlet::reopen() {
    const LockGuard lock(shared_->mutex);
    shared_->reopening = true;
    shared_->work.notify_all();
}

std::optional<std::string> TextOutlet::take_reopened() {
    const LockGuard lock(shared_->mutex);
    return std::exchange(shared_->reopened, std::nullopt);
}

}  // namespace qv::node
