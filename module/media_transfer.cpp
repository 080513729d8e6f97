#include "module/media_transfer.h"

#include <algorithm>
#include <chrono>
#include <cstring>

#include "module/host_log.h"
#include "module/steady_time.h"

namespace qv::freeswitch {

namespace {

using media::PacketType;

// A call's own thread may wait this long once, before its media starts.
constexpr std::chrono::milliseconds START_PATIENCE{250};

// A datagram under construction, on the stack.
class Packet {
  public:
    Packet(PacketType type, std::uint16_t leg_word, const AppContext& context) {
        // The payload after the fields stays uninitialized: only written bytes of it are sent.
        std::memset(bytes_, 0, FIELDS_SIZE);
        media::put_common_fields(bytes_, type, leg_word, context.id, context.uuid);
    }

    void put_u16(std::size_t offset, std::uint16_t value) {
        media::put_u16(bytes_ + offset, value);
    }
    void put_u32(std::size_t offset, std::uint32_t value) {
        media::put_u32(bytes_ + offset, value);
    }
    void put_u64(std::size_t offset, std::uint64_t value) {
        media::put_u64(bytes_ + offset, value);
    }
    void put_features(std::size_t offset, media::features16_t features) {
        media::put_features(bytes_ + offset, features);
    }
    // Copies the bytes unchanged; also used for fields that are in network byte order already.
    void put_bytes(std::size_t offset, const void* from, std::size_t size) {
        std::memcpy(bytes_ + offset, from, size);
    }
    // Calls memmove, not memcpy: the compiler knows the largest size and replaces a memcpy with
    // string instructions, which take longer to start than a frame takes to copy.
    void put_audio(const unsigned char* from, std::size_t size) {
        std::memmove(bytes_ + media::AUDIO_OFFSET, from, size);
    }
    void put_send_time() { put_u64(media::SEND_TIME_OFFSET, steady_time_us()); }

    bool send(net::Socket& socket, const sockaddr_in& to, std::size_t size) const {
        return socket.send(to, reinterpret_cast<const char*>(bytes_), size);
    }

  private:
    // Covers the fields of every packet type; a multiple of 32 is cleared fastest.
    static constexpr std::size_t FIELDS_SIZE = 96;
    static_assert(FIELDS_SIZE >= media::CALL_REFERENCE_OFFSET);

    alignas(16) unsigned char bytes_[media::MAX_PACKET_SIZE];
};

// The call's direction as the log shows it: 1 for an outbound call.
int direction(const AppContext& context) {
    return context.flags & media::FLAG_OUTBOUND;
}

const char* call_side(const LegStream& leg) {
    return (leg.leg_flags & media::LEG_TERMINATOR_SIDE) != 0 ? "terminator" : "originator";
}

const char* codec_name(const switch_frame_t& frame) {
    const bool known = frame.codec != nullptr && frame.codec->implementation != nullptr;
    return known ? frame.codec->implementation->iananame : nullptr;
}

// Fills in the next data packet of a leg and advances the counters. Returns the packet's size.
std::size_t put_chunk(Packet& packet, LegStream& stream, const unsigned char* audio,
                      std::size_t chunk) {
    const auto samples = static_cast<std::uint16_t>(chunk / 2);
    packet.put_send_time();
    packet.put_u32(media::SEQUENCE_NUMBER_OFFSET, ++stream.sequence_number);
    packet.put_u32(media::SAMPLE_OFFSET_OFFSET, stream.sample_offset);
    packet.put_u16(media::SAMPLE_COUNT_OFFSET, samples);
    if (chunk > 0) {
        packet.put_audio(audio, chunk);
    }
    stream.sample_offset += samples;
    return media::AUDIO_OFFSET + chunk;
}

// A check that never fails: no packet is larger than its buffer.
void check_size(switch_core_session_t* session, std::size_t size, std::size_t chunk,
                std::size_t left) {
    if (size > media::MAX_PACKET_SIZE) {
        log_session_line<log::ERROR>(
            session, QV_PLACE_IN("media_data"),
            "MEDIA_TRANSFER: memory corruption! buffer capacity: ", media::MAX_PACKET_SIZE,
            ", buffer size: ", size, ", last chunk: ", chunk, ", last p-chunk: ", left);
    }
}

void warn_of_split(switch_core_session_t* session, std::uint8_t leg, const switch_frame_t& frame,
                   unsigned chunks) {
    // Without a codec name, the text ends after the opening quote: the stream ignores whatever
    // follows a null text. See docs/design.md, Odd on purpose: frames.
    log_session_line<log::WARNING>(session, QV_PLACE_IN("media_data"), "MEDIA_TRANSFER: \"",
                                   codec_name(frame), "\" ",
                                   leg == media::READ_LEG ? "read" : "write", " frame of ",
                                   frame.datalen, " byte(s) split for ", chunks, " chunks");
}

}  // namespace

void MediaTransfer::wait_to_start() const {
    socket_->wait_for_room(START_PATIENCE);
}

bool MediaTransfer::media_start(switch_core_session_t* session, const AppContext& context) {
    Packet packet(PacketType::START, context.flags, context);
    packet.put_send_time();
    packet.put_u64(media::CREATED_TIME_OFFSET, context.created_time);
    packet.put_u64(media::CONFIGURED_TIME_OFFSET, context.configured_time);
    packet.put_u64(media::CONFIGURED_CLOCK_OFFSET, context.configured_clock_us);
    packet.put_u64(media::RULE_ID_OFFSET, context.rule_id);
    packet.put_bytes(media::REPORT_NODE_ADDRESS_OFFSET, &context.report_node_addr,
                     sizeof(context.report_node_addr));
    packet.put_bytes(media::REPORT_NODE_PORT_OFFSET, &context.report_node_port,
                     sizeof(context.report_node_port));
    packet.put_features(media::START_FEATURES_OFFSET, context.features);

    const std::size_t length = context.call_id.size() + 1;
    packet.put_u16(media::CALL_REFERENCE_LENGTH_OFFSET, static_cast<std::uint16_t>(length));
    if (length > media::MAX_CALL_REFERENCE_SIZE) {
        log_session_line<log::ERROR>(session, QV_PLACE, "MEDIA_TRANSFER: not enough free space (",
                                     media::MAX_CALL_REFERENCE_SIZE,
                                     ") in a buffer to write app context payload (", length, ")");
        return false;
    }
    packet.put_bytes(media::CALL_REFERENCE_OFFSET, context.call_id.c_str(), length);

    log_session_line<log::DEBUG>(session, QV_PLACE, "MEDIA_TRANSFER: send start packet for leg (",
                                 direction(context), ")");
    return packet.send(*socket_, context.media_node, media::CALL_REFERENCE_OFFSET + length);
}

bool MediaTransfer::media_data(switch_core_session_t* session, AppContext& context,
                               std::uint8_t leg, const switch_frame_t* frame) {
    if (frame == nullptr) {
        return true;
    }
    LegStream& stream = context.legs[leg];
    Packet packet(PacketType::DATA, stream.leg_flags, context);

    // If the frame's length is odd, its last byte, half a sample, is dropped.
    stream.odd_frames += frame->datalen & 1U;
    const std::size_t usable = frame->datalen & ~1U;
    const auto* audio = static_cast<const unsigned char*>(frame->data);

    std::size_t consumed = 0;
    unsigned chunks = 0;
    do {  // At least once: an empty frame is sent as a packet, too.
        const std::size_t chunk = std::min(usable - consumed, media::MAX_AUDIO_SIZE);
        const std::size_t size = put_chunk(packet, stream, audio + consumed, chunk);
        consumed += chunk;
        log_session_line<log::TRACE>(session, QV_PLACE, "MEDIA_TRANSFER: send data packet of ",
                                     chunk, " byte(s) for leg/call_side (", direction(context), "/",
                                     call_side(stream), ")");
        if (!packet.send(*socket_, context.media_node, size)) {
            check_size(session, size, chunk, usable - consumed);
            return false;
        }
        ++chunks;
        stream.bytes_sent += static_cast<std::uint32_t>(chunk);
    } while (consumed < usable);

    if (chunks > 1) {
        warn_of_split(session, leg, *frame, chunks);
    }
    return true;
}

bool MediaTransfer::media_features_update(switch_core_session_t* session,
                                          const AppContext& context) {
    Packet packet(PacketType::CONTROL, media::CONTROL_LEG_WORD, context);
    packet.put_send_time();
    packet.put_features(media::CONTROL_FEATURES_OFFSET, context.requested_features);
    log_session_line<log::DEBUG>(session, QV_PLACE, "MEDIA_TRANSFER: send control packet for leg (",
                                 direction(context), ")");
    return packet.send(*socket_, context.media_node, media::CONTROL_SIZE);
}

bool MediaTransfer::media_terminate(switch_core_session_t* session, const AppContext& context) {
    Packet packet(PacketType::TERMINATE, media::TERMINATE_LEG_WORD, context);
    packet.put_send_time();
    log_session_line<log::DEBUG>(session, QV_PLACE,
                                 "MEDIA_TRANSFER: send terminate packet for leg (",
                                 direction(context), ")");
    return packet.send(*socket_, context.media_node, media::TERMINATE_SIZE);
}

}  // namespace qv::freeswitch
