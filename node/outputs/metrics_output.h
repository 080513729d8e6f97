// The metrics over HTTP (--metrics): the figures for Prometheus, and the port that serves them.
//
// Belongs to the thread of the program's event loop; any thread may call text().
#pragma once

#include <netinet/in.h>

#include <memory>
#include <optional>
#include <string>

#include "node/report/metrics.h"
#include "node/report/metrics_port.h"

namespace qv::node {

class MetricsOutput {
  public:
    // Serves the figures at that address, if there is one. Port 0 selects a free port. Returns why
    // the address cannot be used, or an empty text.
    std::string open(const std::optional<sockaddr_in>& address);

    // Where the figures are served. Empty if they are not.
    const std::string& url() const { return url_; }
    std::string text() const { return metrics_.text(); }
    void update(const NodeFigures& figures, const Analyser::Figures& analysis) {
        metrics_.update(figures, analysis);
    }

  private:
    Metrics metrics_;
    std::unique_ptr<MetricsPort> port_;  // Null unless they are served.
    std::string url_;
};

}  // namespace qv::node
