#include "node/report/event_log.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "node/calls/call.h"
#include "node/report/event_json.h"
#include "node/report/text.h"

namespace qv::node {

namespace {

using Json = nlohmann::json;

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

void EventLog::audio_dropped(std::uint64_t bytes) {
    write("audio_dropped", {{"bytes", bytes}});
}

void EventLog::nats_lost(std::uint64_t events, std::uint64_t chunks) {
    write("nats_lost", {{"events", events}, {"audio_chunks", chunks}});
}

void EventLog::listen(const Uuid& call, const std::string& sides, const std::string& from,
                      std::optional<double> seconds) {
    Json fields = {{"call_uuid", uuid_text(call)},
                   {"sides", sides},
                   {"from", from},
                   {"ended", seconds.has_value()},
                   {"seconds", seconds.value_or(0)}};
    write("listen", fields, uuid_text(call));
}

void EventLog::left_behind(const LeftoverFile& file) {
    write("leftover", {{"path", file.path},
                       {"sample_rate", file.format.sample_rate},
                       {"channels", file.format.channels},
                       {"samples", file.frames},
                       {"recovered_samples", file.recovered},
                       {"error", file.error}});
}

void EventLog::removed(const RemovedCall& call) {
    write("removed", {{"name", call.stem},
                      {"files", call.files},
                      {"bytes", call.bytes},
                      {"reason", call.by_age ? "age" : "size"},
                      {"error", call.error}});
}

void EventLog::started(const Call& call, const media::Packet& packet) {
    write("start", call, start_json(call, packet));
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

// Only the first one is reported at once. The end of the call reports the number.
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

void EventLog::rate_changed(const Call& call, Side side, const RateChange& change) {
    write("rate_change", call,
          {{"call_side", name_of(side)},
           {"leg", call.side(side).leg().value_or(0)},
           {"position", change.position},
           {"old_sample_rate", change.old_rate},
           {"new_sample_rate", change.new_rate}});
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
    write("activity", call, activity_json(call, side, activity));
}

void EventLog::sample_found(const Call& call, Side side, const FoundSample& sample) {
    write("sample", call, sample_json(call, side, sample));
}

void EventLog::skipped(const Call& call, Side side, std::uint64_t samples) {
    write("analysis_skipped", call, {{"call_side", name_of(side)}, {"samples", samples}});
}

void EventLog::file_failed(const Call& call, const FileReport& file) {
    write("file_error", call, {{"path", file.path}, {"error", file.error}});
}

void EventLog::ended(const Call& call, EndReason reason) {
    write("end", call, end_json(call, reason));
}

bool EventLog::flush() {
    const LockGuard lock(mutex_);
    if (!write_out()) {
        return false;
    }
    report_loss();
    return write_out();
}

void EventLog::report_loss() {
    const std::uint64_t lost = dropped_ - std::exchange(reported_, dropped_);
    if (lost != 0) {
        add(event_text("events_lost", {{"events", lost}}));
    }
}

bool EventLog::write_out() {
    const std::size_t written = sink_(waiting_.data(), waiting_.size());
    failing_ = written < waiting_.size();
    const std::size_t last = written > 0 ? waiting_.rfind('\n', written - 1) : std::string::npos;
    waiting_.erase(0, last == std::string::npos ? 0 : last + 1);
    return !failing_;
}

std::uint64_t EventLog::dropped() const {
    const LockGuard lock(mutex_);
    return dropped_;
}

std::uint64_t EventLog::waiting() const {
    const LockGuard lock(mutex_);
    return static_cast<std::uint64_t>(std::count(waiting_.begin(), waiting_.end(), '\n'));
}

void EventLog::write(const char* event, const Call& call, const Json& fields) {
    write(event, of_call(call, fields), uuid_text(call.uuid()));
}

void EventLog::write(const char* event, const Json& fields, const std::string& call) {
    const std::string line = event_text(event, fields);
    if (copy_) {
        copy_(event, call, line);
    }
    const LockGuard lock(mutex_);
    if (failing_ && waiting_.size() >= MOST_WAITING) {
        ++dropped_;
        return;
    }
    report_loss();
    add(line);
}

void EventLog::add(const std::string& line) {
    waiting_ += line + '\n';
    if (!failing_ && waiting_.size() >= BLOCK) {
        write_out();
    }
}

}  // namespace qv::node
