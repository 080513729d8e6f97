// Loads the folder of samples on a thread of its own, so that loading delays nobody else.
//
// The public functions belong to the owner's thread. A thread that is still loading at the end is
// left behind: it owns all that it uses.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "node/analysis/sample_folder.h"

namespace qv::node::analysis {

class SampleLoader {
  public:
    // Runs on the thread. May throw std::exception.
    using Load = std::function<SampleFolder()>;

    struct Result {
        SampleFolder folder;  // Its index is null if loading failed.
        std::string error;    // Why loading failed. Otherwise empty.
    };

    explicit SampleLoader(Load load) : load_(std::move(load)) {}

    // Begins to load. Do not call it again before take() has returned the result.
    void begin();
    // Returns the result once, when it is there.
    std::optional<Result> take();

  private:
    struct Shared;

    const Load load_;
    std::shared_ptr<Shared> shared_;  // Null while nothing is loaded.
    std::optional<Result> failure_;   // If the thread could not be started.
};

// Loads on the calling thread.
SampleLoader::Result load_now(const SampleLoader::Load& load);

}  // namespace qv::node::analysis
