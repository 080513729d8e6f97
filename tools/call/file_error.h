// A file from the command line that cannot be used.
#pragma once

#include <stdexcept>

namespace qv::tools::call {

// The text begins with the file's path and says why.
struct FileError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

}  // namespace qv::tools::call
