// Everything that the media node rereads or reopens on SIGHUP. The owner of such a file adds a
// function. Belongs to the thread of the event loop.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace qv::node {

class ReloadList {
  public:
    // Reads again. Returns why this failed, or an empty text. After a failure, the previous
    // contents stay in use.
    using Reload = std::function<std::string()>;
    // Called for each entry that was run, with its error.
    using OnResult = std::function<void(const std::string& what, const std::string& error)>;

    // `what` names the file or folder in messages.
    void add(std::string what, Reload reload) {
        entries_.emplace_back(std::move(what), std::move(reload));
    }

    // Runs all entries in order, also after one has failed.
    void run(const OnResult& on_result) const {
        for (const auto& [what, reload] : entries_) {
            on_result(what, reload());
        }
    }

    bool empty() const { return entries_.empty(); }

  private:
    std::vector<std::pair<std::string, Reload>> entries_;
};

}  // namespace qv::node
