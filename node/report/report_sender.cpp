#include "node/report/report_sender.h"

#include <sys/socket.h>

#include <array>
#include <cstring>
#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>
#include <utility>

#include "node/calls/call.h"
#include "node/report/event_json.h"
#include "tools/utf8.h"

namespace qv::node {

namespace {

using Json = nlohmann::json;

sockaddr_in report_node_of(const media::Packet& packet) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(packet.report_node_port);
    std::memcpy(&address.sin_addr, packet.report_node_address, sizeof address.sin_addr);
    return address;
}

// The quotation marks are not counted.
std::size_t json_size(std::string_view text) {
    return Json(text).dump(-1, ' ', false, Json::error_handler_t::replace).size() - 2;
}

// Returns the beginning of the text, in whole characters, that takes at most `room` bytes in JSON.
std::string beginning_of(std::string_view text, std::size_t room) {
    std::size_t size = 0;
    while (size < text.size()) {
        const std::size_t next = tools::first_character(text.substr(size)).size;
        const std::size_t taken = json_size(text.substr(size, next));
        if (taken > room) {
            break;
        }
        room -= taken;
        size += next;
    }
    return std::string(text.substr(0, size));
}

void cut_text(const char* event, Json& fields, const char* name) {
    const std::string text = std::exchange(fields[name], "").get<std::string>();
    const std::size_t others = event_text(event, fields).size();
    fields[name] =
        beginning_of(text, ReportSender::LONGEST - std::min(others, ReportSender::LONGEST));
}

}  // namespace

std::string report_text(const char* event, Json fields) {
    constexpr std::array<const char*, 4> may_go = {"files", "sides", "call_reference", "sample"};
    std::string text = event_text(event, fields);
    for (const char* name : may_go) {
        if (text.size() <= ReportSender::LONGEST) {
            break;
        }
        if (!fields.contains(name)) {
            continue;
        }
        fields["shortened"].push_back(name);
        if (fields[name].is_string()) {
            cut_text(event, fields, name);
        } else {
            fields.erase(name);
        }
        text = event_text(event, fields);
    }
    return text;
}

// Sends nothing before the start packet has named a report node.
class ReportSender::ReportedCall : public CallListener {
  public:
    explicit ReportedCall(ReportSender& sender) : sender_(sender) {}

    void started(const Call& call, const media::Packet& packet) override {
        if (packet.report_node_given()) {
            to_ = report_node_of(packet);
            report("start", call, start_json(call, packet), sender_.allows());
        }
    }

    void activity(const Call& call, Side side, const Activity& activity) override {
        if (to_.has_value()) {
            report("activity", call, activity_json(call, side, activity), allows_detection());
        }
    }

    void sample_found(const Call& call, Side side, const FoundSample& sample) override {
        if (to_.has_value()) {
            report("sample", call, sample_json(call, side, sample), allows_detection());
        }
    }

    void ended(const Call& call, EndReason reason) override {
        if (to_.has_value()) {
            Json fields = end_json(call, reason);
            if (left_out_ != 0) {
                fields["left_out"] = left_out_;
            }
            report("end", call, fields, sender_.allows());
        }
    }

  private:
    bool allows_detection() {
        const bool allowed = limit_.allows(sender_.clock_()) && sender_.allows(AT_ONCE / 2);
        if (allowed) {
            limit_.count();
        }
        return allowed;
    }

    void report(const char* event, const Call& call, const Json& fields, bool allowed) {
        if (!allowed) {
            ++left_out_;
            sender_.leave_out();
            return;
        }
        sender_.send(*to_, report_text(event, of_call(call, fields)));
    }

    ReportSender& sender_;
    RateLimit limit_{CALL_RATE, CALL_AT_ONCE};  // For detections.
    std::uint64_t left_out_ = 0;
    std::optional<sockaddr_in> to_;
};

ReportSender::ReportSender(std::vector<tools::Network> networks, std::function<Micros()> clock)
    : networks_(std::move(networks)), clock_(std::move(clock)) {}

std::unique_ptr<CallListener> ReportSender::begin_call(Call& /*call*/) {
    return std::make_unique<ReportedCall>(*this);
}

ReportFigures ReportSender::figures() const {
    const LockGuard lock(mutex_);
    return figures_;
}

bool ReportSender::allows(double kept) {
    const LockGuard lock(mutex_);
    return limit_.allows(clock_(), kept);
}

void ReportSender::leave_out() {
    const LockGuard lock(mutex_);
    ++figures_.too_many;
}

bool ReportSender::may_send(const sockaddr_in& to) {
    const LockGuard lock(mutex_);
    if (!tools::contain(networks_, to)) {
        ++figures_.not_allowed;
        figures_.latest_not_allowed = to;
        return false;
    }
    limit_.count();
    return true;
}

void ReportSender::send(const sockaddr_in& to, const std::string& text) {
    if (!may_send(to)) {
        return;
    }
    const ssize_t sent =
        ::sendto(socket_.descriptor(), text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                 reinterpret_cast<const sockaddr*>(&to), sizeof to);
    const LockGuard lock(mutex_);
    ++(sent == static_cast<ssize_t>(text.size()) ? figures_.sent : figures_.failed);
}

}  // namespace qv::node
