// Events: bindings, and the thread that hands events to them one after the other.
//
// Owned by EmbeddedHost. Every function may be called from any thread, with the
// exceptions named at them.
#pragma once

#include <switch.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "quorvane_lib/mutex.h"

// A binding; its address is what the binder holds.
struct switch_event_node {
    std::string owner;
    switch_event_types_t event;
    switch_event_callback_t callback;
    void* user_data;
};

namespace qv::host {

// The host's name of an event id, such as "CHANNEL_CREATE"; "EVENT_<id>" for an id that
// this host does not know.
std::string event_name(int id);

// An event as a test or the host describes it. The bus does not add Event-Name.
struct Event {
    int id = SWITCH_EVENT_CUSTOM;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
};

// An event in the form that callbacks get. It borrows its texts from the Event, which must
// outlive it unchanged.
class EventRecord {
  public:
    explicit EventRecord(const Event& event);
    EventRecord(const EventRecord&) = delete;
    EventRecord& operator=(const EventRecord&) = delete;

    switch_event_t* get() { return &record_; }

  private:
    std::vector<switch_event_header_t> headers_;
    switch_event_t record_{};
};

class EventBus {
  public:
    EventBus();   // starts the dispatch thread
    ~EventBus();  // stops
    EventBus(const EventBus&) = delete;
    EventBus& operator=(const EventBus&) = delete;

    // Queues the event for the dispatch thread; drops it when nobody is bound to it.
    void fire(Event event);
    bool wanted(int id) const;

    // Delivers what is queued, then ends the dispatch thread. To be called once, and not
    // from an event callback.
    void stop();

    // Returns when all events fired before are delivered. Not to be called from an event
    // callback.
    void wait_drained();

    switch_status_t bind(const char* owner, switch_event_types_t event,
                         switch_event_callback_t callback, void* user_data,
                         switch_event_node_t** node);
    // Waits for a delivery under way. Not to be called from an event callback.
    switch_status_t unbind(switch_event_node_t** node);

    using Binding = std::unique_ptr<switch_event_node>;

    // Takes out the bindings whose callback lies in the loaded object at `base`. Events do
    // not reach them until they are put back.
    std::vector<Binding> take_bindings_of(const void* base);
    void put_back(std::vector<Binding> bindings);

    std::size_t bindings() const;
    std::uint64_t delivered() const { return delivered_.load(); }

  private:
    void run();
    void deliver(const Event& event);
    void deliver_to(int bound_id, switch_event_t* record) QV_REQUIRES_SHARED(bindings_lock_);

    mutable SharedMutex bindings_lock_;  // Shared by a delivery.
    std::vector<Binding> bindings_ QV_GUARDED_BY(bindings_lock_);

    Mutex queue_lock_;
    Condition queued_;
    Condition done_;
    std::deque<Event> queue_ QV_GUARDED_BY(queue_lock_);
    std::uint64_t fired_count_ QV_GUARDED_BY(queue_lock_) = 0;
    std::uint64_t done_count_ QV_GUARDED_BY(queue_lock_) = 0;
    bool ending_ QV_GUARDED_BY(queue_lock_) = false;

    std::atomic<std::uint64_t> delivered_{0};
    std::thread thread_;  // last: it uses all above
};

}  // namespace qv::host
