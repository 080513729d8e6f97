// Hands events and audio to NATS, on a thread of its own; the spool has another.
//
// Events go through JetStream: each stays in a bounded queue until the server says that it has
// stored it, and is sent again otherwise. The events of a call are stored in their order. Audio
// goes to whoever listens: it stays in a bounded queue until the server has taken it. What does not
// fit into a queue is dropped, the oldest first, and counted.
//
// Any thread may call the functions. They do not wait, except wait() and finish().
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "node/engine/messages.h"
#include "node/engine/settings.h"

namespace qv::node {

class Publisher {
  public:
    virtual ~Publisher() = default;

    // Unique for each run of each node.
    virtual const std::string& run() const = 0;
    virtual void push(EngineEvent event) = 0;
    virtual void push(EngineChunk chunk) = 0;
    virtual EngineFigures figures() const = 0;

    // What happened since the last call, for lines: what and, after that, details. Bounded.
    using News = std::vector<std::pair<std::string, std::string>>;
    virtual News take_news() = 0;

    // Waits until everything has been handed over, at most for this time. Returns whether it has.
    virtual bool wait(std::chrono::milliseconds longest) = 0;

    // Ends the connection. Returns how many events and chunks were left; events that the spool
    // holds are not counted, because they are sent when the program runs again. Belongs to the
    // owner's thread, which waits at most some seconds for a server or a disk that does not answer.
    struct Left {
        std::uint64_t events = 0;
        std::uint64_t chunks = 0;
    };
    virtual Left finish() = 0;
};

// Begins to connect; whether a server answers shows later. Returns null and the reason in `error`
// if the settings cannot be used, or if the program was built without the library for NATS.
std::unique_ptr<Publisher> make_publisher(const EngineSettings& settings, std::string& error);

}  // namespace qv::node
