#include "host/events.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "host/code_address.h"
#include "host/parts.h"

namespace qv::host {
namespace {

constexpr std::array<const char*, 24> LEADING_NAMES = {
    "CUSTOM",
    "CLONE",
    "CHANNEL_CREATE",
    "CHANNEL_DESTROY",
    "CHANNEL_STATE",
    "CHANNEL_CALLSTATE",
    "CHANNEL_ANSWER",
    "CHANNEL_HANGUP",
    "CHANNEL_HANGUP_COMPLETE",
    "CHANNEL_EXECUTE",
    "CHANNEL_EXECUTE_COMPLETE",
    "CHANNEL_HOLD",
    "CHANNEL_UNHOLD",
    "CHANNEL_BRIDGE",
    "CHANNEL_UNBRIDGE",
    "CHANNEL_PROGRESS",
    "CHANNEL_PROGRESS_MEDIA",
    "CHANNEL_OUTGOING",
    "CHANNEL_PARK",
    "CHANNEL_UNPARK",
    "CHANNEL_APPLICATION",
    "CHANNEL_ORIGINATE",
    "CHANNEL_UUID",
    "API",
};

// The interface declares the texts writable, but no callback writes to them.
char* borrowed(const std::string& text) {
    return const_cast<char*>(text.c_str());
}

bool fault_of_bind(switch_event_types_t event) {
    const Faults& faults = current_host().faults;
    return (event == SWITCH_EVENT_CHANNEL_DESTROY &&
            faults.on(Fault::BIND_CHANNEL_DESTROY_FAILS)) ||
           (event == SWITCH_EVENT_ALL && faults.on(Fault::BIND_ALL_FAILS)) ||
           faults.on(Fault::OUT_OF_MEMORY);
}

constexpr char HEX_DIGITS[] = "0123456789ABCDEF";
constexpr char PLAIN_IN_URLS[] = "-_.!~*'()/:@&=+,";

void append_url_encoded(std::string& text, const char* value) {
    for (; *value; ++value) {
        const auto byte = static_cast<unsigned char>(*value);
        const bool alphanumeric = (byte >= '0' && byte <= '9') || (byte >= 'A' && byte <= 'Z') ||
                                  (byte >= 'a' && byte <= 'z');
        if (alphanumeric || std::strchr(PLAIN_IN_URLS, byte)) {
            text += *value;
        } else {
            text += '%';
            text += HEX_DIGITS[byte >> 4];
            text += HEX_DIGITS[byte & 0xF];
        }
    }
}

// "NAME: [VALUE]" or, encoded, "NAME: VALUE", where an empty value becomes a word.
void append_header(std::string& text, const switch_event_header_t& header, bool encode) {
    text.append(header.name).append(": ");
    if (!encode) {
        text.append("[").append(header.value).append("]");
    } else if (*header.value == '\0') {
        text.append("_undef_");
    } else {
        append_url_encoded(text, header.value);
    }
    text += '\n';
}

std::string serialized(const switch_event_t& event, bool encode) {
    std::string text;
    for (const switch_event_header_t* header = event.headers; header; header = header->next) {
        append_header(text, *header, encode);
    }
    if (event.body && *event.body) {
        text += "Content-Length: " + std::to_string(std::strlen(event.body)) + "\n\n" + event.body;
    } else {
        text += '\n';
    }
    return text;
}

}  // namespace

std::string event_name(int id) {
    if (id >= 0 && static_cast<std::size_t>(id) < LEADING_NAMES.size()) {
        return LEADING_NAMES[static_cast<std::size_t>(id)];
    }
    switch (id) {
        case SWITCH_EVENT_MODULE_LOAD:
            return "MODULE_LOAD";
        case SWITCH_EVENT_MODULE_UNLOAD:
            return "MODULE_UNLOAD";
        case SWITCH_EVENT_HEARTBEAT:
            return "HEARTBEAT";
        case SWITCH_EVENT_MEDIA_BUG_START:
            return "MEDIA_BUG_START";
        case SWITCH_EVENT_MEDIA_BUG_STOP:
            return "MEDIA_BUG_STOP";
        case SWITCH_EVENT_ALL:
            return "ALL";
        default:
            return "EVENT_" + std::to_string(id);
    }
}

EventRecord::EventRecord(const Event& event) : headers_(event.headers.size()) {
    record_.event_id = static_cast<switch_event_types_t>(event.id);
    record_.body = event.body.empty() ? nullptr : borrowed(event.body);
    for (std::size_t i = 0; i < headers_.size(); ++i) {
        headers_[i].name = borrowed(event.headers[i].first);
        headers_[i].value = borrowed(event.headers[i].second);
        headers_[i].next = i + 1 < headers_.size() ? &headers_[i + 1] : nullptr;
    }
    if (!headers_.empty()) {
        record_.headers = headers_.data();
        record_.last_header = &headers_.back();
    }
}

EventBus::EventBus() : thread_([this] { run(); }) {}

EventBus::~EventBus() {
    stop();
}

void EventBus::stop() {
    if (!thread_.joinable()) {
        return;
    }
    {
        const LockGuard guard(queue_lock_);
        ending_ = true;
    }
    queued_.notify_one();
    thread_.join();
}

bool EventBus::wanted(int id) const {
    const SharedGuard guard(bindings_lock_);
    return std::any_of(bindings_.begin(), bindings_.end(), [id](const Binding& binding) {
        return binding->event == id || binding->event == SWITCH_EVENT_ALL;
    });
}

void EventBus::fire(Event event) {
    if (!wanted(event.id)) {
        return;
    }
    {
        const LockGuard guard(queue_lock_);
        queue_.push_back(std::move(event));
        ++fired_count_;
    }
    queued_.notify_one();
}

void EventBus::wait_drained() {
    const LockGuard guard(queue_lock_);
    const std::uint64_t goal = fired_count_;
    while (done_count_ < goal) {
        done_.wait(queue_lock_);
    }
}

void EventBus::run() {
    const LockGuard guard(queue_lock_);
    while (true) {
        while (!ending_ && queue_.empty()) {
            queued_.wait(queue_lock_);
        }
        if (queue_.empty()) {
            return;
        }
        const Event event = std::move(queue_.front());
        queue_.pop_front();
        queue_lock_.unlock();
        deliver(event);
        queue_lock_.lock();
        ++done_count_;
        done_.notify_all();
    }
}

void EventBus::deliver(const Event& event) {
    EventRecord record(event);
    const SharedGuard guard(bindings_lock_);
    deliver_to(event.id, record.get());
    if (event.id != SWITCH_EVENT_ALL) {
        deliver_to(SWITCH_EVENT_ALL, record.get());
    }
    ++delivered_;
}

// The host calls the latest binding first.
void EventBus::deliver_to(int bound_id, switch_event_t* record) {
    for (auto it = bindings_.rbegin(); it != bindings_.rend(); ++it) {
        if ((*it)->event != bound_id) {
            continue;
        }
        record->bind_user_data = (*it)->user_data;
        (*it)->callback(record);
    }
}

switch_status_t EventBus::bind(const char* owner, switch_event_types_t event,
                               switch_event_callback_t callback, void* user_data,
                               switch_event_node_t** node) {
    if (node) {
        *node = nullptr;
    }
    if (event > SWITCH_EVENT_ALL) {
        return SWITCH_STATUS_MEMERR;
    }
    auto binding = std::make_unique<switch_event_node>();
    binding->owner = owner ? owner : "";
    binding->event = event;
    binding->callback = callback;
    binding->user_data = user_data;
    const ExclusiveGuard guard(bindings_lock_);
    if (node) {
        *node = binding.get();
    }
    bindings_.push_back(std::move(binding));
    return SWITCH_STATUS_SUCCESS;
}

switch_status_t EventBus::unbind(switch_event_node_t** node) {
    if (!*node) {
        return SWITCH_STATUS_FALSE;
    }
    const ExclusiveGuard guard(bindings_lock_);
    const auto found =
        std::find_if(bindings_.begin(), bindings_.end(),
                     [node](const Binding& binding) { return binding.get() == *node; });
    if (found == bindings_.end()) {
        return SWITCH_STATUS_FALSE;
    }
    bindings_.erase(found);
    *node = nullptr;
    return SWITCH_STATUS_SUCCESS;
}

std::vector<EventBus::Binding> EventBus::take_bindings_of(const void* base) {
    const ExclusiveGuard guard(bindings_lock_);
    const auto first =
        std::stable_partition(bindings_.begin(), bindings_.end(), [base](const Binding& binding) {
            return object_base(code_address(binding->callback)) != base;
        });
    std::vector<Binding> taken(std::make_move_iterator(first),
                               std::make_move_iterator(bindings_.end()));
    bindings_.erase(first, bindings_.end());
    return taken;
}

void EventBus::put_back(std::vector<Binding> bindings) {
    const ExclusiveGuard guard(bindings_lock_);
    std::move(bindings.begin(), bindings.end(), std::back_inserter(bindings_));
}

std::size_t EventBus::bindings() const {
    const SharedGuard guard(bindings_lock_);
    return bindings_.size();
}

}  // namespace qv::host

using qv::host::current_host;
using qv::host::Fault;

extern "C" {

// Ignores the subclass of custom events, since modules bind without one.
switch_status_t switch_event_bind_removable(const char* id, switch_event_types_t event,
                                            const char* /*subclass_name*/,
                                            switch_event_callback_t callback, void* user_data,
                                            switch_event_node_t** node) {
    if (node) {
        *node = nullptr;
    }
    if (qv::host::fault_of_bind(event)) {
        return SWITCH_STATUS_MEMERR;
    }
    return current_host().events.bind(id, event, callback, user_data, node);
}

switch_status_t switch_event_unbind(switch_event_node_t** node) {
    return current_host().events.unbind(node);
}

switch_status_t switch_event_serialize(switch_event_t* event, char** str, switch_bool_t encode) {
    *str = nullptr;
    if (current_host().faults.on(Fault::OUT_OF_MEMORY)) {
        return SWITCH_STATUS_MEMERR;
    }
    const std::string text = qv::host::serialized(*event, encode == SWITCH_TRUE);
    *str = strdup(text.c_str());
    return *str ? SWITCH_STATUS_SUCCESS : SWITCH_STATUS_MEMERR;
}

char* switch_event_get_header_idx(switch_event_t* event, const char* header_name, int idx) {
    if (!header_name || current_host().faults.hidden(header_name)) {
        return nullptr;
    }
    for (switch_event_header_t* header = event->headers; header; header = header->next) {
        if (strcasecmp(header->name, header_name) != 0) {
            continue;
        }
        if (idx < 0) {
            return header->value;
        }
        return idx < header->idx ? header->array[idx] : nullptr;
    }
    return std::strcmp(header_name, "_body") == 0 ? event->body : nullptr;
}
}
