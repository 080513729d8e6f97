// Checks the packets of one call that a media node received.
//
// Uses its own offsets of the fields, not the module's constants. A plain value; one thread at a
// time.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/packet_text.h"

namespace qv::tests {

// The data packets of one direction of a call.
struct LegTransfer {
    std::uint32_t packets = 0;  // The last sequence number.
    std::uint32_t samples = 0;  // Up to the end of the last packet.
    std::uint32_t gaps = 0;     // Packets that do not continue the previous one.
    Bytes audio;
};

class CallTransfer {
  public:
    // A feature set as in a packet.
    struct Features {
        unsigned supported = 0;
        unsigned active = 0;
    };

    CallTransfer() = default;
    explicit CallTransfer(const std::vector<Bytes>& packets) {
        for (const Bytes& packet : packets) {
            take(packet);
        }
    }

    // Returns why this is not a complete call: one with one start packet, legs without gaps, and
    // one terminate packet with no audio after it. Empty for a complete call.
    std::string flaws() const {
        std::string text;
        expect(text, starts == 1, std::to_string(starts) + " starts");
        expect(text, terminates == 1, std::to_string(terminates) + " terminates");
        expect(text, others == 0, std::to_string(others) + " packets of no known kind");
        expect(text, malformed == 0, std::to_string(malformed) + " packets of a wrong size");
        expect(text, before_start == 0, std::to_string(before_start) + " packets before the start");
        expect(text, data_after_terminate == 0,
               std::to_string(data_after_terminate) + " data packets after the terminate");
        expect(text, legs[0].gaps == 0, std::to_string(legs[0].gaps) + " gaps in the read leg");
        expect(text, legs[1].gaps == 0, std::to_string(legs[1].gaps) + " gaps in the write leg");
        return text;
    }

    unsigned starts = 0;
    unsigned terminates = 0;
    unsigned others = 0;
    unsigned malformed = 0;
    unsigned before_start = 0;
    unsigned data_after_terminate = 0;
    unsigned controls_after_terminate = 0;
    Features start;                  // Of the last start packet.
    std::vector<Features> controls;  // Of the control packets, in order.
    LegTransfer legs[2];             // Read, write.

  private:
    static void expect(std::string& text, bool right, const std::string& flaw) {
        if (!right) {
            text += (text.empty() ? "" : ", ") + flaw;
        }
    }

    static std::uint32_t number(const Bytes& packet, std::size_t offset, std::size_t size) {
        std::uint32_t value = 0;
        for (std::size_t i = size; i > 0; --i) {
            value = value << 8 | packet[offset + i - 1];
        }
        return value;
    }

    void take(const Bytes& packet) {
        const unsigned type = packet.size() < 40 ? 0U : packet[4];
        before_start += type != 0x81 && starts == 0 ? 1U : 0U;
        switch (type) {
            case 0x81:
                take_start(packet);
                break;
            case 0x82:
                ++terminates;
                malformed += packet.size() != 40 ? 1U : 0U;
                break;
            case 0x83:
                take_data(packet);
                break;
            case 0x84:
                take_control(packet);
                break;
            default:
                ++others;
                break;
        }
    }

    void take_start(const Bytes& packet) {
        ++starts;
        if (packet.size() < 83 || packet.size() != 82 + number(packet, 80, 2)) {
            ++malformed;
            return;
        }
        start = {packet[78], packet[79]};
    }

    void take_data(const Bytes& packet) {
        data_after_terminate += terminates != 0 ? 1U : 0U;
        if (packet.size() < 50 || packet.size() != 50 + 2 * number(packet, 48, 2)) {
            ++malformed;
            return;
        }
        LegTransfer& leg = legs[packet[7] >> 7];
        const bool next =
            number(packet, 40, 4) == leg.packets + 1 && number(packet, 44, 4) == leg.samples;
        leg.gaps += next ? 0U : 1U;
        leg.packets = number(packet, 40, 4);
        leg.samples = number(packet, 44, 4) + number(packet, 48, 2);
        leg.audio.insert(leg.audio.end(), packet.begin() + 50, packet.end());
    }

    void take_control(const Bytes& packet) {
        controls_after_terminate += terminates != 0 ? 1U : 0U;
        if (packet.size() != 42) {
            ++malformed;
            return;
        }
        controls.push_back({packet[40], packet[41]});
    }
};

}  // namespace qv::tests
