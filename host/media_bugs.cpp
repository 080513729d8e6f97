#include "host/media_bugs.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <utility>

#include "host/code_address.h"
#include "host/parts.h"
#include "host/session.h"

namespace qv::host {
namespace {

// The channel variable media_bug_answer_req sets it: no frames before the answer.
constexpr switch_media_bug_flag_t ANSWER_REQUIRED = 1u << 6;

constexpr std::array<const char*, 8> TRUE_WORDS = {"yes",     "on",     "true",  "t",
                                                   "enabled", "active", "allow", "1"};

bool is_true(const char* value) {
    return value && std::any_of(TRUE_WORDS.begin(), TRUE_WORDS.end(),
                                [value](const char* word) { return strcasecmp(word, value) == 0; });
}

bool overdue(const switch_media_bug& bug) {
    return bug.stop_time != 0 && bug.stop_time <= std::time(nullptr);
}

FrameOffer& offer(switch_media_bug& bug, Direction direction) {
    return direction == Direction::READ ? bug.read : bug.write;
}

std::vector<std::pair<std::string, std::string>> headers_of(const switch_media_bug& bug) {
    return {{"Media-Bug-Function", bug.function}, {"Media-Bug-Target", bug.target}};
}

}  // namespace

switch_status_t MediaBugs::add(const BugInfo& wanted, switch_media_bug_t** bug) {
    *bug = nullptr;
    auto& host = current_host();
    if (!session_.channel().ready(true, true) && !session_.channel().pre_answer()) {
        host.log.note(SWITCH_LOG_ERROR, "no media for a bug on " + session_.channel().name());
        return SWITCH_STATUS_FALSE;
    }
    Bug added(new switch_media_bug{session_.handle(),
                                   wanted.function,
                                   wanted.target.empty() ? "N/A" : wanted.target,
                                   wanted.callback,
                                   wanted.user_data,
                                   wanted.stop_time,
                                   {wanted.flags}});
    if (is_true(session_.channel().variable("media_bug_answer_req"))) {
        added->flags |= ANSWER_REQUIRED;
    }
    if (added->callback &&
        added->callback(added.get(), added->user_data, SWITCH_ABC_TYPE_INIT) == SWITCH_FALSE) {
        if (host.faults.on(Fault::REFUSED_BUG_CLOSED)) {
            added->callback(added.get(), added->user_data, SWITCH_ABC_TYPE_CLOSE);
        }
        ++host.counters.bugs_refused;
        host.log.note(SWITCH_LOG_ERROR, "a bug refused to start on " + session_.channel().name());
        session_.fire(SWITCH_EVENT_MEDIA_BUG_STOP, headers_of(*added));
        return SWITCH_STATUS_GENERR;
    }
    if (host.faults.on(Fault::BUG_LOST)) {
        return SWITCH_STATUS_GENERR;
    }
    ++host.counters.bugs_added;
    ++host.counters.bugs_attached;
    auto headers = headers_of(*added);
    *bug = append(std::move(added));
    session_.fire(SWITCH_EVENT_MEDIA_BUG_START, std::move(headers));
    return SWITCH_STATUS_SUCCESS;
}

// Once the lock is released, the bug may be called, and even be removed.
switch_media_bug_t* MediaBugs::append(Bug bug) {
    const ExclusiveGuard guard(lock_);
    bugs_.push_back(std::move(bug));
    count_ = bugs_.size();
    return bugs_.back().get();
}

std::vector<BugInfo> MediaBugs::infos() const {
    std::vector<BugInfo> all;
    const SharedGuard guard(lock_);
    for (const Bug& bug : bugs_) {
        all.push_back({bug->function, bug->target == "N/A" ? "" : bug->target, bug->callback,
                       bug->user_data, bug->stop_time, bug->flags.load()});
    }
    return all;
}

Delivery MediaBugs::deliver(Direction direction, switch_frame_t& frame) {
    Delivery delivery;
    bool pruning = false;
    {
        const SharedGuard guard(lock_);
        for (const Bug& bug : bugs_) {
            if (deliver_to(*bug, direction, frame)) {
                ++delivery.bugs;
                delivery.given += offer(*bug, direction).given ? 1 : 0;
            }
            pruning = pruning || (bug->flags & SMBF_PRUNE);
        }
    }
    if (pruning) {
        prune();
    }
    return delivery;
}

// False when the frame is not for this bug.
bool MediaBugs::deliver_to(switch_media_bug& bug, Direction direction, switch_frame_t& frame) {
    const bool read = direction == Direction::READ;
    const switch_media_bug_flag_t flags = bug.flags;
    if ((flags & SMBF_PRUNE) || !(flags & (read ? SMBF_READ_REPLACE : SMBF_WRITE_REPLACE))) {
        return false;
    }
    if ((flags & ANSWER_REQUIRED) && !session_.channel().flag(CF_ANSWERED)) {
        return false;
    }
    FrameOffer& offered = offer(bug, direction);
    offered = {&frame, false};
    const switch_bool_t answer = bug.callback(
        &bug, bug.user_data, read ? SWITCH_ABC_TYPE_READ_REPLACE : SWITCH_ABC_TYPE_WRITE_REPLACE);
    offered.frame = nullptr;
    mark(bug, answer);
    return true;
}

void MediaBugs::mark(switch_media_bug& bug, switch_bool_t answer) {
    if (answer == SWITCH_FALSE || overdue(bug)) {
        bug.flags |= SMBF_PRUNE;
    }
}

bool MediaBugs::raise(switch_abc_type_t type) {
    bool all = true;
    {
        const SharedGuard guard(lock_);
        for (const Bug& bug : bugs_) {
            const switch_bool_t answer = bug->callback(bug.get(), bug->user_data, type);
            all = all && answer != SWITCH_FALSE;
            mark(*bug, answer);
        }
    }
    if (!all) {
        prune();
    }
    return all;
}

void MediaBugs::prune() {
    while (Bug bug = take_pruned()) {
        close(*bug);
        ++current_host().counters.bugs_pruned;
        retire(std::move(bug));
    }
}

// Takes a pruned bug out of the list; null when there is none.
MediaBugs::Bug MediaBugs::take_pruned() {
    const ExclusiveGuard guard(lock_);
    const auto found = std::find_if(bugs_.begin(), bugs_.end(),
                                    [](const Bug& bug) { return bug->flags & SMBF_PRUNE; });
    if (found == bugs_.end()) {
        return nullptr;
    }
    Bug bug = std::move(*found);
    bugs_.erase(found);
    count_ = bugs_.size();
    return bug;
}

void MediaBugs::close(switch_media_bug& bug) {
    if (bug.callback) {
        bug.callback(&bug, bug.user_data, SWITCH_ABC_TYPE_CLOSE);
    }
    ++current_host().counters.bugs_closed;
}

void MediaBugs::retire(Bug bug) {
    --current_host().counters.bugs_attached;
    session_.fire(SWITCH_EVENT_MEDIA_BUG_STOP, headers_of(*bug));
}

// The callbacks run under the lock, as in the real host.
void MediaBugs::close_all() {
    std::vector<Bug> closed;
    {
        const ExclusiveGuard guard(lock_);
        for (const Bug& bug : bugs_) {
            close(*bug);
        }
        closed.swap(bugs_);
        count_ = 0;
    }
    for (Bug& bug : closed) {
        retire(std::move(bug));
    }
}

std::size_t MediaBugs::Pause::drop_unmapped() {
    std::vector<Bug>& bugs = bugs_.bugs_;
    const auto kept = std::remove_if(bugs.begin(), bugs.end(), [](const Bug& bug) {
        return object_base(code_address(bug->callback)) == nullptr;
    });
    const auto count = static_cast<std::size_t>(bugs.end() - kept);
    bugs.erase(kept, bugs.end());
    bugs_.count_ = bugs.size();
    current_host().counters.bugs_attached -= count;
    return count;
}

}  // namespace qv::host

using qv::host::current_host;
using qv::host::Fault;

namespace {

// Returns the frame that a bug asks for, and records that the bug has it.
switch_frame_t* give(FrameOffer& offer) {
    if (current_host().faults.on(Fault::NULL_FRAME)) {
        return nullptr;
    }
    offer.given = offer.frame != nullptr;
    return offer.frame;
}

}  // namespace

extern "C" {

switch_status_t switch_core_media_bug_add(switch_core_session_t* session, const char* function,
                                          const char* target, switch_media_bug_callback_t callback,
                                          void* user_data, time_t stop_time,
                                          switch_media_bug_flag_t flags,
                                          switch_media_bug_t** new_bug) {
    const auto& faults = current_host().faults;
    *new_bug = nullptr;
    if (faults.on(Fault::BUG_REFUSED)) {
        return SWITCH_STATUS_FALSE;
    }
    if (faults.on(Fault::OUT_OF_MEMORY)) {
        return SWITCH_STATUS_MEMERR;
    }
    return session->owner->bugs().add(
        {function ? function : "N/A", target ? target : "", callback, user_data, stop_time, flags},
        new_bug);
}

switch_core_session_t* switch_core_media_bug_get_session(switch_media_bug_t* bug) {
    return bug->session;
}

switch_frame_t* switch_core_media_bug_get_read_replace_frame(switch_media_bug_t* bug) {
    return give(bug->read);
}

switch_frame_t* switch_core_media_bug_get_write_replace_frame(switch_media_bug_t* bug) {
    return give(bug->write);
}
}
