#include "tools/version.h"

#include "build_identifier.h"

namespace qv::tools {

std::string version_text(const std::string& program) {
    return program + " " QUORVANE_VERSION " (revision " QUORVANE_REVISION ")";
}

std::string version_number() {
    return QUORVANE_VERSION;
}

}  // namespace qv::tools
