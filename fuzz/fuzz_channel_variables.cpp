// Fuzzes the channel variables of a call, one "name=value" per line; the call is outbound if
// the first line is "outbound". The start packet, its destination and the log lines are compared
// with a model.
#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "fuzz/support/address_model.h"
#include "fuzz/support/feature_model.h"
#include "fuzz/support/module_host.h"
#include "fuzz/support/number_model.h"
#include "fuzz/support/require.h"

namespace {

using qv::fuzz::Datagram;
using qv::fuzz::ModuleHost;
using Bytes = std::vector<std::uint8_t>;
using Texts = std::vector<std::string>;
using Variables = std::map<std::string, std::string>;

constexpr char UUID[] = "00010203-0405-0607-0809-0a0b0c0d0e0f";
constexpr char ID[] = "17997560114553240405";
constexpr char DEFAULT_AUDIO_ACTIVITY[] = "term::true";

struct Input {
    bool outbound = false;
    Variables variables;
};

Input read(const std::uint8_t* data, std::size_t size) {
    Input input;
    std::string line;
    for (const char c : std::string(data, data + size) + "\n") {
        if (c != '\n') {
            line += c == '\0' ? ' ' : c;
            continue;
        }
        const std::size_t sign = line.find('=');
        if (sign != std::string::npos) {
            input.variables[line.substr(0, sign)] = line.substr(sign + 1);
        }
        input.outbound = input.outbound || line == "outbound";
        line.clear();
    }
    return input;
}

// The model: the expected results of a call with these variables.
class Model {
  public:
    explicit Model(const Input& input) : outbound_(input.outbound) {
        set("uuid", UUID);
        set("channel_name", std::string("embedded/") + UUID);
        set("direction", outbound_ ? "outbound" : "inbound");
        for (const auto& [name, value] : input.variables) {
            set(name, value);
        }
        lines = {"application execution started", std::string("app context added, id: ") + ID};
        configured_ = configure();
        lines.push_back(configured_ ? "media transfer started"
                                    : "failed to configure application context");
        if (configured_) {
            lines.push_back("new media bug added");
        }
    }

    bool configured() const { return configured_; }
    const std::string& destination() const { return destination_; }

    // The packet without the times.
    Bytes start_packet() const {
        Bytes packet{0xFF, 0x00, 0xFF, 0x00, 0x81, 0x01};
        add(packet,
            (outbound_ ? 1u : 0u) | (report_node_given_ ? 0x4000u : 0u) |
                (rule_id_given_ ? 0x8000u : 0u),
            2);
        add(packet, 0xF9C42D91ABAF3B55, 8);
        for (std::uint8_t i = 0; i < 16; ++i) {
            packet.push_back(i);
        }
        packet.resize(64);
        add(packet, rule_id_, 8);
        packet.insert(packet.end(), report_node_, report_node_ + 6);
        add(packet, supported_, 1);
        add(packet, active_, 1);
        add(packet, reference_.size() + 1, 2);
        packet.insert(packet.end(), reference_.begin(), reference_.end());
        packet.push_back(0);
        return packet;
    }

    Texts lines;

  private:
    static void add(Bytes& packet, std::uint64_t value, int size) {
        for (int i = 0; i < size; ++i) {
            packet.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
        }
    }

    static std::string lower_case(std::string text) {
        for (char& c : text) {
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        }
        return text;
    }

    // Names of variables are compared without regard to case.
    void set(const std::string& name, const std::string& value) {
        variables_[lower_case(name)] = value;
    }
    const std::string* get(const std::string& name) const {
        const auto found = variables_.find(lower_case(name));
        return name.empty() || found == variables_.end() ? nullptr : &found->second;
    }

    void complain(const std::string& name, const std::string& consequence) {
        lines.push_back("failed to parse channel variable \"" + name + "\": " + *get(name) + "; " +
                        consequence);
    }

    bool configure() {
        if (const std::string* node = get("quorvane_media_node")) {
            const qv::fuzz::AddressModel address = qv::fuzz::read_address(*node);
            if (!address.valid) {
                complain("quorvane_media_node", "discarding!");
                return false;
            }
            destination_ = text_of(address);
        }
        record();
        rule_id();
        if (rule_id_given_) {
            feature("quorvane_detection", 0x10, 0x20, "");
            feature("quorvane_audio_activity", 0x04, 0x08, DEFAULT_AUDIO_ACTIVITY);
        }
        report_node();
        reference();
        return true;
    }

    static std::string text_of(const qv::fuzz::AddressModel& address) {
        std::string text;
        for (const unsigned char byte : address.bytes) {
            text += (text.empty() ? "" : ".") + std::to_string(byte);
        }
        return text + ":" + std::to_string(address.port);
    }

    // A sign, then digits and dots; the digits before the first dot are not all zero.
    static bool is_number_but_zero(const std::string& text) {
        const bool is_signed = !text.empty() && (text[0] == '-' || text[0] == '+');
        const std::string number = text.substr(is_signed ? 1 : 0);
        const std::string whole = number.substr(0, number.find('.'));
        return number.find_first_not_of("0123456789.") == std::string::npos &&
               whole.find_first_not_of('0') != std::string::npos;
    }

    void record() {
        const std::string* value = get("quorvane_record");
        if (value == nullptr) {
            return;
        }
        bool on = is_number_but_zero(*value);
        for (const char* word : {"yes", "on", "true", "t", "enabled", "active", "allow"}) {
            on = on || lower_case(*value) == word;
        }
        supported_ = active_ = on ? 0xC0 : 0;
    }

    void rule_id() {
        const std::string* value = get("quorvane_rule_id");
        if (value == nullptr) {
            return;
        }
        const qv::fuzz::NumberModel number = qv::fuzz::read_number(*value);
        rule_id_given_ = number.whole && !number.overflow;
        rule_id_ = number.digits && !number.overflow ? number.value() : 0;
        if (!rule_id_given_) {
            complain("quorvane_rule_id", "ignored!");
        }
    }

    bool apply(const std::string& text, unsigned orig, unsigned term) {
        const qv::fuzz::FeatureModel feature = qv::fuzz::read_features(text, orig, term);
        supported_ |= feature.supported;
        active_ = (active_ & ~feature.supported) | feature.active;
        return feature.valid;
    }

    void feature(const std::string& name, unsigned orig, unsigned term,
                 const std::string& default_text) {
        const std::string* value = get(name);
        if (value != nullptr && !apply(*value, orig, term)) {
            complain(name, default_text.empty() ? "discarding!" : "default used!");
        }
        if ((supported_ & (orig | term)) == 0) {
            apply(default_text, orig, term);
        }
    }

    void report_node() {
        const std::string* value = get("quorvane_report_node");
        if (value == nullptr) {
            return;
        }
        const qv::fuzz::AddressModel address = qv::fuzz::read_address(*value);
        report_node_given_ = address.valid;
        if (!address.valid) {
            complain("quorvane_report_node", "ignored!");
            return;
        }
        std::memcpy(report_node_, address.bytes, 4);
        report_node_[4] = static_cast<std::uint8_t>(address.port >> 8);
        report_node_[5] = static_cast<std::uint8_t>(address.port);
    }

    void reference() {
        const std::string* elsewhere = get("quorvane_call_id_ref");
        const std::string name = elsewhere == nullptr ? "sip_call_id" : *elsewhere;
        const std::string* value = get(name);
        if (value == nullptr) {
            lines.push_back("channel variable \"" + name + "\" is not set; ignoring");
            return;
        }
        reference_ = *value;
    }

    const bool outbound_;
    Variables variables_;
    bool configured_ = false;
    std::string destination_ = "127.0.0.1:5000";
    unsigned supported_ = 0;
    unsigned active_ = 0;
    bool rule_id_given_ = false;
    std::uint64_t rule_id_ = 0;
    bool report_node_given_ = false;
    std::uint8_t report_node_[6] = {};
    std::string reference_;
};

void check_start(const Model& model, std::vector<Datagram> datagrams) {
    qv::fuzz::require_equal("number of datagrams", datagrams.size(), 1u);
    Bytes& packet = datagrams[0].bytes;
    qv::fuzz::require(packet.size() >= 64, "the start packet is long enough");
    std::fill(packet.begin() + 32, packet.begin() + 64, std::uint8_t{0});
    qv::fuzz::require_equal(
        "start packet", qv::fuzz::as_text(packet.data(), packet.size()),
        qv::fuzz::as_text(model.start_packet().data(), model.start_packet().size()));
    qv::fuzz::require_equal("destination", datagrams[0].destination(), model.destination());
}

// One frame per direction, then the end of the call.
void check_rest(ModuleHost& module, qv::host::Call& call, const Model& model, bool outbound) {
    call.feed(qv::host::Direction::READ, "\1\2", 2);
    call.feed(qv::host::Direction::WRITE, "\3\4", 2);
    call.hangup();
    const std::vector<Datagram> datagrams = module.take_datagrams();
    qv::fuzz::require_equal("number of datagrams", datagrams.size(), 3u);
    for (const Datagram& datagram : datagrams) {
        qv::fuzz::require_equal("destination", datagram.destination(), model.destination());
    }
    // The read leg is the terminator's on an outbound call, the write leg otherwise.
    qv::fuzz::require_equal("side of the read leg", datagrams[0].bytes[6], outbound ? 1 : 0);
    qv::fuzz::require_equal("side of the write leg", datagrams[1].bytes[6], outbound ? 0 : 1);
    qv::fuzz::require_equal("read leg", datagrams[0].bytes[7], 0);
    qv::fuzz::require_equal("write leg", datagrams[1].bytes[7], 0x80);
    qv::fuzz::require_equal("last packet", datagrams[2].bytes[4], 0x82);
    qv::fuzz::require_equal("its length", datagrams[2].bytes.size(), 40u);
    qv::fuzz::require_equal("last lines", module.take_lines(),
                            Texts{"media transfer terminated", "transfered 2/2 bytes of media"});
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const Input input = read(data, size);
    const Model model(input);
    ModuleHost& module = ModuleHost::instance();
    qv::host::CallOptions options;
    options.uuid = UUID;
    options.variables = input.variables;
    options.direction =
        input.outbound ? SWITCH_CALL_DIRECTION_OUTBOUND : SWITCH_CALL_DIRECTION_INBOUND;
    const auto call = module.host().start_call(options);
    call->execute("quorvane", "not read");
    qv::fuzz::require_equal("log lines", module.take_lines(), model.lines);
    if (model.configured()) {
        check_start(model, module.take_datagrams());
        check_rest(module, *call, model, input.outbound);
    }
    call->hangup();
    module.settle();
    const Texts leak{std::string(UUID) +
                     ": found configured app context on channel destroy: "
                     "possible memory leak or logic error!"};
    qv::fuzz::require_equal("lines at the end", module.take_lines(),
                            model.configured() ? Texts{} : leak);
    qv::fuzz::require_equal("datagrams at the end", module.take_datagrams().size(), 0u);
    module.require_clean();
    return 0;
}
