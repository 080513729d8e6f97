// What the receiver reads or opens again when SIGHUP asks for it. Whoever keeps such a file adds
// a function. Belongs to the thread of the event loop.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace qv::node {

class ReloadList {
  public:
    // Reads again. Returns why it cannot, or nothing; what was read before stays in use then.
    using Reload = std::function<std::string()>;
    // Called for each entry that was run, with its error.
    using OnResult = std::function<void(const std::string& what, const std::string& error)>;

    // `what` names the file or folder for the user.
    void add(std::string what, Reload reload) {
        entries_.emplace_back(std::move(what), std::move(reload));
    }

    // Runs all entries in their order; one that fails does not keep the others from running.
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
