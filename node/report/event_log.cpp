#include "node/report/event_log.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "node/calls/call.h"
#include "node/report/text.h"

namespace qv::node {

namespace {

using Json = nlohmann::json;

Json features_json(media::features16_t features) {
    return {{"supported", features.supported}, {"active", features.active}};
}

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

// The fields that every packet has; write() adds those that name the call.
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

Json side_json(const CallSide& side) {
    const ReorderBuffer::Stats& stats = side.stats();
    return {{"leg", side.leg().value_or(0)},
            {"sample_rate", side.sample_rate()},
            {"sample_rate_assumed", side.rate_assumed()},
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

}  // namespace

void EventLog::listening(const std::string& address) {
    write("listening", {{"address", address}});
}

void EventLog::malformed(media::DecodeResult reason, std::size_t size, const std::string& source) {
    write("malformed", {{"reason", describe(reason)}, {"size", size}, {"source", source}});
}

void EventLog::not_allowed(std::uint64_t packets, const sockaddr_in& source) {
    write("not_allowed", {{"packets", packets}, {"source", address_text(source)}});
}

void EventLog::overflow(std::uint64_t packets) {
    write("overflow", {{"packets", packets}});
}

void EventLog::left_behind(const LeftoverFile& file) {
    write("leftover", {{"path", file.path},
                       {"sample_rate", file.format.sample_rate},
                       {"channels", file.format.channels},
                       {"samples", file.frames},
                       {"recovered_samples", file.recovered},
                       {"error", file.error}});
}

void EventLog::started(const Call& call, const media::Packet& packet) {
    const StartFields& start = *call.start();
    const std::string report_node =
        address_text(packet.report_node_address, packet.report_node_port);
    write("start", call,
          packet_json(
              packet,
              {{"outbound", packet.outbound()},
               {"report_node_given", packet.report_node_given()},
               {"rule_id_given", packet.rule_id_given()},
               {"created_time", packet.created_time},
               {"configured_time", packet.configured_time},
               {"configured_clock", packet.configured_clock},
               // As text: readers that keep numbers as floating point would change it.
               {"rule_id", std::to_string(packet.rule_id)},
               {"report_node", report_node},
               {"report_node_address", report_node.substr(0, report_node.find(':'))},
               {"report_node_port", packet.report_node_port},
               {"features", features_json(packet.features)},
               {"call_reference_length", start.call_reference.size() + 1},  // With its zero byte.
               {"call_reference", start.call_reference},
               {"late", call.started_late()}}));
}

void EventLog::features_changed(const Call& call, const media::Packet& packet) {
    write("control", call,
          packet_json(packet, {{"features", features_json(packet.features)},
                               {"features_in_effect", features_json(call.features())}}));
}

void EventLog::terminated(const Call& call, const media::Packet& packet) {
    write("terminate", call, packet_json(packet, Json::object()));
}

void EventLog::terminate_refused(const Call& call, const media::Packet& packet) {
    write("terminate_refused", call, packet_json(packet, Json::object()));
}

// The first one; further ones are counted until the end.
void EventLog::foreign(const Call& call, const sockaddr_in& source) {
    if (call.foreign_packets() == 1) {
        write("foreign", call, {{"foreign_source", address_text(source)}});
    }
}

void EventLog::data(const Call& call, const media::Packet& packet) {
    if (every_packet_) {
        write("data", call, data_json(packet));
    }
}

void EventLog::pause(const Call& call, Side side, const Pause& pause) {
    write("pause", call,
          {{"call_side", name_of(side)},
           {"leg", call.side(side).leg().value_or(0)},
           {"samples", pause.samples},
           {"position", pause.position}});
}

void EventLog::gap(const Call& call, Side side, const Gap& gap) {
    write("gap", call,
          {{"call_side", name_of(side)},
           {"leg", call.side(side).leg().value_or(0)},
           {"sequence_number", gap.sequence_number},
           {"lost_packets", gap.lost_packets},
           {"sample_offset", gap.sample_offset},
           {"missing_samples", gap.missing_samples},
           {"filled_samples", gap.filled_samples},
           {"position", gap.position}});
}

void EventLog::late(const Call& call, Side, const media::Packet& packet) {
    write("late", call, data_json(packet));
}

void EventLog::running_changed(const Call& call, Side side, std::uint64_t position) {
    const Running running = call.side(side).running();
    write("running", call,
          {{"call_side", name_of(side)},
           {"position", position},
           {"audio_activity", running.activity},
           {"sample_detection", running.detection},
           {"recording", running.recording}});
}

void EventLog::activity(const Call& call, Side side, const Activity& activity) {
    write("activity", call,
          {{"call_side", name_of(side)},
           {"active", activity.active},
           {"position", activity.position},
           {"noticed", activity.noticed},
           {"sample_rate", call.side(side).sample_rate()}});
}

void EventLog::sample_found(const Call& call, Side side, const FoundSample& sample) {
    write("sample", call,
          {{"call_side", name_of(side)},
           {"sample", sample.name},
           {"position", sample.position},
           {"score", sample.score},
           {"noticed", sample.noticed},
           {"sample_rate", call.side(side).sample_rate()}});
}

void EventLog::skipped(const Call& call, Side side, std::uint64_t samples) {
    write("analysis_skipped", call, {{"call_side", name_of(side)}, {"samples", samples}});
}

void EventLog::file_failed(const Call& call, const FileReport& file) {
    write("file_error", call, {{"path", file.path}, {"error", file.error}});
}

void EventLog::ended(const Call& call, EndReason reason) {
    Json sides = Json::object();
    for (const Side side : BOTH_SIDES) {
        if (call.side(side).begun()) {
            sides[name_of(side)] = side_json(call.side(side));
        }
    }
    Json files = Json::array();
    for (const FileReport& file : call.files()) {
        files.push_back({{"path", file.path}, {"error", file.error}});
    }
    write("end", call,
          {{"reason", name_of(reason)},
           {"start_seen", call.start().has_value()},
           {"control_packets", call.control_packets()},
           {"foreign_packets", call.foreign_packets()},
           {"sides_may_be_apart", call.sides_may_be_apart()},
           {"sides", sides},
           {"files", files}});
}

bool EventLog::flush() {
    if (!write_out()) {
        return false;
    }
    report_loss();
    return write_out();
}

void EventLog::report_loss() {
    const std::uint64_t lost = dropped_ - std::exchange(reported_, dropped_);
    if (lost != 0) {
        write("events_lost", {{"events", lost}});
    }
}

bool EventLog::write_out() {
    const std::size_t written = sink_(waiting_.data(), waiting_.size());
    failing_ = written < waiting_.size();
    const std::size_t last = written > 0 ? waiting_.rfind('\n', written - 1) : std::string::npos;
    waiting_.erase(0, last == std::string::npos ? 0 : last + 1);
    return !failing_;
}

std::uint64_t EventLog::waiting() const {
    return static_cast<std::uint64_t>(std::count(waiting_.begin(), waiting_.end(), '\n'));
}

void EventLog::write(const char* event, const Call& call, const Json& fields) {
    Json all = {{"call_key", key_text(call.call_key())},
                {"call_uuid", uuid_text(call.uuid())},
                {"source", address_text(call.source())}};
    all.update(fields);
    write(event, all);
}

void EventLog::write(const char* event, const Json& fields) {
    if (failing_ && waiting_.size() >= MOST_WAITING) {
        ++dropped_;
        return;
    }
    report_loss();
    nlohmann::ordered_json line = {{"event", event}, {"time", utc_time()}};
    for (const auto& [name, value] : fields.items()) {
        line[name] = value;
    }
    // A call reference need not be valid UTF-8.
    waiting_ += line.dump(-1, ' ', false, Json::error_handler_t::replace) + '\n';
    if (!failing_ && waiting_.size() >= BLOCK) {
        write_out();
    }
}

}  // namespace qv::node
