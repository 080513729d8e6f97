// Parses datagrams with the generated parser in C++ and prints their fields.
//
// Reads lines of hexadecimal digits, one datagram per line, from the standard
// input; an empty line is an empty datagram. Prints a line of JSON for each: an
// object of the fields as the parser has them, or null for a datagram that does
// not parse. Bytes are printed as hexadecimal digits.
#include <cstdio>
#include <exception>
#include <iostream>
#include <sstream>
#include <string>

#include "quorvane.h"

namespace {

std::string bytes_of(const std::string& digits) {
    std::string bytes;
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
        bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    }
    return bytes;
}

std::string hex(const std::string& bytes) {
    std::string text;
    for (const char byte : bytes) {
        char pair[3];
        std::snprintf(pair, sizeof(pair), "%02x", static_cast<unsigned char>(byte));
        text += pair;
    }
    return '"' + text + '"';
}

template <typename T>
void field(std::ostream& out, const char* name, const T& value) {
    out << ", \"" << name << "\": " << value;
}

void features(std::ostream& out, quorvane_t::features_t& of) {
    out << ", \"features\": {\"supported\": " << +of.supported() << ", \"active\": " << +of.active()
        << "}, \"running\": [" << of.audio_activity_originator() << ", "
        << of.audio_activity_terminator() << ", " << of.sample_detection_originator() << ", "
        << of.sample_detection_terminator() << ", " << of.recording_originator() << ", "
        << of.recording_terminator() << "]";
}

void start(std::ostream& out, quorvane_t::start_body_t& body) {
    field(out, "created_time", body.created_time());
    field(out, "configured_time", body.configured_time());
    field(out, "configured_clock", body.configured_clock());
    field(out, "rule_id", body.rule_id());
    field(out, "report_node_address", body.report_node_address());
    field(out, "report_node_port", body.report_node_port());
    features(out, *body.features());
    field(out, "call_reference_length", body.call_reference_length());
    field(out, "call_reference", hex(body.call_reference()));
    out << ", \"flags\": [" << body.is_outbound() << ", " << body.has_report_node() << ", "
        << body.has_rule_id() << "]";
}

void data(std::ostream& out, quorvane_t::data_body_t& body) {
    field(out, "sequence_number", body.sequence_number());
    field(out, "sample_offset", body.sample_offset());
    field(out, "sample_count", body.sample_count());
    out << ", \"audio\": [";
    for (std::size_t i = 0; i < body.audio()->size(); ++i) {
        out << (i == 0 ? "" : ", ") << (*body.audio())[i];
    }
    out << "], \"flags\": [" << body.is_terminator() << ", " << body.is_write_leg() << "]";
}

std::string fields_of(const std::string& datagram) {
    std::ostringstream out;
    try {
        std::istringstream stream(datagram);
#ifdef KAITAI_REAL_RUNTIME
        kaitai::kstream io(&stream);
#else
        kaitai::kstream io(datagram);
#endif
        quorvane_t packet(&io);
        out << "{\"magic\": " << packet.magic();
        field(out, "packet_type", static_cast<int>(packet.packet_type()));
        field(out, "protocol_version", +packet.protocol_version());
        field(out, "leg_word", packet.leg_word());
        field(out, "call_key", packet.call_key());
        field(out, "call_uuid", hex(packet.call_uuid()));
        field(out, "send_time", packet.send_time());
        switch (packet.packet_type()) {
            case quorvane_t::PACKET_TYPE_START:
                start(out, static_cast<quorvane_t::start_body_t&>(*packet.body()));
                break;
            case quorvane_t::PACKET_TYPE_DATA:
                data(out, static_cast<quorvane_t::data_body_t&>(*packet.body()));
                break;
            case quorvane_t::PACKET_TYPE_CONTROL:
                features(out, *static_cast<quorvane_t::control_body_t&>(*packet.body()).features());
                break;
            case quorvane_t::PACKET_TYPE_TERMINATE:
                break;
        }
        out << "}";
    } catch (const std::exception&) {
        return "null";
    }
    return out.str();
}

}  // namespace

int main() {
    std::string line;
    while (std::getline(std::cin, line)) {
        std::cout << fields_of(bytes_of(line)) << "\n";
    }
}
