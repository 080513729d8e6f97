// A second option parser, which reads character by character, and the hooks that record what
// both parsers do. For the targets for files and for argument strings.
#pragma once

#include <string>
#include <vector>

#include "fuzz/support/require.h"
#include "quorvane_lib/conf_configuration.h"
#include "quorvane_lib/log.h"

namespace qv::fuzz {

// The code that the hooks return, which the first character of the name selects.
inline int code_of(const std::string& name) {
    switch (name.empty() ? '\0' : name[0]) {
        case 'u':
            return 1;
        case 'm':
            return -1;
        case 'e':
            return -255;
        case 'p':
            return 2;
        case 'n':
            return -7;
        default:
            return 0;
    }
}

// Records hook calls and log lines, in their order.
class WatchedConfiguration : public conf::Configuration {
  public:
    WatchedConfiguration() {
        log::Logger::m_instance.context = this;
        log::Logger::m_instance.write = [](void* context, const char*, int,
                                           const log::Message& message) {
            static_cast<WatchedConfiguration*>(context)->events.push_back(
                log::level_to_string[message.level] + " " + message.stream.str());
        };
    }
    WatchedConfiguration(const WatchedConfiguration&) = delete;
    WatchedConfiguration& operator=(const WatchedConfiguration&) = delete;
    ~WatchedConfiguration() override {
        log::Logger::m_instance.context = nullptr;
        log::Logger::m_instance.write = log::LoggerImpl::dummy_write;
    }

    int set_flag(const std::string& name, std::stringstream& error) override {
        events.push_back("flag " + name);
        error << "explained " << name;
        return code_of(name);
    }
    int set_value(const std::string& name, const std::string& value,
                  std::stringstream& error) override {
        events.push_back("option " + name + " " + value);
        error << "explained " << name;
        return code_of(name);
    }

    std::vector<std::string> events;
};

class ConfigurationModel {
  public:
    std::vector<std::string> events;

    void system(const std::string& text) { events.push_back("SYSTEM CONFIGURATION: " + text); }

    bool file(const std::string& content) {
        std::string line;
        unsigned long number = 0;
        for (const char c : content + "\n") {
            if (c != '\n') {
                line += c;
                continue;
            }
            if (!one_line(line, number++)) {
                return false;
            }
            line.clear();
        }
        return true;
    }

    // One pass: ",," and "_;" are commas within an item, a single comma ends an item.
    bool args(const std::string& text) {
        std::string item;
        unsigned position = 0;
        for (std::size_t i = 0; i <= text.size(); ++i) {
            const std::string pair = text.substr(i, 2);
            if (pair == ",," || pair == "_;") {
                item += ',';
                ++i;
            } else if (i < text.size() && text[i] != ',') {
                item += text[i];
            } else if (!item.empty()) {
                if (!one_item(item, ++position)) {
                    return false;
                }
                item.clear();
            }
        }
        return true;
    }

  private:
    static bool blank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

    static std::string without_blanks(std::string text, bool left, bool right) {
        while (left && !text.empty() && blank(text.front())) {
            text.erase(0, 1);
        }
        while (right && !text.empty() && blank(text.back())) {
            text.pop_back();
        }
        return text;
    }

    static std::vector<std::string> pieces(const std::string& text) {
        std::vector<std::string> all(1);
        for (const char c : text) {
            if (c == '=') {
                all.emplace_back();
            } else {
                all.back() += c;
            }
        }
        return all;
    }

    bool one_line(const std::string& line, unsigned long number) {
        const std::string text = without_blanks(line, true, true);
        if (text.empty() || text[0] == '#') {
            return true;
        }
        std::vector<std::string> parts;
        for (const std::string& piece : pieces(text)) {
            if (!piece.empty()) {
                parts.push_back(piece);
            }
        }
        return option(parts, "at line " + std::to_string(number) + ": \"" + line + "\"");
    }

    bool one_item(const std::string& item, unsigned position) {
        std::vector<std::string> parts = pieces(item);
        if (parts.size() > 1 && parts.back().empty()) {
            parts.pop_back();
        }
        return option(parts, "at position [" + std::to_string(position) + "]");
    }

    bool option(const std::vector<std::string>& parts, const std::string& where) {
        if (parts.empty() || parts.size() > 2) {
            events.push_back("ERROR CONFIGURATION: incorrect option format " + where);
            return false;
        }
        const std::string name = without_blanks(parts[0], false, true);
        const std::string value = parts.size() == 2 ? without_blanks(parts[1], true, false) : "";
        const std::string flag = "flag [" + name + "]";
        const std::string option = "option [" + name + "]";
        const std::string to = option + " to [" + value + "]";
        events.push_back(value.empty() ? "flag " + name : "option " + name + " " + value);
        return value.empty() ? tell(name, flag + " applied", flag, "apply " + flag, "")
                             : tell(name, option + " is set to [" + value + "]", option,
                                    "set " + to, "value ");
    }

    bool tell(const std::string& name, const std::string& applied, const std::string& subject,
              const std::string& action, const std::string& kind) {
        const std::string failed = "ERROR CONFIGURATION: failed to " + action;
        const int code = code_of(name);
        if (code == 0) {
            system(applied);
        } else if (code == 1) {
            events.push_back("WARNING CONFIGURATION: " + subject + " is unknown");
        } else if (code == -1) {
            events.push_back(failed + ": unexpected " + kind + "format");
        } else if (code == -255) {
            events.push_back(failed + ": explained " + name);
        } else {
            events.push_back(failed);
        }
        return code >= 0;
    }
};

}  // namespace qv::fuzz
