// What the page shows of one call: the meeting place of the thread of the call, which writes, and
// the threads of the server, which read at their own pace.
//
// The thread of the call never waits for a reader here; only for memory, as malloc() does, if
// another thread is just taking some from the pool. Plain figures are handed over under a lock that
// it only tries to take; if a reader holds it, they are handed over a moment later. The waveforms
// need no lock. The call's listener, the board of calls and those who look at the call own it
// together.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <memory_resource>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "node/calls/call.h"
#include "node/calls/types.h"
#include "node/web/audio_tap.h"
#include "node/web/call_pool.h"
#include "node/web/wave_ring.h"
#include "quorvane_lib/mutex.h"

namespace qv::node::web {

// What changes with every packet.
struct SideFigures {
    ReorderBuffer::Stats stats;
    std::uint64_t pauses = 0;
    double seconds = 0;          // Of audio, without pauses.
    double squares = 0;          // Sum of the squares of the samples so far,
    std::uint64_t measured = 0;  // and how many they are.
};

struct CallFigures {
    std::array<SideFigures, SIDE_COUNT> sides;
    std::uint64_t foreign_packets = 0;
};

// The level of each side in dB. Nullopt: the side has not begun.
using Levels = std::array<std::optional<double>, SIDE_COUNT>;

// What changes seldom.
struct SideFacts {
    bool begun = false;
    std::uint8_t leg = 0;
    int sample_rate = 0;  // Hz; 0 while it is not known.
    bool rate_assumed = false;
    Running running;
    bool active = false;  // As the analysis has it.
};

struct CallFacts {
    sockaddr_in source{};
    bool ending = false;
    std::optional<StartFields> start;  // Nullopt until the start packet comes.
    media::features16_t features{};
    std::uint64_t control_packets = 0;
    std::array<SideFacts, SIDE_COUNT> sides;
    std::vector<FileReport> failed_files;
};

// In the memory of the page's calls.
inline std::shared_ptr<CallFacts> new_facts() {
    return std::allocate_shared<CallFacts>(
        std::pmr::polymorphic_allocator<CallFacts>(&CallPool::instance()));
}

// Something at a place of the call. Times are in seconds on the axis of the call, pauses included.
struct Mark {
    enum class Kind : std::uint8_t { ACTIVE, QUIET, SAMPLE, GAP, PAUSE, FEATURES };

    Kind kind{};
    Side side{};  // Not of FEATURES.
    double begin = 0;
    double end = 0;      // Of GAP and PAUSE.
    std::string text{};  // The name of a sample, or the features.
};

class CallRecord {
  public:
    static constexpr std::size_t MOST_MARKS = 500;  // Older ones are forgotten.

    // Counts what somebody begins or ends to want of any call, so that the threads of the calls
    // need to read only this at each tick.
    using Wishes = std::atomic<std::uint32_t>;

    // A call with this number in the run, which began at that time since 1970 and on the steady
    // clock of the node. `wishes` must outlive it.
    CallRecord(std::uint64_t id, const Uuid& uuid, Micros began, Micros first_seen, Wishes& wishes)
        : id_(id), uuid_(uuid), began_(began), first_seen_(first_seen), wishes_(wishes) {}

    std::uint64_t id() const { return id_; }
    const Uuid& uuid() const { return uuid_; }
    Micros began() const { return began_; }
    Micros first_seen() const { return first_seen_; }

    // For the thread of the call.

    WaveRing& wave(Side side) { return waves_[index_of(side)]; }
    bool watched() const { return watchers_.load(std::memory_order_relaxed) != 0; }
    // Hands the figures over, the facts if they are not null, and the marks, which it then takes
    // out of the list. Returns false, and leaves the marks, if another thread holds the lock.
    bool try_publish(const CallFigures& figures, const std::shared_ptr<const CallFacts>& facts,
                     std::vector<Mark>& marks) QV_EXCLUDES(mutex_);
    using Taps = std::array<std::vector<std::shared_ptr<AudioTap>>, SIDE_COUNT>;
    // Sets `taps` to the present ones. Returns false if another thread holds the lock.
    bool try_take_taps(Taps& taps) QV_EXCLUDES(mutex_);
    void set_over() { over_.store(true, std::memory_order_release); }

    // For any thread.

    struct Reading {
        CallFigures figures;
        std::shared_ptr<const CallFacts> facts;  // Not null.
        std::uint64_t facts_version = 0;
    };
    // How often something has been handed over.
    std::uint64_t version() const { return version_.load(std::memory_order_relaxed); }
    Reading read() const QV_EXCLUDES(mutex_);
    const WaveRing& wave(Side side) const { return waves_[index_of(side)]; }
    // Returns the marks from number `from` on that are still known, counted from 0, and the number
    // of the next one.
    std::pair<std::vector<Mark>, std::uint64_t> marks(std::uint64_t from) const QV_EXCLUDES(mutex_);
    // Returns the latest samples that were found, at most `most`, the newest last.
    std::vector<Mark> latest_samples(std::size_t most) const QV_EXCLUDES(mutex_);
    // While somebody watches the call, its figures are handed over more often.
    void watch() {
        ++watchers_;
        ++wishes_;
    }
    void unwatch() {
        --watchers_;
        ++wishes_;
    }
    void add_tap(Side side, std::shared_ptr<AudioTap> tap) QV_EXCLUDES(mutex_);
    void remove_tap(const std::shared_ptr<AudioTap>& tap) QV_EXCLUDES(mutex_);
    // Whether the call has ended.
    bool over() const { return over_.load(std::memory_order_acquire); }

  private:
    const std::uint64_t id_;
    const Uuid uuid_;
    const Micros began_;
    const Micros first_seen_;
    Wishes& wishes_;
    std::array<WaveRing, SIDE_COUNT> waves_;
    std::atomic<int> watchers_{0};
    std::atomic<std::uint64_t> version_{0};
    std::atomic<bool> over_{false};

    mutable Mutex mutex_;
    Reading reading_ QV_GUARDED_BY(mutex_){{}, new_facts(), 0};
    std::pmr::deque<Mark> marks_ QV_GUARDED_BY(mutex_){&CallPool::instance()};
    std::uint64_t marks_end_ QV_GUARDED_BY(mutex_) = 0;  // The number of the next mark.
    Taps taps_ QV_GUARDED_BY(mutex_);
};

}  // namespace qv::node::web
