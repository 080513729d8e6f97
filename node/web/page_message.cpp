#include "node/web/page_message.h"

#include <nlohmann/json.hpp>

namespace qv::node::web {

namespace {

using Json = nlohmann::json;

std::optional<std::uint64_t> id_in(const Json& json) {
    return json.is_number_unsigned() ? std::optional(json.get<std::uint64_t>()) : std::nullopt;
}

const Json& field(const Json& json, const char* name) {
    static const Json none;
    const auto found = json.find(name);
    return found == json.end() ? none : *found;
}

std::string read_watch(const Json& json, PageMessage& message) {
    const Json& calls = field(json, "calls");
    if (!calls.is_array() || calls.size() > PageMessage::MOST_WATCHED) {
        return "watch: calls must be a list of at most 100 numbers";
    }
    for (const Json& each : calls) {
        const auto id = id_in(each);
        if (!id.has_value()) {
            return "watch: calls must be a list of at most 100 numbers";
        }
        message.calls.push_back(*id);
    }
    return {};
}

std::string read_open(const Json& json, PageMessage& message) {
    const Json& call = field(json, "call");
    message.call = id_in(call);
    const bool is_closed = call.is_null() && json.contains("call");
    return is_closed || message.call.has_value() ? std::string()
                                                 : "open: call must be a number or null";
}

std::string read_listen(const Json& json, PageMessage& message) {
    message.call = id_in(field(json, "call"));
    if (!message.call.has_value()) {
        return "listen: call must be a number";
    }
    const Json& sides = field(json, "sides");
    for (const Side side : BOTH_SIDES) {
        if (sides == "both" || sides == name_of(side)) {
            message.sides.push_back(side);
        }
    }
    return message.sides.empty() ? "listen: sides must be both, originator or terminator"
                                 : std::string();
}

}  // namespace

std::optional<PageMessage> read_page_message(std::string_view text, std::string& error) {
    // As JSON, a long text would take many times its memory.
    const bool is_short = text.size() <= PageMessage::LONGEST;
    const Json json = is_short ? Json::parse(text, nullptr, false) : Json();
    if (!json.is_object()) {
        error = "a message must be a JSON object of at most 4096 bytes";
        return std::nullopt;
    }
    PageMessage message;
    const Json& type = field(json, "type");
    if (type == "watch") {
        message.type = PageMessage::Type::WATCH;
        error = read_watch(json, message);
    } else if (type == "open") {
        message.type = PageMessage::Type::OPEN;
        error = read_open(json, message);
    } else if (type == "listen") {
        message.type = PageMessage::Type::LISTEN;
        error = read_listen(json, message);
    } else if (type == "stop") {
        message.type = PageMessage::Type::STOP;
    } else {
        error = "type must be watch, open, listen or stop";
    }
    return error.empty() ? std::optional(std::move(message)) : std::nullopt;
}

}  // namespace qv::node::web
