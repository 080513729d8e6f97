// The record of one tapped call, and the registry that holds them all.
//
// A context is created by the application, or by an API command that comes first. It lives
// as long as somebody holds a reference to it: its entry in the registry, the application
// while it configures the call, and the media bug. The closing media bug erases the entry,
// or the channel-destroy handler does. The handler may erase it under a live call: it goes
// by the text of an event that anybody can send, and by a key that two calls can share.
//
// Locks, always taken in this order: a session's read lock, the registry lock, a
// context's own lock; RegistryGuard and ContextGuard let the compiler see to the last two.
// The registry lock is held for every lookup, insertion and
// erasure.
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

// The sender's state of one direction of a call. Touched only by the thread that
// delivers this direction's frames, and by the closing media bug after the last one. In
// a cache line of its own: the two directions come on two threads, which would take the
// line from each other with every frame.
struct alignas(64) LegStream {
    std::uint32_t bytes_sent = 0;  // Audio only.
    std::uint32_t odd_frames = 0;
    std::uint32_t sequence_number = 0;
    std::uint32_t sample_offset = 0;
    std::uint16_t leg_flags = 0;  // The leg word of the data packets.
};

// Stand for "a registry lock" and "a context's lock" in the order of locks, which clang
// checks for names alone, not for members of two classes. Nothing is ever locked here.
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

    // Takes over the channel's creation time, which marks the context as configured.
    // False, with an error in the log, when the channel has no timetable. The registry
    // lock is held.
    bool mark_configured(switch_core_session* session);

    // For ContextReference.
    void add_reference() { references_.add_reference(); }
    std::int32_t drop_reference() { return references_.drop_reference(); }

    // True while nobody but the registry holds a reference. The registry lock is held: a new
    // reference comes from the registry only.
    bool is_only_registered() const { return references_.references() == 1; }

    // The UUID of the call's session as the host writes it; empty when unknown or too long.
    // Guarded by the registry lock.
    const char* session_uuid() const { return session_uuid_; }
    void set_session_uuid(const char* text);

    // A media bug's reference. The host keeps a plain pointer for the bug, so the context
    // counts the bugs itself: `lend_to_bug` before the host gets the pointer,
    // `take_back_from_bug` when the bug closes or the host has refused it. Taking back gives
    // nothing when nothing is lent: a host may close a bug that it refused.
    void lend_to_bug();
    ContextReference take_back_from_bug();

    // Merge the legs that an option text names into `features`: "true", "inactive",
    // "orig::false" and the like. False, and nothing changed, when the text is null or
    // names no leg.
    static bool parse_audio_activity(const char* text, media::features16_t& features);
    static bool parse_sample_detection(const char* text, media::features16_t& features);

    // Identity and options: written by the application before the media bug is
    // attached, read by any thread after the start packet.
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

    // Between the media thread and API commands, from the attaching of the media bug on.
    Mutex context_lock;
    bool start_sent QV_GUARDED_BY(context_lock) = false;

    // What API commands ask for; from the start packet on, the whole merged set.
    media::features16_t requested_features QV_GUARDED_BY(context_lock){};

  private:
    ReferenceCountable references_;
    std::atomic<int> lent_{0};  // Of these, what media bugs hold.
    char session_uuid_[64] = {};
};

// AppContext::parse_audio_activity or AppContext::parse_sample_detection.
using ParseFeature = bool (*)(const char* text, media::features16_t& features);

// The key of a call: the CRC-64 of the 16 bytes of its UUID.
std::uint64_t call_key(const unsigned char* uuid);

struct CallIdentity {
    unsigned char uuid[media::UUID_SIZE] = {};
    std::uint64_t id = 0;
};

// Decodes the host's UUID text; false, and `call` not to be used, when it is no UUID.
bool identify(const char* uuid_text, CallIdentity& call);

// Each entry holds a reference to its context.
using ContextRegistry = std::unordered_map<std::uint64_t, AppContext*>;

// All with the registry lock held.
// The context of `id`; null when there is none. It is safe to use under the lock only,
// unless a reference is added.
AppContext* find_context(const ContextRegistry& contexts, std::uint64_t id);
// Creates a context under `id`; null, and nothing changed, when there is no memory.
AppContext* add_context(ContextRegistry& contexts, std::uint64_t id);
// Erases the entry of `id` and hands over its reference, which is null for a null entry;
// nothing when there is no entry.
std::optional<ContextReference> remove_context(ContextRegistry& contexts, std::uint64_t id);

}  // namespace qv::freeswitch
