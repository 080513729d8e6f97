// A map from UUIDs of calls to values that expire after a time. Above a limited number, the oldest
// expire sooner. It remembers ended calls. Belongs to one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <random>
#include <unordered_map>
#include <utility>

#include "node/calls/types.h"
#include "quorvane/media_packet.h"

namespace qv::node {

// Seeded, so that a sender cannot choose colliding UUIDs.
class UuidHash {
  public:
    UuidHash() : seed_(std::uint64_t{std::random_device()()} << 32 | std::random_device()()) {}

    std::size_t operator()(const Uuid& uuid) const {
        return mix(mix(seed_ ^ media::get_u64(uuid.data())) ^ media::get_u64(uuid.data() + 8));
    }

  private:
    static std::uint64_t mix(std::uint64_t value) {
        value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9;
        value = (value ^ (value >> 27)) * 0x94D049BB133111EB;
        return value ^ (value >> 31);
    }

    std::uint64_t seed_;
};

template <typename Value>
class ExpiringMap {
  public:
    // Keeps the latest `most` values, each for `time`.
    ExpiringMap(std::size_t most, Micros time) : most_(most), time_(time) {}

    // Replaces the call's earlier value.
    void keep(const Uuid& uuid, Value value, Micros now) {
        kept_.insert_or_assign(uuid, Kept{std::move(value), ++count_});
        order_.push_back({uuid, count_, now});
    }

    // Returns null if the call has no value. The pointer is valid until the map changes.
    const Value* find(const Uuid& uuid) const {
        const auto found = kept_.find(uuid);
        return found != kept_.end() ? &found->second.value : nullptr;
    }

    void erase(const Uuid& uuid) { kept_.erase(uuid); }

    // Removes expired values.
    void expire(Micros now) {
        while (!order_.empty() && (now - order_.front().since >= time_ || order_.size() > most_)) {
            const auto found = kept_.find(order_.front().uuid);
            if (found != kept_.end() && found->second.number == order_.front().number) {
                kept_.erase(found);
            }
            order_.pop_front();
        }
    }

    std::size_t size() const { return kept_.size(); }

  private:
    struct Kept {
        Value value;
        std::uint64_t number;  // Distinguishes it from an earlier value of the call.
    };
    struct Place {
        Uuid uuid;
        std::uint64_t number;
        Micros since;
    };

    std::size_t most_;
    Micros time_;
    std::uint64_t count_ = 0;
    std::unordered_map<Uuid, Kept, UuidHash> kept_;
    std::deque<Place> order_;
};

}  // namespace qv::node
