// Which version and revision a program is, for its --version. No state; any thread may call.
#pragma once

#include <string>

namespace qv::tools {

// "quorvane-node 1.0.0 (revision 0123456789abcdef)": the version of the packages, and the
// revision that the module's build identifier has, too.
std::string version_text(const std::string& program);

}  // namespace qv::tools
