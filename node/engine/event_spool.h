// A folder that keeps the events that wait for the message system, so that they survive the end of
// the program, also a sudden one.
//
// Each file holds a run of events and, after them, notes of those that need not be kept any longer.
// When no event of a file needs to be kept, the file is removed. Writing is left to the system:
// what it has not written to the disk is lost if the machine stops. One program at a time uses a
// folder. Belongs to one thread.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "node/engine/messages.h"

namespace qv::node {

class EventSpool {
  public:
    using Event = std::shared_ptr<const EngineEvent>;

    explicit EventSpool(std::string folder) : folder_(std::move(folder)) {}
    ~EventSpool();
    EventSpool(const EventSpool&) = delete;
    EventSpool& operator=(const EventSpool&) = delete;

    // Makes the folder if it is missing, and passes each event of earlier runs to `use`, in their
    // order. They stay in the folder. Returns why the folder cannot be used, or an empty text.
    std::string open(const std::function<void(const Event&)>& use);

    // Keep these events from now on, and no longer keep those. Events that cannot be written are
    // not kept. Return why that failed, or an empty text.
    std::string keep(const std::vector<Event>& events);
    std::string release(const std::vector<std::string>& ids);

  private:
    struct File {
        std::string path;
        std::uint64_t kept = 0;
        std::uint64_t size = 0;
        bool full = false;  // Further events go to another file.
    };

    std::string read(const std::string& path, const std::function<void(const Event&)>& use);
    std::string begin_file();
    std::string append(std::uint64_t number, const std::string& text);
    void close(std::uint64_t number);

    static constexpr std::uint64_t MOST_BYTES = 1 << 20;  // Of a file.

    const std::string folder_;
    int lock_ = -1;
    int growing_ = -1;  // The last file, if this run has begun it.
    std::uint64_t last_file_ = 0;
    std::map<std::uint64_t, File> files_;  // By number; the last one grows.
    std::map<std::string, std::uint64_t>
        places_;  // The file of each event that is kept, by its id.
};

}  // namespace qv::node
