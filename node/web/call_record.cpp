#include "node/web/call_record.h"

#include <algorithm>
#include <iterator>

namespace qv::node::web {

bool CallRecord::try_publish(const CallFigures& figures,
                             const std::shared_ptr<const CallFacts>& facts,
                             std::vector<Mark>& marks) {
    if (!mutex_.try_lock()) {
        return false;
    }
    reading_.figures = figures;
    if (facts != nullptr) {
        reading_.facts = facts;
        ++reading_.facts_version;
    }
    marks_end_ += marks.size();
    marks_.insert(marks_.end(), std::make_move_iterator(marks.begin()),
                  std::make_move_iterator(marks.end()));
    while (marks_.size() > MOST_MARKS) {
        marks_.pop_front();
    }
    mutex_.unlock();
    marks.clear();
    version_.fetch_add(1, std::memory_order_relaxed);
    return true;
}

bool CallRecord::try_take_taps(Taps& taps) {
    if (!mutex_.try_lock()) {
        return false;
    }
    taps = taps_;
    mutex_.unlock();
    return true;
}

CallRecord::Reading CallRecord::read() const {
    const LockGuard lock(mutex_);
    return reading_;
}

std::pair<std::vector<Mark>, std::uint64_t> CallRecord::marks(std::uint64_t from) const {
    const LockGuard lock(mutex_);
    const std::uint64_t wanted = marks_end_ - std::min(from, marks_end_);
    const auto count = static_cast<std::ptrdiff_t>(std::min<std::uint64_t>(wanted, marks_.size()));
    return {{marks_.end() - count, marks_.end()}, marks_end_};
}

std::vector<Mark> CallRecord::latest_samples(std::size_t most) const {
    std::vector<Mark> samples;
    const LockGuard lock(mutex_);
    for (auto mark = marks_.rbegin(); mark != marks_.rend() && samples.size() < most; ++mark) {
        if (mark->kind == Mark::Kind::SAMPLE) {
            samples.push_back(*mark);
        }
    }
    std::reverse(samples.begin(), samples.end());
    return samples;
}

void CallRecord::add_tap(Side side, std::shared_ptr<AudioTap> tap) {
    const LockGuard lock(mutex_);
    taps_[index_of(side)].push_back(std::move(tap));
    ++wishes_;
}

void CallRecord::remove_tap(const std::shared_ptr<AudioTap>& tap) {
    const LockGuard lock(mutex_);
    for (auto& taps : taps_) {
        taps.erase(std::remove(taps.begin(), taps.end(), tap), taps.end());
    }
    ++wishes_;
}

}  // namespace qv::node::web
