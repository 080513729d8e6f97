// The module to load, and the configuration that it reads.
//
// Changes the whole process: use it at the start of main(), before any thread runs.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace qv::tools::call {

// Where the module reads its configuration.
enum class ConfigPlace {
    AUTOMATIC,    // in a private /etc if possible, else relocated
    PRIVATE_ETC,  // in a private view of /etc
    RELOCATED,    // in a folder, with the build of the module that reads it there
};

// Options of the module's configuration file; a later one overrides an earlier one.
using ModuleOptions = std::vector<std::pair<std::string, std::string>>;

struct ModuleSettings {
    std::string module_path;  // empty: the first that find_module() finds
    std::optional<std::string> config_file;
    ModuleOptions options;  // added to the file's
    ConfigPlace place = ConfigPlace::AUTOMATIC;
};

// The media node that the options name, the last one; empty for none.
std::string media_node_of(const ModuleSettings& settings);

struct SettingsError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The configuration file's text with the options added. Throws FileError when the file
// cannot be read.
std::string config_text(const ModuleSettings& settings);

// The path of the relocated build of this module: in the folder "relocated" beside it.
std::string relocated_module(const std::string& module_path);

// The program's own folder, with a final '/'.
std::string program_folder();

// Where a module may be if no option names it, the best place first: beside the program, where it
// was built; the folder of the module's package; the folder of the driver's package.
std::vector<std::string> module_folders();

// Returns the mod_quorvane.so of the first folder that has one. If there is none, throws
// SettingsError with the searched folders and advice.
std::string find_module(const std::vector<std::string>& folders);

// Keeps the configuration in effect while the object exists, and removes its folder at the end.
class PlacedConfig {
  public:
    // Throws SettingsError with the reason when no place can be used.
    PlacedConfig(const ModuleSettings& settings, const std::string& text);
    ~PlacedConfig();
    PlacedConfig(const PlacedConfig&) = delete;
    PlacedConfig& operator=(const PlacedConfig&) = delete;

    // The absolute path of the module to load.
    const std::string& module_path() const { return module_path_; }
    // Says, for people, where the module reads its configuration.
    const std::string& description() const { return description_; }

  private:
    void relocate(const std::string& text);
    void remove_folder();

    std::string module_path_;
    std::string description_;
    std::string folder_;  // to be removed; empty for none
};

}  // namespace qv::tools::call
