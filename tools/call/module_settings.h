// The module that is to be loaded and the configuration that it is given.
//
// Changes the whole process; for the start of main(), before any thread runs.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace qv::tools::call {

// Where the module is made to find its configuration.
enum class ConfigPlace {
    AUTOMATIC,    // a private /etc, or else relocated
    PRIVATE_ETC,  // in a private view of /etc
    RELOCATED,    // in a folder, by the build of the module that looks there
};

// Options as they stand in the module's configuration file; the later one wins.
using ModuleOptions = std::vector<std::pair<std::string, std::string>>;

struct ModuleSettings {
    std::string module_path;
    std::optional<std::string> config_file;
    ModuleOptions options;  // added to the file's
    ConfigPlace place = ConfigPlace::AUTOMATIC;
};

struct SettingsError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The configuration file's text with the options added. Throws FileError when the file
// cannot be read.
std::string config_text(const ModuleSettings& settings);

// The relocated build of the module at this path: in the folder "relocated" beside it.
std::string relocated_module(const std::string& module_path);

// The program's own folder, with a final '/'.
std::string program_folder();

// The configuration in force, for as long as it lives; takes its folder away at the end.
class PlacedConfig {
  public:
    // Throws SettingsError: neither place can be had, and why.
    PlacedConfig(const ModuleSettings& settings, const std::string& text);
    ~PlacedConfig();
    PlacedConfig(const PlacedConfig&) = delete;
    PlacedConfig& operator=(const PlacedConfig&) = delete;

    // What to load now, absolute.
    const std::string& module_path() const { return module_path_; }
    // For people: where the module reads its configuration.
    const std::string& description() const { return description_; }

  private:
    void relocate(const std::string& text);
    void remove_folder();

    std::string module_path_;
    std::string description_;
    std::string folder_;  // to be removed; or empty
};

}  // namespace qv::tools::call
