// The usual figures of a process for Prometheus, under their usual names: CPU time, memory, open
// files, start time. They are read from the system for each request, on the thread of the server.
// No state that changes.
#pragma once

#include <prometheus/collectable.h>
#include <prometheus/metric_family.h>

#include <vector>

namespace qv::node {

class ProcessMetrics : public prometheus::Collectable {
  public:
    // Figures that the system does not provide, for example when no file can be opened, are left
    // out.
    std::vector<prometheus::MetricFamily> Collect() const override;
};

}  // namespace qv::node
