#include "module/module_options.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <array>
#include <list>
#include <string_view>
#include <vector>

#include "module/app_context.h"
#include "quorvane_lib/net_socket.h"
#include "quorvane_lib/utils_str.h"

namespace qv::freeswitch {

namespace {

constexpr std::array<const char*, 4> DUMP_MODE_NAMES = {"none", "all", "channel", "channel-short"};

sockaddr_in make_address(const std::string& host, std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    // For a host name the address stays 0.0.0.0: the option checks only the form of the text.
    // See docs/design.md, Odd on purpose: options.
    ::inet_pton(AF_INET, host.c_str(), &address.sin_addr);
    return address;
}

int refuse_value(const std::string& name, const std::string& value, std::stringstream& error) {
    error << "[unexpected value \"" << value << "\" for option \"" << name << "\"]";
    return conf::MALFORMED;
}

// A byte order mark at the start of the file becomes part of the first option's name. The mark is
// invisible in a log, so the line that reports the unknown option does not explain the fault.
void warn_of_byte_order_mark(std::string_view name) {
    for (const std::string_view mark : {"\xEF\xBB\xBF", "\xFF\xFE", "\xFE\xFF"}) {
        if (name.substr(0, mark.size()) == mark) {
            log::WarningMessage message;
            message.stream << "configuration begins with a byte order mark, which hides its first "
                              "option: save the file as plain text without one";
            QV_LOG_WRITE(message);
        }
    }
}

// Stores `value` as the default of a feature if the feature's parser accepts it.
int set_feature_default(ParseFeature parse, const std::string& name, const std::string& value,
                        std::string& option, std::stringstream& error) {
    media::features16_t unused{};
    if (!parse(value.c_str(), unused)) {
        return refuse_value(name, value, error);
    }
    option = value;
    return conf::APPLIED;
}

}  // namespace

const char* dump_mode_name(DumpMode mode) {
    const auto index = static_cast<std::size_t>(mode);
    return index < DUMP_MODE_NAMES.size() ? DUMP_MODE_NAMES[index] : "not-specified";
}

Configuration::Configuration() : media_node_addr(make_address(media_node_host, media_node_port)) {}

int Configuration::set_flag(const std::string& name, std::stringstream& /*error*/) {
    if (name != "dump_events") {
        warn_of_byte_order_mark(name);
        return conf::UNKNOWN;
    }
    dump_mode = DumpMode::ALL;
    return conf::APPLIED;
}

int Configuration::set_value(const std::string& name, const std::string& value,
                             std::stringstream& error) {
    if (name == "media_node") {
        return set_media_node(name, value, error);
    }
    if (name == "dump_events") {
        return set_dump_mode(name, value, error);
    }
    if (name == "default_audio_activity") {
        return set_feature_default(AppContext::parse_audio_activity, name, value,
                                   default_audio_activity, error);
    }
    if (name == "default_detection") {
        return set_feature_default(AppContext::parse_sample_detection, name, value,
                                   default_detection, error);
    }
    if (name == "log_level") {
        return log::try_parse_level(value, level) ? conf::APPLIED : conf::MALFORMED;
    }
    warn_of_byte_order_mark(name);
    return conf::UNKNOWN;
}

int Configuration::set_media_node(const std::string& name, const std::string& value,
                                  std::stringstream& error) {
    // Parses item by item and stops at the second host: a list of port ranges stands for a great
    // many hosts, which would take too much memory.
    std::vector<std::string> items;
    utils::str::split(value, ',', items, false);
    std::list<net::Host> hosts;
    for (auto item = items.begin(); item != items.end() && hosts.size() < 2; ++item) {
        net::parse_hosts(*item, hosts);
    }
    if (hosts.size() != 1) {
        error << "[exactly one host must be specified for option \"" << name << "\"]";
        return conf::MALFORMED;
    }
    media_node_host = hosts.front().host;
    media_node_port = hosts.front().port;
    media_node_addr = make_address(media_node_host, media_node_port);
    return conf::APPLIED;
}

int Configuration::set_dump_mode(const std::string& name, const std::string& value,
                                 std::stringstream& error) {
    // Unlike with every other option, a bad value does not leave the old one in place. See
    // docs/design.md, Odd on purpose: options.
    dump_mode = DumpMode::NONE;
    for (std::size_t i = 0; i < DUMP_MODE_NAMES.size(); ++i) {
        if (value == DUMP_MODE_NAMES[i]) {
            dump_mode = static_cast<DumpMode>(i);
            return conf::APPLIED;
        }
    }
    return refuse_value(name, value, error);
}

}  // namespace qv::freeswitch
