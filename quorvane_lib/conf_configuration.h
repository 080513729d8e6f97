// The option parser: `key=value` lines of a file, `key=value` items of an argument
// string.
//
// It knows no option names: it hands each item to one of two hooks of a derived class and logs
// the outcome. One thread parses a configuration before other threads read it; nothing here
// takes a lock.
#pragma once

#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "quorvane_lib/log.h"
#include "quorvane_lib/reference_count.h"
#include "quorvane_lib/utils_path.h"

// Builds for tests define another directory; the shipped module reads /etc.
#ifndef QUORVANE_BASE_DIRECTORY
#define QUORVANE_BASE_DIRECTORY "/etc/delmaren"
#endif

namespace qv::conf {

inline const std::string default_conf_ext = ".conf";
inline const std::string default_base_directory = QUORVANE_BASE_DIRECTORY;
inline const std::string default_directory = default_base_directory + "/quorvane";
// Not used here; kept for its users.
inline const std::string default_kafka_config_path =
    default_directory + "/kafka" + default_conf_ext;

// The codes that a hook returns. The parser logs any other code as a failure; it goes on
// after a positive one and stops after a negative one. See docs/design.md, Odd on purpose:
// option files.
constexpr int APPLIED = 0;
constexpr int UNKNOWN = 1;
constexpr int MALFORMED = -1;
constexpr int FAILED_WITH_EXPLANATION = -255;

class Configuration : public ReferenceCountable {
  public:
    Configuration() = default;
    Configuration(const Configuration&) = default;
    Configuration& operator=(const Configuration&) = default;
    virtual ~Configuration() = default;

    // Parses the file at `path` line by line; an empty path means that there is no file. False when
    // the file cannot be opened and at the first line that fails; the effects of earlier lines
    // remain.
    bool parse_file(const std::string& path);

    // Parses the comma-separated items of `args`; ",," is a comma within an item. False at the
    // first item that fails; the effects of earlier items remain.
    bool parse_args(const std::string& args);

    // Parses one line; `line_number` is for the log only.
    bool parse_line(const std::string& line, unsigned long line_number);

    // Hand a flag or an option to its hook and log the outcome. False when the code of the hook
    // stops the parser.
    bool parse_option(const std::string& name);
    bool parse_option(const std::string& name, const std::string& value);

    // The hooks apply `name`, or set it to `value`, and return a code as above. The text in
    // `error` is logged only for FAILED_WITH_EXPLANATION.
    virtual int set_flag(const std::string& name, std::stringstream& error);
    virtual int set_value(const std::string& name, const std::string& value,
                          std::stringstream& error);

  private:
    bool parse_item(const std::string& item, std::size_t position);
    bool parse_parts(const std::vector<std::string>& parts);
};

// Adds the log level to a configuration. For the spelling of the name, see docs/design.md, Odd on
// purpose: option files.
template <typename Base>
class LogExtenstion : public Base {
  public:
    log::Level level = log::INFO;
};

}  // namespace qv::conf
