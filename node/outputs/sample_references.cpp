#include "node/outputs/sample_references.h"

#include "node/analysis/sample_folder.h"
#include "node/report/text.h"

namespace qv::node {

std::string SampleReferences::open() {
    if (folder_.empty()) {
        return {};
    }
    const auto load = [folder = folder_] { return analysis::load_folder(folder); };
    std::string error;
    index_ = index_of(analysis::load_now(load), error);
    loader_ = std::make_unique<analysis::SampleLoader>(load);
    return error;
}

void SampleReferences::reload_with(ReloadList& reloads) {
    if (loader_ != nullptr) {
        reloads.add(
            "folder of samples " + folder_, [this] { loader_->begin(); },
            [this] { return take(); });
    }
}

// Names the files that are refused. If no sample is left, it returns null and says why.
SampleReferences::Index SampleReferences::index_of(const analysis::SampleLoader::Result& result,
                                                   std::string& error) {
    error = result.error;
    if (!error.empty()) {
        return nullptr;
    }
    for (const analysis::SampleFolder::Refusal& refusal : result.folder.refused) {
        lines_.say("sample refused", quoted_text(refusal.file) + ": " + refusal.reason);
    }
    const auto& index = result.folder.index;
    if (index->size() == 0) {
        error =
            "no sample to look for in " + folder_ +
            (result.folder.refused.empty() ? ": it holds no WAV file" : ": every file was refused");
        return nullptr;
    }
    lines_.say("samples", counted(index->size(), "sample") + " of " + folder_ + " to look for");
    return index;
}

// Returns nullopt while they are still loaded, and otherwise why they cannot be used.
std::optional<std::string> SampleReferences::take() {
    const auto result = loader_->take();
    if (!result.has_value()) {
        return std::nullopt;
    }
    std::string error;
    if (auto index = index_of(*result, error)) {
        index_ = index;
        on_new_(index);
    }
    return error;
}

}  // namespace qv::node
