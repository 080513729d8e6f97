// Reads the recordings of a folder into an index, by libsndfile.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "node/analysis/sample_index.h"

namespace qv::node::analysis {

struct SampleFolder {
    struct Refusal {
        std::string file;    // Without the folder.
        std::string reason;  // Such as "2 channels, not 1".
    };

    std::shared_ptr<const SampleIndex> index;  // Never null.
    std::vector<Refusal> refused;              // In the order of their names.
};

// Every file NAME.wav (in any case) of the folder, not of those within, is the reference
// NAME; files are taken in the order of their names. Throws std::runtime_error, which says
// why, where the folder cannot be read.
SampleFolder load_folder(const std::filesystem::path& folder);

}  // namespace qv::node::analysis
