// The limits of calls, from the command line.
#pragma once

#include <cstddef>
#include <cstdint>

#include "node/calls/reorder_buffer.h"
#include "node/calls/running.h"
#include "node/calls/types.h"

namespace qv::node {

struct CallLimits {
    // The most calls at the same time. Calls whose files are not complete count. Packets of
    // further calls are dropped.
    std::size_t max_calls = 10'000;
    Micros linger{300'000};               // Between the terminate packet and the end.
    Micros idle{120'000'000};             // Without any packet.
    Micros max_age{12LL * 3600'000'000};  // By then a WAV file at 48 kHz is nearly full.
    Micros remember_ended{60'000'000};
    bool any_source = false;        // Packets of a call may come from any address.
    int sample_rate = 0;            // Hz. 0: found from the packets.
    double max_silence_s = 120;     // For one gap.
    Services services;              // What is done if a call asks for it.
    ReorderBuffer::Limits reorder;  // Its gap_samples follows from max_silence_s.

    // The longest silence for one gap, in samples. A rate of 0 Hz is unknown.
    std::uint64_t gap_samples(int rate) const {
        constexpr int assumed_rate = 16'000;
        return static_cast<std::uint64_t>(max_silence_s * (rate != 0 ? rate : assumed_rate));
    }
};

}  // namespace qv::node
