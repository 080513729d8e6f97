#include "tools/call/module_settings.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

#include "tools/call/file_error.h"
#include "tools/private_config.h"

namespace qv::tools::call {
namespace {

std::string read_file(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::stringstream text;
    text << file.rdbuf();
    if (!file || file.bad()) {
        throw FileError(path + ": " + std::generic_category().message(errno));
    }
    return text.str();
}

void check_readable(const std::string& path) {
    if (access(path.c_str(), R_OK) != 0) {
        throw SettingsError("the module " + path +
                            " cannot be read: " + std::generic_category().message(errno));
    }
}

std::string make_folder() {
    char name[] = "/tmp/quorvane-call-XXXXXX";
    if (!mkdtemp(name)) {
        throw SettingsError("cannot make a folder under /tmp: " +
                            std::generic_category().message(errno));
    }
    return name;
}

}  // namespace

std::string media_node_of(const ModuleSettings& settings) {
    std::string media_node;
    for (const auto& [name, value] : settings.options) {
        media_node = name == "media_node" ? value : media_node;
    }
    return media_node;
}

std::string config_text(const ModuleSettings& settings) {
    std::string text;
    if (settings.config_file) {
        text = read_file(*settings.config_file);
    }
    if (!text.empty() && text.back() != '\n') {
        text += '\n';
    }
    for (const auto& [name, value] : settings.options) {
        text.append(name).append("=").append(value).append("\n");
    }
    return text;
}

std::string relocated_module(const std::string& module_path) {
    const std::filesystem::path path(module_path);
    return path.parent_path() / "relocated" / path.filename();
}

std::string program_folder() {
    std::error_code failure;
    const auto program = std::filesystem::read_symlink("/proc/self/exe", failure);
    return failure ? "./" : program.parent_path().string() + "/";
}

std::vector<std::string> module_folders() {
    // The folders of the packages, derived from the prefix in which the program is installed.
    const std::filesystem::path prefix = program_folder() + "..";
    return {program_folder(), (prefix / QUORVANE_MODULE_FOLDER).lexically_normal(),
            (prefix / QUORVANE_DRIVER_MODULE_FOLDER).lexically_normal()};
}

std::string find_module(const std::vector<std::string>& folders) {
    std::string places;
    for (const std::string& folder : folders) {
        const std::filesystem::path path = std::filesystem::path(folder) / "mod_quorvane.so";
        if (access(path.c_str(), F_OK) == 0) {
            return path;
        }
        places += (places.empty() ? "" : ", ") + folder;
    }
    throw SettingsError("there is no mod_quorvane.so in " + places +
                        "; the packages freeswitch-mod-quorvane and quorvane-tools have one, "
                        "and --module names one elsewhere");
}

PlacedConfig::PlacedConfig(const ModuleSettings& settings, const std::string& text)
    : module_path_(std::filesystem::absolute(
          settings.module_path.empty() ? find_module(module_folders()) : settings.module_path)) {
    check_readable(module_path_);
    if (settings.place == ConfigPlace::RELOCATED) {
        relocate(text);
        return;
    }
    const auto refused = use_private_config(text);
    if (!refused) {
        description_ = "a private /etc";
        return;
    }
    if (settings.place == ConfigPlace::PRIVATE_ETC) {
        throw SettingsError("there is no private /etc to be had: " + *refused);
    }
    try {
        relocate(text);
    } catch (const SettingsError& error) {
        throw SettingsError("there is no private /etc to be had: " + *refused + "; and " +
                            error.what());
    }
    description_ += "; no private /etc: " + *refused;
}

void PlacedConfig::relocate(const std::string& text) {
    const std::string path = relocated_module(module_path_);
    check_readable(path);
    folder_ = make_folder();
    if (const auto error = use_relocated_config(folder_, text)) {
        remove_folder();
        throw SettingsError(*error);
    }
    module_path_ = path;
    description_ = "the folder " + folder_ + " (relocated build of the module)";
}

PlacedConfig::~PlacedConfig() {
    remove_folder();
}

void PlacedConfig::remove_folder() {
    if (folder_.empty()) {
        return;
    }
    std::error_code ignored;
    std::filesystem::current_path("/", ignored);
    std::filesystem::remove_all(folder_, ignored);
}

}  // namespace qv::tools::call
