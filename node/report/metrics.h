// The counters of the media node for Prometheus, together with the usual figures of a process.
//
// text() may be called by any thread. update() belongs to the event loop's thread and only sets
// atomic values.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "node/analysis/analyser.h"
#include "node/report/figures.h"

namespace prometheus {
class Collectable;
}

namespace qv::node {

class Metrics {
  public:
    Metrics();
    ~Metrics();

    void update(const NodeFigures& figures, const Analyser::Figures& analysis);
    // Returns all figures in Prometheus' text format.
    std::string text() const;
    // The figures as the library takes them. They live on after this object.
    std::vector<std::shared_ptr<prometheus::Collectable>> collectables() const;

  private:
    void update(const Analyser::Figures& analysis);

    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace qv::node
