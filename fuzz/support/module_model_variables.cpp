// The options that a call's channel variables set, in the model.
#include <cctype>
#include <cstring>

#include "fuzz/support/address_model.h"
#include "fuzz/support/feature_model.h"
#include "fuzz/support/module_model.h"
#include "fuzz/support/number_model.h"

namespace qv::fuzz {

namespace {

constexpr unsigned OUTBOUND = 0x0001;
constexpr unsigned REPORT_NODE = 0x4000;
constexpr unsigned RULE_ID = 0x8000;

std::string lower_case(std::string text) {
    for (char& c : text) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

const std::string* variable(const CallModel& call, const std::string& name) {
    const auto found = call.variables.find(lower_case(name));
    return name.empty() || found == call.variables.end() ? nullptr : &found->second;
}

// Digits and dots after at most one sign, and a number other than zero before the first dot.
bool is_number_but_zero(const std::string& text) {
    const bool is_signed = !text.empty() && (text[0] == '-' || text[0] == '+');
    const std::string number = text.substr(is_signed ? 1 : 0);
    return number.find_first_not_of("0123456789.") == std::string::npos &&
           number.substr(0, number.find('.')).find_first_not_of('0') != std::string::npos;
}

// What an address that cannot be read leaves where it was to be stored. It matters for a call that
// is tapped already, on which the application runs once more.
OptionsModel::Node remains_of(const std::string& text) {
    const std::size_t colon = text.rfind(':');
    const std::string host = text.substr(0, colon);
    OptionsModel::Node node;
    if (colon != std::string::npos && host.find_first_not_of(" \t\n\v\f\r") != std::string::npos) {
        std::memset(node.address, 0, sizeof(node.address));
        const std::string port = text.substr(colon + 1);
        node.port = port.empty() || !read_port(port, node.port) ? 0 : node.port;
    }
    return node;
}

bool asks_for_recording(const std::string& value) {
    const std::string word = lower_case(value);
    return word == "yes" || word == "on" || word == "true" || word == "t" || word == "enabled" ||
           word == "active" || word == "allow" || is_number_but_zero(value);
}

}  // namespace

void ModuleModel::complain(const CallModel& call, const std::string& name,
                           const std::string& consequence) {
    line(Level::ERROR, &call,
         "failed to parse channel variable \"" + name + "\": " + *variable(call, name) + "; " +
             consequence + "!");
}

bool ModuleModel::configure(const CallModel& call, TapModel& tap) {
    const std::string* node = variable(call, "quorvane_media_node");
    if (node == nullptr) {
        tap.node = options_.node;
    } else {
        const AddressModel address = read_address(*node);
        if (!address.valid) {
            tap.node = remains_of(*node);
            complain(call, "quorvane_media_node", "discarding");
            return false;
        }
        // A blank text leaves the family as it was.
        tap.node.family = address.blank ? tap.node.family : 2;
        std::memcpy(tap.node.address, address.bytes, sizeof(address.bytes));
        tap.node.port = address.port;
    }
    const std::string* record = variable(call, "quorvane_record");
    if (record != nullptr && asks_for_recording(*record)) {
        tap.features.merge({0xC0, 0xC0});
    }
    tap.rule_id = 0;
    tap.flags &= ~RULE_ID;
    if (const std::string* rule = variable(call, "quorvane_rule_id")) {
        const NumberModel number = read_number(*rule);
        tap.rule_id = number.digits && !number.overflow ? number.value() : 0;
        if (number.whole && !number.overflow) {
            tap.flags |= RULE_ID;
        } else {
            complain(call, "quorvane_rule_id", "ignored");
        }
    }
    if ((tap.flags & RULE_ID) != 0) {
        configure_features(call, tap, "quorvane_detection", 0x10, 0x20, options_.default_detection);
        configure_features(call, tap, "quorvane_audio_activity", 0x04, 0x08,
                           options_.default_audio_activity);
    }
    configure_report_node(call, tap);
    configure_reference(call, tap);
    tap.flags = (tap.flags & ~OUTBOUND) | (call.outbound ? OUTBOUND : 0);
    tap.legs[0].word = call.outbound ? 0x0001 : 0x0000;
    tap.legs[1].word = call.outbound ? 0x8000 : 0x8001;
    tap.configured_us = static_cast<std::uint64_t>(wall_us_);
    tap.configured_clock_us = static_cast<std::uint64_t>(earliest_us_);
    return true;
}

void ModuleModel::configure_features(const CallModel& call, TapModel& tap, const std::string& name,
                                     unsigned orig, unsigned term,
                                     const std::string& default_text) {
    if (const std::string* value = variable(call, name)) {
        const FeatureModel feature = read_features(*value, orig, term);
        tap.features.merge({feature.supported, feature.active});
        if (!feature.valid) {
            complain(call, name, default_text.empty() ? "discarding" : "default used");
        }
    }
    if ((tap.features.supported & (orig | term)) == 0) {
        const FeatureModel feature = read_features(default_text, orig, term);
        tap.features.merge({feature.supported, feature.active});
    }
}

void ModuleModel::configure_report_node(const CallModel& call, TapModel& tap) {
    tap.report_node = Bytes(6);
    tap.flags &= ~REPORT_NODE;
    const std::string* value = variable(call, "quorvane_report_node");
    if (value == nullptr) {
        return;
    }
    const AddressModel address = read_address(*value);
    if (!address.valid) {
        complain(call, "quorvane_report_node", "ignored");
        return;
    }
    tap.flags |= REPORT_NODE;
    tap.report_node = Bytes(address.bytes, address.bytes + 4);
    tap.report_node.push_back(static_cast<std::uint8_t>(address.port >> 8));
    tap.report_node.push_back(static_cast<std::uint8_t>(address.port));
}

void ModuleModel::configure_reference(const CallModel& call, TapModel& tap) {
    const std::string* other = variable(call, "quorvane_call_id_ref");
    const std::string name = other == nullptr ? "sip_call_id" : *other;
    const std::string* value = variable(call, name);
    if (value == nullptr) {
        line(Level::ERROR, &call, "channel variable \"" + name + "\" is not set; ignoring");
        return;
    }
    tap.reference = *value;
}

}  // namespace qv::fuzz
