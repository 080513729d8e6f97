#include "node/engine/nats_link.h"

#include <array>
#include <thread>

#include "node/engine/nats_options.h"
#include "tools/thread_priority.h"

namespace qv::node::nats {

namespace {

using Clock = std::chrono::steady_clock;

// An exception in a thread of the library would end the program. Only a lack of memory throws
// here; what is not noted then is a line, or an answer, whose event is sent again.
template <typename Call>
void guarded(const Call& call) {
    try {
        call();
    } catch (const std::exception&) {
    }
}

std::string last_error(natsConnection* connection) {
    const char* text = nullptr;
    natsConnection_GetLastError(connection, &text);
    return text != nullptr ? text : "";
}

std::string url_of(natsConnection* connection) {
    std::array<char, 256> url{};
    natsConnection_GetConnectedUrl(connection, url.data(), url.size());
    return plain_url(url.data());
}

std::string_view data_of(natsMsg* message) {
    return {natsMsg_GetData(message), static_cast<std::size_t>(natsMsg_GetDataLength(message))};
}

// Sets headers until one fails.
class Headers {
  public:
    Headers(natsMsg* message, natsStatus& status) : message_(message), status_(status) {}
    void set(const char* name, const std::string& value) {
        status_ = status_ == NATS_OK ? natsMsgHeader_Set(message_, name, value.c_str()) : status_;
    }
    void set(const char* name, std::uint64_t value) { set(name, std::to_string(value)); }

  private:
    natsMsg* const message_;
    natsStatus& status_;
};

}  // namespace

void Link::on_connected(natsConnection* connection, void* self) {
    Link& link = *static_cast<Link*>(self);
    guarded([&] {
        const std::string url = url_of(connection);
        const LockGuard lock(link.mutex_);
        if (link.current_ == connection) {
            link.listener_.connected(url);
        }
    });
}

// The library may report the end of a former connection after the next one has begun.
void Link::on_disconnected(natsConnection* connection, void* self) {
    Link& link = *static_cast<Link*>(self);
    guarded([&] {
        const LockGuard lock(link.mutex_);
        if (link.current_ == connection) {
            link.listener_.disconnected();
        }
    });
}

// By close(), or because the servers refuse the credentials.
void Link::on_closed(natsConnection* connection, void* self) {
    guarded([&] {
        const std::string text = last_error(connection);
        if (!text.empty()) {
            static_cast<Link*>(self)->listener_.trouble(text);
        }
    });
    static_cast<Link*>(self)->remove_callback();
}

void Link::on_complete(void* self) {
    static_cast<Link*>(self)->remove_callback();
}

void Link::on_error(natsConnection* connection, natsSubscription* /*subscription*/,
                    natsStatus status, void* self) {
    guarded([&] {
        const std::string text = last_error(connection);
        static_cast<Link*>(self)->listener_.trouble(text.empty() ? text_of(status) : text);
    });
}

void Link::on_answer(natsConnection* /*connection*/, natsSubscription* /*subscription*/,
                     natsMsg* message, void* self) {
    const Message owned(message);
    guarded([&] {
        static_cast<Link*>(self)->listener_.answered(read_answer(
            natsMsg_GetSubject(message), data_of(message), natsMsg_IsNoResponders(message)));
    });
}

void Link::add_callback() {
    const LockGuard lock(mutex_);
    ++callbacks_;
}

void Link::remove_callback() {
    const LockGuard lock(mutex_);
    --callbacks_;
    called_.notify_all();  // With the lock: this object may be gone after it.
}

std::string Link::open() {
    // The threads that the library begins with have the priority of the one that starts them.
    std::thread([] {
        tools::lower_priority(tools::Priority::BUFFERED);
        nats_Open(-1);
    }).join();
    std::string error;
    options_ = make_options(settings_, error);
    if (error.empty()) {
        natsOptions_SetReconnectedCB(options_.get(), on_connected, this);
        natsOptions_SetDisconnectedCB(options_.get(), on_disconnected, this);
        natsOptions_SetClosedCB(options_.get(), on_closed, this);
        natsOptions_SetErrorHandler(options_.get(), on_error, this);
    }
    return error;
}

// The library connects again by itself, but not if it never was connected, nor after the servers
// have refused the credentials.
bool Link::keep() {
    const auto now = Clock::now();
    if (now >= next_attempt_ &&
        (connection_ == nullptr || natsConnection_IsClosed(connection_.get()))) {
        next_attempt_ = now + std::chrono::milliseconds(settings_.reconnect_ms);
        disconnect();
        connect();
    }
    return connection_ != nullptr;
}

void Link::disconnect() {
    {
        const LockGuard lock(mutex_);
        current_ = nullptr;
        listener_.disconnected();
    }
    if (connection_ != nullptr) {
        natsConnection_Close(connection_.get());
    }
    answers_.reset();
    stream_.reset();
    connection_.reset();
}

void Link::close() {
    disconnect();
    const LockGuard lock(mutex_);
    while (callbacks_ != 0) {
        called_.wait(mutex_);
    }
}

void Link::connect() {
    natsConnection* made = nullptr;
    add_callback();  // on_closed()
    const natsStatus status = natsConnection_Connect(&made, options_.get());
    connection_.reset(made);
    if (made == nullptr) {
        remove_callback();
        listener_.trouble("not connected yet (" + last_error(status) + "); events and audio wait");
        return;
    }
    {
        const std::string url = url_of(made);
        const LockGuard lock(mutex_);
        current_ = made;
        // It may be lost already. If so, the library connects again and reports that.
        if (natsConnection_Status(made) == NATS_CONN_STATUS_CONNECTED) {
            listener_.connected(url);
        }
    }
    subscribe_to_answers();
}

void Link::subscribe_to_answers() {
    natsInbox* inbox = nullptr;
    natsStatus status = natsInbox_Create(&inbox);
    inbox_ = inbox != nullptr ? inbox : "";
    natsInbox_Destroy(inbox);
    natsSubscription* subscription = nullptr;
    if (status == NATS_OK) {
        status = natsConnection_Subscribe(&subscription, connection_.get(), (inbox_ + ".*").c_str(),
                                          on_answer, this);
    }
    answers_.reset(subscription);
    if (status == NATS_OK &&
        natsSubscription_SetOnCompleteCB(subscription, on_complete, this) == NATS_OK) {
        add_callback();
    }
    jsCtx* context = nullptr;
    jsOptions wait;
    jsOptions_Init(&wait);
    wait.Wait = REQUEST_MS;
    if (status == NATS_OK) {
        status = natsConnection_JetStream(&context, connection_.get(), &wait);
    }
    stream_.reset(context);
    if (status != NATS_OK) {  // No memory. keep() tries again.
        listener_.trouble("no answers: " + text_of(status));
        natsConnection_Close(connection_.get());
    }
}

Link::Outcome Link::send(const EngineEvent& event, std::uint64_t number) {
    const std::string subject = "quorvane.events." + event.call + '.' + event.kind;
    const std::string reply = inbox_ + '.' + std::to_string(number);
    natsMsg* made = nullptr;
    natsStatus status = natsMsg_Create(&made, subject.c_str(), reply.c_str(), event.text.data(),
                                       static_cast<int>(event.text.size()));
    const Message message(made);
    Headers headers(made, status);
    headers.set("Nats-Msg-Id", event.id);
    headers.set("Quorvane-Node", settings_.node);
    return publish(made, status, "an event");
}

Link::Outcome Link::send(const EngineChunk& chunk) {
    const std::string subject = "quorvane.audio." + chunk.call + '.' + chunk.side;
    natsMsg* made = nullptr;
    natsStatus status = natsMsg_Create(
        &made, subject.c_str(), nullptr, reinterpret_cast<const char*>(chunk.samples.data()),
        static_cast<int>(chunk.samples.size() * sizeof(std::int16_t)));
    const Message message(made);
    Headers headers(made, status);
    headers.set("Quorvane-Node", settings_.node);
    headers.set("Quorvane-Call-Key", chunk.call_key);
    headers.set("Quorvane-Stream", chunk.stream);
    headers.set("Quorvane-Sequence", chunk.sequence);
    headers.set("Quorvane-Position", chunk.position);
    headers.set("Quorvane-Send-Time", std::to_string(chunk.send_time));
    headers.set("Quorvane-Sample-Rate", std::to_string(chunk.sample_rate));
    if (chunk.gap != 0) {
        headers.set("Quorvane-Gap", chunk.gap);
    }
    if (chunk.pause != 0) {
        headers.set("Quorvane-Pause", chunk.pause);
    }
    if (!chunk.end.empty()) {
        headers.set("Quorvane-End", chunk.end);
    }
    return publish(made, status, "a chunk of audio");
}

Link::Outcome Link::publish(natsMsg* message, natsStatus made, const std::string& what) {
    const natsStatus status =
        made == NATS_OK ? natsConnection_PublishMsg(connection_.get(), message) : made;
    if (status == NATS_OK) {
        return Outcome::TAKEN;
    }
    if (status == NATS_MAX_PAYLOAD) {
        listener_.trouble(what + " is longer than the server allows");
        return Outcome::TOO_LONG;
    }
    listener_.trouble(what + " is not sent (" + text_of(status) + "); it waits");
    return Outcome::FAILED;
}

Link::Outcome Link::flush() {
    const natsStatus status = natsConnection_FlushTimeout(connection_.get(), REQUEST_MS);
    if (status != NATS_OK) {
        listener_.trouble("audio is not taken (" + text_of(status) + "); it waits");
    }
    return status == NATS_OK ? Outcome::TAKEN : Outcome::FAILED;
}

void Link::create_stream() {
    if (stream_ == nullptr) {
        return;
    }
    std::string error;
    const StreamCreator::Result result = creator_.create(stream_.get(), Clock::now(), error);
    if (result == StreamCreator::Result::CREATED) {
        listener_.stream_created(settings_.stream);
    } else if (result == StreamCreator::Result::FAILED) {
        listener_.trouble(error);
    }
}

}  // namespace qv::node::nats
