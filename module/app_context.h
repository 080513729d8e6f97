// The record of one tapped call, and the registry that holds them all.
//
// The application creates a context, or an API command that comes before the application.
// Three holders may have a reference to it: its registry entry, the application while it
// configures the call, and the media bug. The context lives as long as one of them has. The
// media bug erases the entry when it closes; otherwise the channel-destroy handler does. The
// handler may erase the entry of a live call, because it trusts the text of an event that
// anybody can send, and a key that two calls can share.
//
// Locks are always taken in this order: a session's read lock, the registry lock, a
// context's own lock. RegistryGuard and ContextGuard let the compiler check the order of the
// last two.
#pragma once

#include <netinet/in.h>
#include <switch.h>

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>

#include "quorvane/media_packet.h"
#include "quorvane_lib/mutex.h"
#include "quorvane_lib/reference_count.h"

namespace qv::freeswitch {

// The sender's state for one direction of a call. The thread that delivers a frame of this
// direction uses it, and so does the closing media bug after the last frame. The host delivers
// the frames of a direction one at a time, under the lock of its codec, but not always on the
// same thread: `uuid_media` reads a frame on the thread of its command. The state has its own
// cache line: the two directions run on two threads, which would otherwise share a line and
// slow each other down with every frame.
struct alignas(64) LegStream {
    std::uint32_t bytes_sent = 0;  // Audio only.
    std::uint32_t odd_frames = 0;
    std::uint32_t sequence_number = 0;
    std::uint32_t sample_offset = 0;
    std::uint16_t leg_flags = 0;  // The leg word of the data packets.
};

// Represent the registry lock and a context's lock: in the lock order, which clang checks between
// named objects but not between members of two classes, and for functions that know only one
// context or the map of a registry. The guards acquire them together with the real locks.
class QV_CAPABILITY("lock rank") LockRank {};
inline LockRank registry_rank;
inline LockRank context_rank QV_ACQUIRED_AFTER(registry_rank);

// Holds the registry lock.
class QV_SCOPED_CAPABILITY RegistryGuard {
  public:
    explicit RegistryGuard(Mutex& contexts_lock) QV_ACQUIRE(contexts_lock, registry_rank)
        : lock_(contexts_lock) {
        lock_.lock();
    }
    ~RegistryGuard() QV_RELEASE() { lock_.unlock(); }
    RegistryGuard(const RegistryGuard&) = delete;
    RegistryGuard& operator=(const RegistryGuard&) = delete;

  private:
    Mutex& lock_;
};

// Holds a context's lock.
class QV_SCOPED_CAPABILITY ContextGuard {
  public:
    explicit ContextGuard(Mutex& context_lock) QV_ACQUIRE(context_lock, context_rank)
        : lock_(context_lock) {
        lock_.lock();
    }
    ~ContextGuard() QV_RELEASE() { lock_.unlock(); }
    ContextGuard(const ContextGuard&) = delete;
    ContextGuard& operator=(const ContextGuard&) = delete;

  private:
    Mutex& lock_;
};

class AppContext;
using ContextReference = Reference<AppContext>;

class AppContext {
  public:
    AppContext() { legs[media::WRITE_LEG].leg_flags = media::LEG_WRITE; }
    AppContext(const AppContext&) = delete;
    AppContext& operator=(const AppContext&) = delete;

    // Copies the channel's creation time, which marks the context as configured. Logs an
    // error and returns false if the channel has no timetable.
    bool mark_configured(switch_core_session* session) QV_REQUIRES(registry_rank);

    // For ContextReference.
    void add_reference() { references_.add_reference(); }
    std::int32_t drop_reference() { return references_.drop_reference(); }

    // True if only the registry holds a reference. Under the registry lock, no other thread can
    // get a new reference.
    bool is_only_registered() const QV_REQUIRES(registry_rank) {
        return references_.references() == 1;
    }

    // The UUID of the call's session as the host writes it; empty if unknown or too long.
    const char* session_uuid() const QV_REQUIRES(registry_rank) { return session_uuid_; }
    void set_session_uuid(const char* text) QV_REQUIRES(registry_rank);

    // The references of media bugs. The host stores a plain pointer with a bug, so the context
    // counts these references itself. Call `lend_to_bug` before the host gets the pointer, and
    // `take_back_from_bug` when the bug closes or the host has refused it. If no reference is
    // lent, `take_back_from_bug` returns null: a host may also close a bug that it refused.
    void lend_to_bug();
    ContextReference take_back_from_bug();

    // How many bugs of this context have closed.
    void count_close() { ++closed_bugs_; }
    unsigned closed_bugs() const { return closed_bugs_; }

    // Merge the sides that an option text ("true", "inactive", "orig::false" and so on) names
    // into `features`. If the text is null or names no side, they return false and change
    // nothing.
    static bool parse_audio_activity(const char* text, media::features16_t& features);
    static bool parse_sample_detection(const char* text, media::features16_t& features);

    // Identity and options. The application writes them before it attaches the media bug; any
    // thread may read them after the start packet.
    unsigned char uuid[media::UUID_SIZE] = {};
    std::uint64_t id = 0;                   // CRC-64 of `uuid`, the key of the registry.
    std::uint64_t created_time = 0;         // us, wall clock; 0 until configured.
    std::uint64_t configured_time = 0;      // us, wall clock.
    std::uint64_t configured_clock_us = 0;  // us, steady clock, at the same moment.
    std::uint64_t rule_id = 0;
    std::uint32_t report_node_addr = 0;  // Network byte order.
    std::uint16_t report_node_port = 0;  // Network byte order.
    std::uint16_t flags = 0;             // media::FLAG_...

    // The features in effect, fixed by the start packet.
    media::features16_t features QV_GUARDED_BY(context_lock){};

    std::string call_id;
    sockaddr_in media_node{};  // Where all packets of the call go.

    LegStream legs[media::LEG_COUNT];  // Indexed by media::READ_LEG, media::WRITE_LEG.

    // The media thread and API commands need it once the media bug is attached.
    Mutex context_lock;
    bool start_sent QV_GUARDED_BY(context_lock) = false;

    // What API commands have requested; after the start packet, the complete merged set.
    media::features16_t requested_features QV_GUARDED_BY(context_lock){};

  private:
    // The host cuts longer UUIDs; with the terminating zero.
    static constexpr std::size_t SESSION_UUID_SIZE = 257;

    ReferenceCountable references_;
    std::atomic<int> lent_{0};  // How many of these references media bugs hold.
    std::atomic<unsigned> closed_bugs_{0};
    char session_uuid_[SESSION_UUID_SIZE] QV_GUARDED_BY(registry_rank) = {};
};

// AppContext::parse_audio_activity or AppContext::parse_sample_detection.
using ParseFeature = bool (*)(const char* text, media::features16_t& features);

// The key of a call: the CRC-64 of the 16 bytes of its UUID.
std::uint64_t call_key(const unsigned char* uuid);

struct CallIdentity {
    unsigned char uuid[media::UUID_SIZE] = {};
    std::uint64_t id = 0;
};

// Decodes the host's UUID text. If it is not a UUID, returns false; `call` is then undefined.
bool identify(const char* uuid_text, CallIdentity& call);

// Each entry holds a reference to its context.
using ContextRegistry = std::unordered_map<std::uint64_t, AppContext*>;

// Returns the context of `id`, or null. The pointer is safe to use only under the lock,
// unless the caller adds a reference.
AppContext* find_context(const ContextRegistry& contexts, std::uint64_t id)
    QV_REQUIRES(registry_rank);
// Creates a context under `id`. Without memory, returns null and changes nothing.
AppContext* add_context(ContextRegistry& contexts, std::uint64_t id) QV_REQUIRES(registry_rank);
// Erases the entry of `id` and returns its reference, which is null for a null entry.
// Returns nullopt if there is no entry.
std::optional<ContextReference> remove_context(ContextRegistry& contexts, std::uint64_t id)
    QV_REQUIRES(registry_rank);

}  // namespace qv::freeswitch
