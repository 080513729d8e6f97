// What the node does with the audio of a side: what the call asks for and the node offers. Plain
// values; any thread may use them.
#pragma once

#include <cstdint>

#include "node/calls/types.h"
#include "quorvane/media_packet.h"

namespace qv::node {

// What the node does if a call asks for it.
struct Services {
    enum class Recording : std::uint8_t {
        ALL,        // Every side, requested or not.
        REQUESTED,  // The sides for which the call requests it.
        NONE,
    };

    bool activity = false;
    bool detection = false;  // Whether there are samples to search for.
    Recording recording = Recording::ALL;
};

struct Running {
    bool activity = false;
    bool detection = false;
    bool recording = false;

    bool analysis() const { return activity || detection; }
    bool operator==(const Running& other) const {
        return activity == other.activity && detection == other.detection &&
               recording == other.recording;
    }
    bool operator!=(const Running& other) const { return !(*this == other); }
};

constexpr bool is_in_effect(media::features16_t features, unsigned mask, Side side) {
    const unsigned bits =
        side == Side::ORIGINATOR ? media::ORIGINATOR_BITS : media::TERMINATOR_BITS;
    return (features.supported & features.active & mask & bits) != 0;
}

constexpr Running running_of(media::features16_t features, Side side, const Services& services) {
    using media::feature_mask;
    using media::Features;
    const bool requested = is_in_effect(features, media::FEATURE_RECORD, side);
    return {
        services.activity && is_in_effect(features, feature_mask(Features::AudioActivity), side),
        services.detection && is_in_effect(features, feature_mask(Features::SampleDetection), side),
        services.recording == Services::Recording::ALL ||
            (services.recording == Services::Recording::REQUESTED && requested)};
}

}  // namespace qv::node
