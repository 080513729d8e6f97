// Gives this process a private configuration file where the module looks for it, without changing
// the operator's /etc.
//
// Both functions change the whole process; call them at the start of main(), before any thread
// runs.
#pragma once

#include <optional>
#include <string>

namespace qv::tools {

// From here on, /etc/delmaren/quorvane/freeswitch_mod.conf contains `content`, for this process and
// its children. Everything else under /etc stays readable; nothing there is writable. Uses a mount
// namespace (with a user namespace if the process is not root) and a read-only overlay. Returns
// nullopt on success, otherwise what the system refused.
std::optional<std::string> use_private_config(const std::string& content);

// For the build of the module whose base directory is the relative "etc/delmaren": writes `content`
// to DIRECTORY/etc/delmaren/quorvane/freeswitch_mod.conf, creates the folders, and makes DIRECTORY
// the working directory. Returns nullopt on success, otherwise what failed.
std::optional<std::string> use_relocated_config(const std::string& directory,
                                                const std::string& content);

}  // namespace qv::tools
