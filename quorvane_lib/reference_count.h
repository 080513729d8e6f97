// Objects that several owners share: the count of their references, and a reference.
//
// The object contains the count. Dropping the last reference deletes the object. Any thread may
// add and drop its own references; a reference belongs to one thread at a time. A new
// reference is made only from one that is held.
#pragma once

#include <atomic>
#include <cstdint>
#include <utility>

namespace qv {

class ReferenceCountable {
  public:
    ReferenceCountable() = default;
    // References are to one object: a copy has none, and an assignment changes none.
    ReferenceCountable(const ReferenceCountable& /*other*/) {}
    ReferenceCountable& operator=(const ReferenceCountable& /*other*/) { return *this; }

    void add_reference() { references_.fetch_add(1, std::memory_order_relaxed); }
    // Returns how many references are left. What was done under any of the others is seen
    // by the one who gets 0.
    std::int32_t drop_reference() {
        return references_.fetch_sub(1, std::memory_order_acq_rel) - 1;
    }
    std::int32_t references() const { return references_.load(std::memory_order_acquire); }

  private:
    std::atomic<std::int32_t> references_{0};
};

// Holds one reference to a `Counted`, or none.
template <typename Counted>
class Reference {
  public:
    Reference() = default;
    // Adds a reference to `object`, which may be null.
    explicit Reference(Counted* object) : object_(object) {
        if (object_ != nullptr) {
            object_->add_reference();
        }
    }
    Reference(const Reference&) = delete;
    Reference(Reference&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    Reference& operator=(const Reference&) = delete;
    Reference& operator=(Reference&& other) noexcept {
        std::swap(object_, other.object_);
        return *this;
    }
    ~Reference() {
        // The analyzer does not know the count: it sees every reference delete the object.
        // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDelete)
        if (object_ != nullptr && object_->drop_reference() == 0) {
            delete object_;
        }
    }

    // Takes over a reference that is counted already.
    static Reference adopt(Counted* object) {
        Reference adopted;
        adopted.object_ = object;
        return adopted;
    }
    // Leaves the reference to the caller, still counted.
    Counted* release() { return std::exchange(object_, nullptr); }

    Counted* get() const { return object_; }
    Counted& operator*() const { return *object_; }
    Counted* operator->() const { return object_; }
    explicit operator bool() const { return object_ != nullptr; }

  private:
    Counted* object_ = nullptr;
};

}  // namespace qv
