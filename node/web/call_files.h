// The files of a finished call that the page offers. No state; any thread may call these functions.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "node/web/call_board.h"
#include "node/web/file_folder.h"

namespace qv::node::web {

struct CallFile {
    std::string name;       // In the folder of the files.
    std::string kind;       // "wav", "flac", "opus", "timeline" or "sidecar".
    std::string call_side;  // "originator", "terminator" or "both".
    std::int64_t bytes = 0;
};

// Returns the names of the call's files, whether they exist or not.
std::vector<std::string> file_names_of(const FinishedCall& call);

// Returns those that exist.
std::vector<CallFile> files_of(const FinishedCall& call, const FileFolder& folder);

}  // namespace qv::node::web
