// The error for a file from the command line that cannot be used.
#pragma once

#include <stdexcept>

namespace qv::tools::call {

// The text begins with the file's path and gives the reason.
struct FileError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

}  // namespace qv::tools::call
