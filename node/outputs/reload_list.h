// Everything that the media node rereads or reopens on SIGHUP. The owner of such a file adds a pair
// of functions. Nothing here waits: files are read on other threads. Belongs to the thread of the
// event loop.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace qv::node {

class ReloadList {
  public:
    // Begins to read again.
    using Begin = std::function<void()>;
    // Returns nullopt while the reading goes on; then, once, why it failed, or an empty text. After
    // a failure, the previous contents stay in use.
    using Result = std::function<std::optional<std::string>()>;
    // Called for each entry that has finished, with its error.
    using OnResult = std::function<void(const std::string& what, const std::string& error)>;

    // `what` names the file or folder in messages.
    void add(std::string what, Begin begin, Result result) {
        entries_.push_back({std::move(what), std::move(begin), std::move(result), false});
    }

    // Asks for everything to be read again. If that is going on, it is done once more afterwards,
    // because files may have changed since.
    void request() { requested_ = true; }

    // Call it several times a second. Returns true once all that was requested is done.
    bool update(const OnResult& on_result) {
        bool waiting = false;
        for (Entry& entry : entries_) {
            const auto result = entry.going_on ? entry.result() : std::nullopt;
            if (result.has_value()) {
                entry.going_on = false;
                on_result(entry.what, *result);
            }
            waiting = waiting || entry.going_on;
        }
        if (waiting) {
            return false;
        }
        if (std::exchange(requested_, false)) {
            for (Entry& entry : entries_) {
                entry.going_on = true;
                entry.begin();
            }
            going_on_ = true;
            return entries_.empty() && std::exchange(going_on_, false);
        }
        return std::exchange(going_on_, false);
    }

    bool empty() const { return entries_.empty(); }

  private:
    struct Entry {
        std::string what;
        Begin begin;
        Result result;
        bool going_on;
    };

    std::vector<Entry> entries_;
    bool requested_ = false;
    bool going_on_ = false;
};

}  // namespace qv::node
