// A second, simple reader of the module's configuration file.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/support/feature_model.h"
#include "fuzz/support/host_list_model.h"
#include "fuzz/support/number_model.h"

namespace qv::fuzz {

enum class Level { SYSTEM, ERROR, WARNING, INFO, DEBUG, TRACE };

class OptionsModel {
  public:
    struct Line {
        Level level;
        std::string text;
    };

    // A node as an option or a variable names it.
    struct Node {
        unsigned family = 2;  // AF_INET
        unsigned char address[4] = {127, 0, 0, 1};
        std::uint16_t port = 0;
    };

    Level level = Level::INFO;
    std::string host = "127.0.0.1";
    Node node;
    std::string dump_events = "none";
    std::string default_audio_activity;
    std::string default_detection;

    // What reading the file logs.
    std::vector<Line> lines;

    // False if the file cannot be used; options that stand before the fault are set.
    bool read(const std::string& text) {
        std::string line;
        unsigned long number = 0;
        for (const char c : text + "\n") {
            if (c != '\n') {
                line += c;
                continue;
            }
            if (!read_line(line, number++)) {
                return false;
            }
            line.clear();
        }
        return true;
    }

  private:
    enum class Result { APPLIED, UNKNOWN, MALFORMED };

    void log(Level line_level, const std::string& text) {
        lines.push_back({line_level, "CONFIGURATION: " + text});
    }

    bool read_line(const std::string& line, unsigned long number) {
        const std::string text = trimmed(line);
        if (text.empty() || text[0] == '#') {
            return true;
        }
        const std::vector<std::string> parts = pieces(text, '=');
        if (parts.empty() || parts.size() > 2) {
            log(Level::ERROR,
                "incorrect option format at line " + std::to_string(number) + ": \"" + line + "\"");
            return false;
        }
        // A "=" at the end of the line protects the blanks before it.
        const std::string name = end_trimmed(parts[0]);
        const std::string value = parts.size() == 2 ? start_trimmed(parts[1]) : "";
        return value.empty() ? flag(name) : option(name, value);
    }

    static std::string end_trimmed(const std::string& text) {
        return trimmed("|" + text).substr(1);
    }
    static std::string start_trimmed(const std::string& text) {
        const std::string marked = trimmed(text + "|");
        return marked.substr(0, marked.size() - 1);
    }

    bool flag(const std::string& name) {
        if (name == "dump_events") {
            dump_events = "all";
            log(Level::SYSTEM, "flag [dump_events] applied");
        } else {
            warn_of_mark(name);
            log(Level::WARNING, "flag [" + name + "] is unknown");
        }
        return true;
    }

    bool option(const std::string& name, const std::string& value) {
        const Result result = set(name, value);
        if (result == Result::APPLIED) {
            log(Level::SYSTEM, "option [" + name + "] is set to [" + value + "]");
        } else if (result == Result::UNKNOWN) {
            warn_of_mark(name);
            log(Level::WARNING, "option [" + name + "] is unknown");
        } else {
            log(Level::ERROR,
                "failed to set option [" + name + "] to [" + value + "]: unexpected value format");
        }
        return result != Result::MALFORMED;
    }

    // Editors put such a mark before the first line of a file.
    void warn_of_mark(const std::string& name) {
        for (const char* mark : {"\xEF\xBB\xBF", "\xFF\xFE", "\xFE\xFF"}) {
            if (begins(name, mark)) {
                lines.push_back({Level::WARNING,
                                 "configuration begins with a byte order mark, which hides its "
                                 "first option: save the file as plain text without one"});
            }
        }
    }

    Result set(const std::string& name, const std::string& value) {
        if (name == "media_node") {
            return set_node(value);
        }
        if (name == "dump_events") {
            const bool known =
                value == "none" || value == "all" || value == "channel" || value == "channel-short";
            dump_events = known ? value : "none";
            return known ? Result::APPLIED : Result::MALFORMED;
        }
        if (name == "default_audio_activity" || name == "default_detection") {
            if (!read_features(value, 1, 2).valid) {
                return Result::MALFORMED;
            }
            (name == "default_detection" ? default_detection : default_audio_activity) = value;
            return Result::APPLIED;
        }
        return name == "log_level" ? set_level(value) : Result::UNKNOWN;
    }

    Result set_node(const std::string& value) {
        const std::vector<HostItem> hosts = read_hosts(value, false);
        if (entries_of(hosts) != 1) {
            return Result::MALFORMED;
        }
        host = hosts[0].host;
        node = {};
        node.port = hosts[0].first;
        if (!read_dotted(host, node.address)) {
            node.address[0] = node.address[1] = node.address[2] = node.address[3] = 0;
        }
        return Result::APPLIED;
    }

    Result set_level(const std::string& value) {
        const char* const names[] = {"SYSTEM", "ERROR", "WARNING", "INFO", "DEBUG", "TRACE"};
        for (int i = 0; i < 6; ++i) {
            if (value == names[i]) {
                level = static_cast<Level>(i);
                return Result::APPLIED;
            }
        }
        return Result::MALFORMED;
    }
};

}  // namespace qv::fuzz
