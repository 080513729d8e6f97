// A JSON file beside the files of each call, STEM.json, which describes the call and its files: for
// archives, which have no use for the events of a running program. docs/node.md lists its fields;
// they have the names of the fields of events.
//
// The file is written by a task thread when the files of the call's audio are complete. Until then
// it collects what it describes, within bounds. An output. Belongs to one thread.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "node/audio/task_thread.h"
#include "node/calls/call_listener.h"
#include "node/report/bounded_list.h"

namespace qv::node {

class Sidecar : public CallListener {
  public:
    struct Options {
        std::string folder;
        bool overwrite = false;  // Replaces an existing file.
        bool force = false;      // Has the system write the file to the disk.
    };
    // The most entries of each list; how many further ones there were is counted.
    static constexpr std::size_t MOST_ENTRIES = 5000;
    // The most entries of the lists of all calls together, so that a flood of calls finds a bound.
    static constexpr std::size_t MOST_OF_ALL_CALLS = 1'000'000;

    // `on_saved` is called with the name of each file that is about to be written. `tasks` must
    // outlive this object.
    Sidecar(TaskThread& tasks, Options options,
            std::function<void(const std::string& name)> on_saved);

    std::unique_ptr<CallListener> begin_call(Call& call) override;

  private:
    class SidecarOfCall;

    TaskThread& tasks_;
    const Options options_;
    const std::function<void(const std::string& name)> on_saved_;
    const std::shared_ptr<SharedRoom> room_;
};

}  // namespace qv::node
