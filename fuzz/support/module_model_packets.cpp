// The packets of the model, and what becomes of them.
#include <cerrno>
#include <cstring>

#include "fuzz/support/module_model.h"
#include "fuzz/support/require.h"

namespace qv::fuzz {

namespace {

constexpr std::size_t PACKET_MAX = 1376;
constexpr std::size_t AUDIO_MAX = 1322;

// Little-endian.
void add(Bytes& packet, std::uint64_t value, int size) {
    for (int i = 0; i < size; ++i) {
        packet.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    }
}

void add(Bytes& packet, const Bytes& bytes) {
    packet.insert(packet.end(), bytes.begin(), bytes.end());
}

std::string direction(const TapModel& tap) {
    return std::to_string(tap.flags & 1u);
}

}  // namespace

std::int64_t ModuleModel::send_time() {
    if (next_attempt_ < attempts_.size()) {
        const std::int64_t seen = attempts_[next_attempt_].clock_us;
        if (seen >= earliest_us_ && seen <= latest_us_) {
            return seen;
        }
    }
    return earliest_us_;
}

bool ModuleModel::send(const OptionsModel::Node& to, const Bytes& packet) {
    std::size_t sent = 0;
    while (sent < packet.size()) {
        require(next_attempt_ < attempts_.size(), "the module sends every packet");
        const SendAttempt& attempt = attempts_[next_attempt_++];
        require_equal("descriptor", attempt.descriptor, socket_open_ ? socket_number_ : -1);
        SendOutcome outcome;
        if (!socket_open_) {
            outcome = {SendOutcome::Kind::FAILS, EBADF};
        } else if (!sends.empty()) {
            outcome = sends.front();
            sends.pop_front();
        }
        if (outcome.kind == SendOutcome::Kind::FAILS) {
            line(Level::ERROR, nullptr,
                 "SOCKET[" + std::to_string(attempt.descriptor) + "]: failed to send a data (" +
                     std::to_string(packet.size()) + ": " + std::to_string(attempt.data - sent) +
                     "), error (" + std::to_string(outcome.value) +
                     "): " + std::strerror(outcome.value));
            return false;
        }
        std::size_t size = packet.size() - sent;
        if (outcome.kind == SendOutcome::Kind::SHORT) {
            size = std::min(size, static_cast<std::size_t>(outcome.value));
        }
        output_.push_back(
            datagram_text(to.family, to.address, to.port, packet.data() + sent, size));
        sent += size;
    }
    return true;
}

Bytes ModuleModel::header(unsigned type, unsigned word, const TapModel& tap) {
    Bytes packet{0xFF, 0x00, 0xFF, 0x00};
    add(packet, type, 1);
    add(packet, 1, 1);  // The protocol's version.
    add(packet, word, 2);
    add(packet, tap.key, 8);
    add(packet, tap.uuid);
    add(packet, static_cast<std::uint64_t>(send_time()), 8);
    return packet;
}

bool ModuleModel::send_start(const CallModel& call, const TapModel& tap) {
    Bytes packet = header(0x81, tap.flags, tap);
    add(packet, tap.created_us, 8);
    add(packet, tap.configured_us, 8);
    add(packet, tap.configured_clock_us, 8);
    add(packet, tap.rule_id, 8);
    add(packet, tap.report_node);
    add(packet, tap.features.supported, 1);
    add(packet, tap.features.active, 1);
    const std::size_t length = tap.reference.size() + 1;
    add(packet, length, 2);
    const std::size_t room = PACKET_MAX - packet.size();
    if (length > room) {
        line(Level::ERROR, &call,
             "MEDIA_TRANSFER: not enough free space (" + std::to_string(room) +
                 ") in a buffer to write app context payload (" + std::to_string(length) + ")");
        return false;
    }
    packet.insert(packet.end(), tap.reference.begin(), tap.reference.end());
    packet.push_back(0);
    line(Level::DEBUG, &call, "MEDIA_TRANSFER: send start packet for leg (" + direction(tap) + ")");
    return send(tap.node, packet);
}

bool ModuleModel::send_data(const CallModel& call, TapModel& tap, int leg_number,
                            const std::uint8_t* data, std::size_t size) {
    LegModel& leg = tap.legs[leg_number];
    leg.odd_frames += static_cast<std::uint32_t>(size % 2);
    const std::size_t usable = size - size % 2;
    std::size_t taken = 0;
    std::size_t packets = 0;
    do {
        const std::size_t chunk = std::min(usable - taken, AUDIO_MAX);
        Bytes packet = header(0x83, leg.word, tap);
        leg.sequence += 1;
        add(packet, leg.sequence, 4);
        add(packet, leg.offset, 4);
        add(packet, chunk / 2, 2);
        packet.insert(packet.end(), data + taken, data + taken + chunk);
        leg.offset += static_cast<std::uint32_t>(chunk / 2);
        taken += chunk;
        line(Level::TRACE, &call,
             "MEDIA_TRANSFER: send data packet of " + std::to_string(chunk) +
                 " byte(s) for leg/call_side (" + direction(tap) + "/" +
                 ((leg.word & 1u) != 0 ? "terminator" : "originator") + ")");
        if (!send(tap.node, packet)) {
            return false;
        }
        ++packets;
        leg.bytes += static_cast<std::uint32_t>(chunk);
    } while (taken < usable);
    if (packets > 1) {
        std::string text = "MEDIA_TRANSFER: \"";
        if (call.codec) {
            text += *call.codec + "\" " + (leg_number == 0 ? "read" : "write") + " frame of " +
                    std::to_string(size) + " byte(s) split for " + std::to_string(packets) +
                    " chunks";
        }
        line(Level::WARNING, &call, text);
    }
    return true;
}

void ModuleModel::send_control(const CallModel& call, const TapModel& tap) {
    Bytes packet = header(0x84, 0x0080, tap);
    add(packet, tap.requested.supported, 1);
    add(packet, tap.requested.active, 1);
    line(Level::DEBUG, &call,
         "MEDIA_TRANSFER: send control packet for leg (" + direction(tap) + ")");
    send(tap.node, packet);
}

bool ModuleModel::send_terminate(const CallModel& call, const TapModel& tap) {
    const Bytes packet = header(0x82, 0, tap);
    line(Level::DEBUG, &call,
         "MEDIA_TRANSFER: send terminate packet for leg (" + direction(tap) + ")");
    return send(tap.node, packet);
}

}  // namespace qv::fuzz
