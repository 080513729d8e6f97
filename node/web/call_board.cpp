#include "node/web/call_board.h"

#include <utility>

namespace qv::node::web {

std::shared_ptr<CallRecord> CallBoard::add(const Uuid& uuid, Micros began, Micros first_seen) {
    const LockGuard lock(mutex_);
    const std::uint64_t id = ++ids_;
    return records_.emplace(id, std::make_shared<CallRecord>(id, uuid, began, first_seen, wishes_))
        .first->second;
}

void CallBoard::finish(std::shared_ptr<const FinishedCall> call) {
    std::shared_ptr<const FinishedCall> oldest;  // Freed after the lock.
    std::shared_ptr<CallRecord> record;
    const LockGuard lock(mutex_);
    const auto found = records_.find(call->id);
    if (found != records_.end()) {
        record = std::move(found->second);
        records_.erase(found);
    }
    finished_.calls.push_back(std::move(call));
    ++finished_.end;
    if (finished_.calls.size() > MOST_FINISHED) {
        oldest = std::move(finished_.calls.front());
        finished_.calls.pop_front();
    }
}

CallBoard::Records CallBoard::records() const {
    const LockGuard lock(mutex_);
    return records_;
}

std::shared_ptr<CallRecord> CallBoard::find(std::uint64_t id) const {
    const LockGuard lock(mutex_);
    const auto found = records_.find(id);
    return found == records_.end() ? nullptr : found->second;
}

CallBoard::Finished CallBoard::finished() const {
    const LockGuard lock(mutex_);
    return finished_;
}

std::uint64_t CallBoard::finished_end() const {
    const LockGuard lock(mutex_);
    return finished_.end;
}

}  // namespace qv::node::web
