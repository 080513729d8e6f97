// Lists that cannot grow without end, however many entries a sender causes. Plain values; each list
// belongs to one thread at a time.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

namespace qv::node {

// Adds the entry unless the list has that many. Returns whether it was added.
template <typename Entry>
bool add_within(std::size_t most, std::vector<Entry>& list, Entry entry) {
    if (list.size() >= most) {
        return false;
    }
    list.push_back(std::move(entry));
    return true;
}

// The room that the lists of many calls share. Any thread may use it.
class SharedRoom {
  public:
    explicit SharedRoom(std::size_t entries) : left_(entries) {}

    // Takes room for one entry. Returns false if there is none.
    bool take() {
        std::size_t left = left_;
        while (left != 0 && !left_.compare_exchange_weak(left, left - 1)) {
        }
        return left != 0;
    }
    void give_back(std::size_t entries) { left_ += entries; }

  private:
    std::atomic<std::size_t> left_;
};

// A list of one call. Counts the entries that it leaves out.
template <typename Entry>
class BoundedList {
  public:
    BoundedList(std::size_t most, std::shared_ptr<SharedRoom> room)
        : most_(most), room_(std::move(room)) {}
    ~BoundedList() {
        if (room_ != nullptr) {  // Otherwise the list was moved.
            room_->give_back(entries_.size());
        }
    }
    BoundedList(BoundedList&&) noexcept = default;
    BoundedList& operator=(BoundedList&&) = delete;

    void add(Entry entry) {
        if (entries_.size() < most_ && room_->take()) {
            entries_.push_back(std::move(entry));
        } else {
            ++left_out_;
        }
    }
    const std::vector<Entry>& entries() const { return entries_; }
    std::uint64_t left_out() const { return left_out_; }

  private:
    std::size_t most_;
    std::shared_ptr<SharedRoom> room_;
    std::vector<Entry> entries_;
    std::uint64_t left_out_ = 0;
};

}  // namespace qv::node
