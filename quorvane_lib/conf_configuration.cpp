#include "quorvane_lib/conf_configuration.h"

#include <fstream>
#include <vector>

#include "quorvane_lib/utils_str.h"

namespace qv::conf {

namespace {

using utils::str::replace;
using utils::str::split;
using utils::str::trim_left;
using utils::str::trim_right;

// The texts that log the outcome of a flag or of an option.
struct Wording {
    std::string applied;
    std::string unknown;
    std::string failed;
    std::string malformed;
};

// `line` is the caller's.
template <typename MessageOfLevel, typename... Pieces>
void write(int line, const Pieces&... pieces) {
    MessageOfLevel message;
    ((message.stream << "CONFIGURATION: ") << ... << pieces);
    QV_LOG_WRITE_AT(line, message);
}

// Logs the outcome that `code` means; returns whether parsing may go on.
bool report(const Wording& wording, int code, const std::stringstream& error) {
    switch (code) {
        case APPLIED:
            write<log::SystemMessage>(__LINE__, wording.applied);
            break;
        case UNKNOWN:
            write<log::WarningMessage>(__LINE__, wording.unknown);
            break;
        case MALFORMED:
            // Does not log what the hook wrote into `error`. See docs/design.md, Odd on
            // purpose: options.
            write<log::ErrorMessage>(__LINE__, wording.failed, wording.malformed);
            break;
        case FAILED_WITH_EXPLANATION:
            write<log::ErrorMessage>(__LINE__, wording.failed, ": ", error.str());
            break;
        default:
            write<log::ErrorMessage>(__LINE__, wording.failed);
            break;
    }
    // A positive code above UNKNOWN is logged as a failure but does not stop the parser. See
    // docs/design.md, Odd on purpose: option files.
    return code >= 0;
}

}  // namespace

bool Configuration::parse_file(const std::string& path) {
    if (path.empty()) {
        write<log::InfoMessage>(__LINE__, "file is not specified, default values are used");
        return true;
    }
    std::ifstream file(path);
    if (!file) {
        write<log::ErrorMessage>(__LINE__, "failed to open file [", path, "]");
        return false;
    }
    write<log::SystemMessage>(__LINE__, "reading from file [", path, "]");

    // Lines count from 0, although the items of an argument string count from 1. See
    // docs/design.md, Odd on purpose: option files.
    std::string line;
    for (unsigned long number = 0; file.good(); ++number) {
        std::getline(file, line);
        if (!parse_line(line, number)) {
            return false;
        }
    }
    return true;
}

bool Configuration::parse_args(const std::string& args) {
    write<log::SystemMessage>(__LINE__, "reading from args: ", args);

    std::vector<std::string> items;
    split(replace(args, ",,", "_;"), ',', items, false);
    for (std::size_t i = 0; i < items.size(); ++i) {
        if (!parse_item(replace(items[i], "_;", ","), i + 1)) {
            return false;
        }
    }
    return true;
}

bool Configuration::parse_line(const std::string& line, unsigned long line_number) {
    const std::string text = trim_right(trim_left(line));
    if (text.empty() || text.front() == '#') {
        return true;
    }
    std::vector<std::string> parts;
    split(text, '=', parts, false);
    if (parts.empty() || parts.size() > 2) {
        write<log::ErrorMessage>(__LINE__, "incorrect option format at line ", line_number, ": \"",
                                 line, "\"");
        return false;
    }
    return parse_parts(parts);
}

bool Configuration::parse_item(const std::string& item, std::size_t position) {
    std::vector<std::string> parts;
    split(item, '=', parts, true);
    if (parts.empty() || parts.size() > 2) {
        write<log::ErrorMessage>(__LINE__, "incorrect option format at position [", position, "]");
        return false;
    }
    return parse_parts(parts);
}

bool Configuration::parse_parts(const std::vector<std::string>& parts) {
    const std::string name = trim_right(parts.front());
    const std::string value = parts.size() == 2 ? trim_left(parts.back()) : std::string();
    return value.empty() ? parse_option(name) : parse_option(name, value);
}

bool Configuration::parse_option(const std::string& name) {
    std::stringstream error;
    const int code = set_flag(name, error);
    return report({"flag [" + name + "] applied", "flag [" + name + "] is unknown",
                   "failed to apply flag [" + name + "]", ": unexpected format"},
                  code, error);
}

bool Configuration::parse_option(const std::string& name, const std::string& value) {
    std::stringstream error;
    const int code = set_value(name, value, error);
    return report(
        {"option [" + name + "] is set to [" + value + "]", "option [" + name + "] is unknown",
         "failed to set option [" + name + "] to [" + value + "]", ": unexpected value format"},
        code, error);
}

int Configuration::set_flag(const std::string& /*name*/, std::stringstream& /*error*/) {
    return UNKNOWN;
}

int Configuration::set_value(const std::string& /*name*/, const std::string& /*value*/,
                             std::stringstream& /*error*/) {
    return UNKNOWN;
}

}  // namespace qv::conf
