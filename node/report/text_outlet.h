// Writes text on a thread of its own, so that a terminal, a pipe or a disk that does not take it
// delays nobody else. Text that finds no room is refused whole.
//
// The public functions belong to the owner's thread. A thread that cannot be ended, because the
// system does not return from a write, is left behind: it owns all that it still uses.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "node/report/event_file.h"

namespace qv::node {

class TextOutlet {
  public:
    // From now on only the thread uses the file, which is open. At most `most_bytes` wait, unless a
    // single text is longer.
    TextOutlet(std::unique_ptr<EventFile> file, std::size_t most_bytes);
    // Waits only a moment; see wait().
    ~TextOutlet();
    TextOutlet(const TextOutlet&) = delete;
    TextOutlet& operator=(const TextOutlet&) = delete;

    // Appends the whole text. Returns false, and appends nothing, if there is no room.
    bool add(std::string_view text);
    // Whether everything is written.
    bool idle() const;
    // Waits until everything is written or the time has come. Returns idle().
    bool wait(std::chrono::steady_clock::time_point until) const;
    // Lines that are not written yet.
    std::uint64_t waiting_lines() const;

    // Why the latest write failed. Empty if it did not.
    std::string error() const;
    // How often the file was found moved or removed.
    std::uint64_t replaced() const;

    // Opens the file again, after an attempt to write what waits.
    void reopen();
    // Returns the result of reopen() once: why it failed, or an empty text.
    std::optional<std::string> take_reopened();

  private:
    struct Shared;

    const std::shared_ptr<Shared> shared_;
    std::thread thread_;
};

}  // namespace qv::node
