// Watches the calls of one thread for the live view: keeps what was heard in each call, and takes
// snapshots of all of them. An output. Belongs to the thread of its calls.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "node/calls/call_listener.h"
#include "node/report/call_snapshot.h"

namespace qv::node {

class CallWatch : public CallListener {
  public:
    // Receives the path of a file that could not be written, and why.
    using OnFileError = std::function<void(const std::string& error)>;

    explicit CallWatch(OnFileError on_file_error) : on_file_error_(std::move(on_file_error)) {}

    std::unique_ptr<CallListener> begin_call(Call& call) override;

    // Returns the present calls, and those that complete their files, in no particular order.
    std::vector<CallSnapshot> take_snapshots();

  private:
    class WatchedCall;

    OnFileError on_file_error_;
    std::unordered_set<WatchedCall*> calls_;  // Each removes itself when its call has ended.
};

}  // namespace qv::node
