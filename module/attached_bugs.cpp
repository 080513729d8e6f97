#include "module/attached_bugs.h"

#include "module/host_log.h"

namespace qv::freeswitch {

namespace {

// A thread that has counted its bug down still executes a few instructions of the module's
// shared object, and no host function reports when it has left. This time is about a thousand
// times longer than those instructions take.
constexpr std::chrono::milliseconds SHUTDOWN_GRACE{100};

}  // namespace

void AttachedBugs::add() {
    const LockGuard guard(lock_);
    ++count_;
}

void AttachedBugs::remove() {
    const LockGuard guard(lock_);
    note_close();
    if (--count_ > 0) {
        return;
    }
    socket_.release_number();
    if (!loaded_ && !hook_left_) {
        reference_.give_back_at_thread_end();
    }
}

bool AttachedBugs::open_socket() {
    const LockGuard guard(lock_);
    return socket_.open(0, 0);
}

void AttachedBugs::close_socket() {
    const LockGuard guard(lock_);
    if (count_ == 0) {
        socket_.close();
    } else {
        socket_.close_under_senders();
    }
}

void AttachedBugs::loaded() {
    const LockGuard guard(lock_);
    loaded_ = true;
    hook_left_ = false;
}

void AttachedBugs::load_left_a_hook() {
    const LockGuard guard(lock_);
    hook_left_ = true;
    take_reference();
}

bool AttachedBugs::may_be_called() {
    const LockGuard guard(lock_);
    return loaded_ || hook_left_ || count_ > 0;
}

void AttachedBugs::unloaded() {
    Clock::time_point safe;
    {
        const LockGuard guard(lock_);
        loaded_ = false;
        hook_left_ = false;
        if (count_ > 0) {
            take_reference();
            return;
        }
        safe = last_close_by_others() + SHUTDOWN_GRACE;
    }
    std::this_thread::sleep_until(safe);
    const LockGuard guard(lock_);
    reference_.give_back();
}

void AttachedBugs::take_reference() {
    if (!reference_.take()) {
        log_line<log::ERROR>(QV_PLACE_IN("stay_mapped"),
                             "module does not stay mapped while calls are tapped: the "
                             "end of such a call may crash the host");
    }
}

void AttachedBugs::note_close() {
    if (last_closer_ != std::this_thread::get_id()) {
        earlier_close_by_another_ = last_close_;
        last_closer_ = std::this_thread::get_id();
    }
    last_close_ = Clock::now();
}

// A close by the calling thread does not count: that thread has left the handler already.
AttachedBugs::Clock::time_point AttachedBugs::last_close_by_others() const {
    const bool own = last_closer_ == std::this_thread::get_id();
    return own ? earlier_close_by_another_ : last_close_;
}

}  // namespace qv::freeswitch
