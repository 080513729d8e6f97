#include "node/web/call_board.h"

#include <algorithm>
#include <memory_resource>
#include <utility>

#include "node/web/call_pool.h"

namespace qv::node::web {

std::shared_ptr<CallRecord> CallBoard::add(const Uuid& uuid, Micros began, Micros first_seen) {
    const LockGuard lock(mutex_);
    const std::uint64_t id = ++ids_;
    const std::pmr::polymorphic_allocator<CallRecord> memory(&CallPool::instance());
    records_.push_back(
        std::allocate_shared<CallRecord>(memory, id, uuid, began, first_seen, wishes_));
    return records_.back();
}

void CallBoard::finish(std::shared_ptr<const FinishedCall> call) {
    std::shared_ptr<const FinishedCall> oldest;  // Freed after the lock.
    std::shared_ptr<CallRecord> record;
    const LockGuard lock(mutex_);
    const auto found = place_of(call->id);
    if (found != records_.end()) {
        record = *found;
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
    const auto found = place_of(id);
    return found == records_.end() ? nullptr : *found;
}

// Returns the end if there is no such call.
CallBoard::Records::const_iterator CallBoard::place_of(std::uint64_t id) const {
    const auto found = std::lower_bound(
        records_.begin(), records_.end(), id,
        [](const auto& record, std::uint64_t sought) { return record->id() < sought; });
    return found != records_.end() && (*found)->id() == id ? found : records_.end();
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
