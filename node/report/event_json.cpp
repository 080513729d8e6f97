#include "node/report/event_json.h"

#include <algorithm>

#include "node/report/text.h"

namespace qv::node {

namespace {

using Json = nlohmann::json;

const char* name_of(media::PacketType type) {
    switch (type) {
        case media::PacketType::START:
            return "start";
        case media::PacketType::TERMINATE:
            return "terminate";
        case media::PacketType::DATA:
            return "data";
        case media::PacketType::CONTROL:
            return "control";
    }
    return "unknown";
}

}  // namespace

Json features_json(media::features16_t features) {
    return {{"supported", features.supported}, {"active", features.active}};
}

Json packet_json(const media::Packet& packet, Json fields) {
    fields.update({{"magic", media::PACKET_MAGIC},
                   {"packet_type", name_of(packet.type)},
                   {"protocol_version", media::PROTOCOL_VERSION},
                   {"leg_word", packet.leg_word},
                   {"send_time", packet.send_time}});
    return fields;
}

Json data_json(const media::Packet& packet) {
    return packet_json(
        packet,
        {{"leg", packet.leg()},
         {"call_side", name_of(packet.terminator_side() ? Side::TERMINATOR : Side::ORIGINATOR)},
         {"sequence_number", packet.sequence_number},
         {"sample_offset", packet.sample_offset},
         {"sample_count", packet.sample_count}});
}

Json start_json(const Call& call, const media::Packet& packet) {
    const StartFields& start = *call.start();
    const std::string report_node =
        address_text(packet.report_node_address, packet.report_node_port);
    return packet_json(packet,
                       {{"outbound", packet.outbound()},
                        {"report_node_given", packet.report_node_given()},
                        {"rule_id_given", packet.rule_id_given()},
                        {"created_time", packet.created_time},
                        {"configured_time", packet.configured_time},
                        {"configured_clock", packet.configured_clock},
                        // Written as text, because readers that store numbers as floating point
                        // would change it.
                        {"rule_id", std::to_string(packet.rule_id)},
                        {"report_node", report_node},
                        {"report_node_address", report_node.substr(0, report_node.find(':'))},
                        {"report_node_port", packet.report_node_port},
                        {"features", features_json(packet.features)},
                        // Includes its zero byte.
                        {"call_reference_length", start.call_reference.size() + 1},
                        {"call_reference", start.call_reference},
                        {"late", call.started_late()}});
}

Json activity_json(const Call& call, Side side, const Activity& activity) {
    return {{"call_side", name_of(side)},
            {"active", activity.active},
            {"position", activity.position},
            {"noticed", activity.noticed},
            {"sample_rate", call.side(side).sample_rate_at(activity.position)}};
}

Json sample_json(const Call& call, Side side, const FoundSample& sample) {
    // A sample may have begun before its side.
    const auto position = static_cast<std::uint64_t>(std::max<std::int64_t>(sample.position, 0));
    return {
        {"call_side", name_of(side)},  {"sample", sample.name},
        {"position", sample.position}, {"score", sample.score},
        {"noticed", sample.noticed},   {"sample_rate", call.side(side).sample_rate_at(position)}};
}

Json side_json(const CallSide& side) {
    const ReorderBuffer::Stats& stats = side.stats();
    return {{"leg", side.leg().value_or(0)},
            {"sample_rate", side.sample_rate()},
            {"sample_rate_assumed", side.rate_assumed()},
            {"rate_changes", side.rate_changes()},
            {"packets", stats.packets},
            {"bytes", side.bytes()},
            {"samples", stats.samples},
            {"silence_samples", stats.silence},
            {"unfilled_samples", stats.unfilled},
            {"pauses", side.pauses()},
            {"gaps", stats.gaps},
            {"lost_packets", stats.lost()},
            {"late_packets", stats.late},
            {"reordered_packets", stats.reordered},
            {"duplicated_packets", stats.duplicates},
            {"implausible_packets", stats.implausible},
            {"joined_at", side.joined_at()},
            {"level_db", side.level().level_db()},
            {"peak_db", side.level().peak_db()}};
}

Json file_json(const FileReport& file) {
    const FileFacts& facts = file.facts;
    return {{"path", file.path},
            {"error", file.error},
            {"dropped_samples", file.dropped_samples},
            {"sample_rate", facts.sample_rate},
            {"channels", facts.channels},
            {"samples", facts.samples},
            {"seconds", seconds_of(facts.samples, facts.sample_rate)},
            {"sha256", facts.sha256},
            {"resampled_from", facts.resampled_from},
            {"not_converted", facts.not_converted}};
}

Json end_json(const Call& call, EndReason reason) {
    Json sides = Json::object();
    for (const Side side : BOTH_SIDES) {
        if (call.side(side).begun()) {
            sides[name_of(side)] = side_json(call.side(side));
        }
    }
    Json files = Json::array();
    for (const FileReport& file : call.files()) {
        files.push_back(file_json(file));
    }
    return {{"reason", name_of(reason)},
            {"start_seen", call.start().has_value()},
            {"control_packets", call.control_packets()},
            {"foreign_packets", call.foreign_packets()},
            {"sides_may_be_apart", call.sides_may_be_apart()},
            {"sides", sides},
            {"files", files},
            {"sidecar", call.sidecar()}};
}

Json of_call(const Call& call, const Json& fields) {
    Json all = {{"call_key", key_text(call.call_key())},
                {"call_uuid", uuid_text(call.uuid())},
                {"source", address_text(call.source())}};
    all.update(fields);
    return all;
}

std::string event_text(const char* event, const Json& fields) {
    nlohmann::ordered_json line = {{"event", event}, {"time", utc_time()}};
    for (const auto& [name, value] : fields.items()) {
        line[name] = value;
    }
    // Texts of packets and names of files may contain invalid UTF-8.
    return line.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace qv::node
