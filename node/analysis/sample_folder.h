// Reads the recordings of a folder into an index, with libsndfile.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "node/analysis/sample_index.h"

namespace qv::node::analysis {

struct SampleFolder {
    struct Refusal {
        std::string file;    // File name without folder.
        std::string reason;  // Such as "2 channels, not 1".
    };

    std::shared_ptr<const SampleIndex> index;  // Never null.
    std::vector<Refusal> refused;              // In the order of their names.
};

// Every file NAME.wav (in upper or lower case) in the folder itself becomes the reference NAME.
// Subfolders are ignored. The files are read in the order of their names. Throws std::runtime_error
// with the reason if the folder cannot be read.
SampleFolder load_folder(const std::filesystem::path& folder);

}  // namespace qv::node::analysis
