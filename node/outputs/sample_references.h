// The samples to look for (--samples): loads their folder at the start and again on SIGHUP, and
// reports the files that are refused. If no sample is left after SIGHUP, the former ones stay.
//
// Belongs to the thread of the program's event loop.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "node/analysis/sample_loader.h"
#include "node/outputs/reload_list.h"
#include "node/report/line_report.h"

namespace qv::node {

class SampleReferences {
  public:
    using Index = std::shared_ptr<const analysis::SampleIndex>;
    // Receives the samples that take the place of the former ones.
    using OnNew = std::function<void(const Index& samples)>;

    // `folder` is empty if nothing is looked for. The lines must outlive this object.
    SampleReferences(std::string folder, LineReport& lines, OnNew on_new)
        : folder_(std::move(folder)), lines_(lines), on_new_(std::move(on_new)) {}

    // Loads the folder and waits for it. Returns why there are no samples to look for, or an empty
    // text.
    std::string open();
    // The folder is loaded again with all that `reloads` has.
    void reload_with(ReloadList& reloads);

    // Null without a folder.
    const Index& index() const { return index_; }

  private:
    Index index_of(const analysis::SampleLoader::Result& result, std::string& error);
    std::optional<std::string> take();

    const std::string folder_;
    LineReport& lines_;
    const OnNew on_new_;
    Index index_;
    std::unique_ptr<analysis::SampleLoader> loader_;  // Null without a folder.
};

}  // namespace qv::node
