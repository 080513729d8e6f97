// Version and revision of a program, for its --version. No state; any thread may call it.
#pragma once

#include <string>

namespace qv::tools {

// Returns for example "quorvane-node 1.0.0 (revision 0123456789abcdef)": the version of the
// packages, and the revision that is also in the module's build identifier.
std::string version_text(const std::string& program);

// Returns for example "1.0.0".
std::string version_number();

}  // namespace qv::tools
