// Events as JSON objects, for everything that writes or sends them. docs/node.md lists the events
// and their fields. No state; any thread that may use the call may call these functions.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "node/calls/call.h"
#include "node/calls/call_listener.h"
#include "quorvane/media_packet.h"

namespace qv::node {

nlohmann::json features_json(media::features16_t features);

// Returns these fields together with those that every packet has.
nlohmann::json packet_json(const media::Packet& packet, nlohmann::json fields);
nlohmann::json data_json(const media::Packet& packet);

// Return the fields of the event of that name, or of an entry in it.
nlohmann::json start_json(const Call& call, const media::Packet& packet);
nlohmann::json activity_json(const Call& call, Side side, const Activity& activity);
nlohmann::json sample_json(const Call& call, Side side, const FoundSample& sample);
nlohmann::json side_json(const CallSide& side);
nlohmann::json file_json(const FileReport& file);
nlohmann::json end_json(const Call& call, EndReason reason);

// Returns these fields together with those that identify the call.
nlohmann::json of_call(const Call& call, const nlohmann::json& fields);

// Returns the event on one line, without a line end. Bytes that are not UTF-8 are replaced.
std::string event_text(const char* event, const nlohmann::json& fields);

}  // namespace qv::node
