#include "tools/private_config.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace qv::tools {
namespace {

using Error = std::optional<std::string>;

constexpr char FOLDER[] = "delmaren/quorvane";
constexpr char FILE_NAME[] = "freeswitch_mod.conf";

Error system_error(const std::string& what) {
    return what + ": " + std::generic_category().message(errno);
}

Error write_text(const std::string& path, const std::string& text) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << text;
    file.close();
    if (!file) {
        return system_error("cannot write " + path);
    }
    return std::nullopt;
}

// Writes BASE/delmaren/quorvane/freeswitch_mod.conf and creates its folders.
Error write_config(const std::string& base, const std::string& content) {
    const std::string folder = base + "/" + FOLDER;
    std::error_code failure;
    std::filesystem::create_directories(folder, failure);
    if (failure) {
        return "cannot make the folder " + folder + ": " + failure.message();
    }
    return write_text(folder + "/" + FILE_NAME, content);
}

// The process keeps its user and group inside a new user namespace.
Error map_own_ids(uid_t user, gid_t group) {
    const std::string user_map = std::to_string(user) + " " + std::to_string(user) + " 1";
    const std::string group_map = std::to_string(group) + " " + std::to_string(group) + " 1";
    if (auto error = write_text("/proc/self/setgroups", "deny")) {
        return error;
    }
    if (auto error = write_text("/proc/self/uid_map", user_map)) {
        return error;
    }
    return write_text("/proc/self/gid_map", group_map);
}

Error enter_namespace() {
    const uid_t user = geteuid();
    const gid_t group = getegid();
    if (unshare(CLONE_NEWNS) == 0) {
        return std::nullopt;
    }
    if (errno != EPERM) {
        return system_error("cannot make a mount namespace");
    }
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
        return system_error("cannot make a user and mount namespace");
    }
    return map_own_ids(user, group);
}

Error mount_over_etc(const std::string& layer, const std::string& content) {
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return system_error("cannot make the mounts private");
    }
    if (mount("tmpfs", layer.c_str(), "tmpfs", MS_NOSUID | MS_NODEV, "mode=755") != 0) {
        return system_error("cannot mount a temporary file system");
    }
    Error error = write_config(layer, content);
    const std::string options = "lowerdir=" + layer + ":/etc";
    if (!error && mount("overlay", "/etc", "overlay", MS_RDONLY, options.c_str()) != 0) {
        error = system_error("cannot lay an overlay over /etc");
    }
    umount2(layer.c_str(), MNT_DETACH);
    return error;
}

}  // namespace

// The folder of the layer is only a mount point, so it is removed at once.
Error use_private_config(const std::string& content) {
    char layer[] = "/tmp/quorvane-etc-XXXXXX";
    if (!mkdtemp(layer)) {
        return system_error("cannot make a folder under /tmp");
    }
    Error error = enter_namespace();
    if (!error) {
        error = mount_over_etc(layer, content);
    }
    rmdir(layer);
    return error;
}

Error use_relocated_config(const std::string& directory, const std::string& content) {
    if (auto error = write_config(directory + "/etc", content)) {
        return error;
    }
    if (chdir(directory.c_str()) != 0) {
        return system_error("cannot enter the folder " + directory);
    }
    return std::nullopt;
}

}  // namespace qv::tools
