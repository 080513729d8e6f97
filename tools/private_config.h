// Gives this process a configuration file of its own where the module looks for it,
// without touching the operator's /etc.
//
// Both functions change the whole process; call them at the start of main(), before
// any thread runs.
#pragma once

#include <optional>
#include <string>

namespace qv::tools {

// From here on /etc/delmaren/quorvane/freeswitch_mod.conf holds `content`, for this
// process and what it starts; all else under /etc stays readable, nothing of it
// writable. Uses a mount namespace (with a user namespace where the process is not
// root) and a read-only overlay. Nothing when it worked, else what the system refused.
std::optional<std::string> use_private_config(const std::string& content);

// For the build of the module whose base directory is the relative "etc/delmaren":
// writes `content` to DIRECTORY/etc/delmaren/quorvane/freeswitch_mod.conf, making the
// folders, and makes DIRECTORY the working directory. Nothing when it worked.
std::optional<std::string> use_relocated_config(const std::string& directory,
                                                const std::string& content);

}  // namespace qv::tools
