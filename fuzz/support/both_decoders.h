// Holds the decoder in C against the one in C++: both must find the same in every datagram.
//
// The functions keep no state; any thread may call them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "quorvane/media_packet.h"
#include "quorvane/media_packet_c.h"

namespace qv::fuzz {

// The name of the first field that differs; empty if none does. Pointers have to be the same, too.
inline std::string different_field(const quorvane_packet& c, const media::Packet& cpp) {
    const struct {
        const char* name;
        bool same;
    } fields[] = {
        {"type", static_cast<unsigned>(c.type) == static_cast<unsigned>(cpp.type)},
        {"leg_word", c.leg_word == cpp.leg_word},
        {"call_key", c.call_key == cpp.call_key},
        {"call_uuid", c.call_uuid == cpp.call_uuid},
        {"send_time", c.send_time == cpp.send_time},
        {"created_time", c.created_time == cpp.created_time},
        {"configured_time", c.configured_time == cpp.configured_time},
        {"configured_clock", c.configured_clock == cpp.configured_clock},
        {"rule_id", c.rule_id == cpp.rule_id},
        {"report_node_address", c.report_node_address == cpp.report_node_address},
        {"report_node_port", c.report_node_port == cpp.report_node_port},
        {"call_reference", c.call_reference == cpp.call_reference},
        {"call_reference_length", c.call_reference_length == cpp.call_reference_length},
        {"features.supported", c.features.supported == cpp.features.supported},
        {"features.active", c.features.active == cpp.features.active},
        {"sequence_number", c.sequence_number == cpp.sequence_number},
        {"sample_offset", c.sample_offset == cpp.sample_offset},
        {"sample_count", c.sample_count == cpp.sample_count},
        {"audio", c.audio == cpp.audio},
        {"outbound", quorvane_outbound(&c) == cpp.outbound()},
        {"report_node_given", quorvane_report_node_given(&c) == cpp.report_node_given()},
        {"rule_id_given", quorvane_rule_id_given(&c) == cpp.rule_id_given()},
        {"leg", quorvane_leg(&c) == cpp.leg()},
        {"terminator_side", quorvane_terminator_side(&c) == cpp.terminator_side()},
    };
    for (const auto& field : fields) {
        if (!field.same) {
            return field.name;
        }
    }
    for (std::size_t i = 0; i < cpp.sample_count; ++i) {
        if (static_cast<std::uint16_t>(quorvane_sample(&c, i)) !=
            media::get_u16(cpp.audio + 2 * i)) {
            return "sample " + std::to_string(i);
        }
    }
    return "";
}

// What the decoders find differently in the datagram of `size` bytes at `data`; empty if nothing.
inline std::string decoders_differ_in(const unsigned char* data, std::size_t size) {
    quorvane_packet c;
    std::memset(&c, 0xEE, sizeof(c));
    media::Packet cpp;
    const quorvane_result c_result = quorvane_decode(data, size, &c);
    const media::DecodeResult cpp_result = media::decode_packet(data, size, cpp);
    if (static_cast<unsigned>(c_result) != static_cast<unsigned>(cpp_result)) {
        return std::string("the result: ") + quorvane_describe(c_result) + " in C, " +
               media::describe(cpp_result) + " in C++";
    }
    if (c_result == QUORVANE_OK) {
        return different_field(c, cpp);
    }
    // In C, a refused datagram sets all fields to zero.
    quorvane_packet zero;
    std::memset(&zero, 0, sizeof(zero));
    return std::memcmp(&c, &zero, sizeof(zero)) == 0 ? "" : "a field that is not zero";
}

}  // namespace qv::fuzz
