// The limits that calls are held to, from the command line.
#pragma once

#include <cstddef>
#include <cstdint>

#include "node/calls/reorder_buffer.h"
#include "node/calls/running.h"
#include "node/calls/types.h"

namespace qv::node {

struct CallLimits {
    std::size_t max_calls = 10'000;       // At once; packets of further calls are dropped.
    Micros linger{300'000};               // Between terminate packet and end.
    Micros idle{120'000'000};             // Without any packet.
    Micros max_age{12LL * 3600'000'000};  // A WAV file at 48 kHz is nearly full by then.
    Micros remember_ended{60'000'000};
    bool any_source = false;        // A call's packets may come from any address.
    int sample_rate = 0;            // Hz; 0: found from the packets.
    double max_silence_s = 120;     // For one gap.
    Services services;              // What is done when a call asks for it.
    ReorderBuffer::Limits reorder;  // Its gap_samples follows from max_silence_s.

    // The longest silence for one gap, in samples; 0 Hz is a rate that is not known.
    std::uint64_t gap_samples(int rate) const {
        constexpr int assumed_rate = 16'000;
        return static_cast<std::uint64_t>(max_silence_s * (rate != 0 ? rate : assumed_rate));
    }
};

}  // namespace qv::node
