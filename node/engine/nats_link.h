// The connection to NATS servers: makes it, keeps it, and sends over it.
//
// The functions belong to one thread. The listener is called by that thread and by those of the
// library, until close() returns.
#pragma once

#include <chrono>
#include <string>

#include "node/engine/messages.h"
#include "node/engine/nats_answer.h"
#include "node/engine/nats_library.h"
#include "node/engine/nats_stream.h"
#include "node/engine/settings.h"
#include "quorvane_lib/mutex.h"

namespace qv::node::nats {

class Link {
  public:
    // What happens to it. May throw std::bad_alloc, which has no effect.
    class Listener {
      public:
        virtual ~Listener() = default;
        virtual void connected(const std::string& url) = 0;
        virtual void disconnected() = 0;
        virtual void answered(Answer answer) = 0;
        virtual void trouble(const std::string& text) = 0;
        virtual void stream_created(const std::string& name) = 0;
    };

    // Both must outlive it.
    Link(const EngineSettings& settings, Listener& listener)
        : settings_(settings), listener_(listener), creator_(settings) {}

    // Returns what is wrong with the settings, or an empty text. Connects to nothing.
    std::string open();

    // Connects if there is no connection and the last attempt is not too recent. May take seconds,
    // or for ever if a server stops in the TLS handshake. Returns whether there is a connection,
    // which may be broken; the functions below need one.
    bool keep();

    enum class Outcome { TAKEN, TOO_LONG, FAILED };  // A failure is reported to the listener.
    // The answer names this number. There is none if the event is lost on the way.
    Outcome send(const EngineEvent& event, std::uint64_t number);
    // Whether a chunk has reached the server shows in flush().
    Outcome send(const EngineChunk& chunk);
    Outcome flush();

    // Creates the stream of events if an attempt is due.
    void create_stream();

    // Ends the connection, and waits until the library has let go of the listener.
    void close();

  private:
    static void on_connected(natsConnection* connection, void* self);
    static void on_disconnected(natsConnection* connection, void* self);
    static void on_closed(natsConnection* connection, void* self);
    static void on_complete(void* self);
    static void on_error(natsConnection* connection, natsSubscription* subscription,
                         natsStatus status, void* self);
    static void on_answer(natsConnection* connection, natsSubscription* subscription,
                          natsMsg* message, void* self);

    void connect() QV_EXCLUDES(mutex_);
    void subscribe_to_answers();
    void disconnect() QV_EXCLUDES(mutex_);
    Outcome publish(natsMsg* message, natsStatus made, const std::string& what);
    void add_callback() QV_EXCLUDES(mutex_);
    void remove_callback() QV_EXCLUDES(mutex_);

    const EngineSettings& settings_;
    Listener& listener_;
    Options options_;
    Connection connection_;
    StreamContext stream_;
    Subscription answers_;
    std::string inbox_;
    StreamCreator creator_;
    std::chrono::steady_clock::time_point next_attempt_{};

    Mutex mutex_;  // Held while a connection and its loss are reported, to keep their order.
    // The same as connection_. What the library reports of a former one does not count.
    natsConnection* current_ QV_GUARDED_BY(mutex_) = nullptr;
    Condition called_;
    int callbacks_ QV_GUARDED_BY(mutex_) = 0;  // That the library has yet to call.
};

}  // namespace qv::node::nats
