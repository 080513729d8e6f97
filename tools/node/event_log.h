// Writes what happens as JSON lines, one object a line, for programs. docs/node.md lists
// the events and their fields; fields of packets have the names of docs/protocol.md.
//
// A full disk is told once through error() and ends the log, not the program. Belongs to
// one thread.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <ostream>
#include <string>

#include "tools/node/call_listener.h"

namespace qv::tools::node {

class EventLog : public CallListener {
  public:
    // `out` must outlive the log. With `every_packet` data packets are events, too.
    EventLog(std::ostream& out, bool every_packet) : out_(out), every_packet_(every_packet) {}

    void listening(const std::string& address);
    void malformed(media::DecodeResult reason, std::size_t size);
    void overflow(std::uint64_t packets);

    void started(const Call& call, const media::Packet& packet) override;
    void features_changed(const Call& call, const media::Packet& packet) override;
    void terminated(const Call& call, const media::Packet& packet) override;
    void data(const Call& call, const media::Packet& packet) override;
    void pause(const Call& call, Side side, const Pause& pause) override;
    void gap(const Call& call, Side side, const Gap& gap) override;
    void late(const Call& call, Side side, const media::Packet& packet) override;
    void file_failed(const Call& call, const FileReport& file) override;
    void ended(const Call& call, EndReason reason) override;

    // Lets readers see what has been written; false when writing has failed.
    bool flush();

  private:
    void write(const char* event, const nlohmann::json& fields);
    void write(const char* event, const Call& call, const nlohmann::json& fields);

    std::ostream& out_;
    bool every_packet_;
};

}  // namespace qv::tools::node
