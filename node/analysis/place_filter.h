// Chooses the places of a landmark that sound like a side. A search among thousands of recordings
// does little else. Plain functions; any thread may call them.
#pragma once

#include <cstddef>

#include "node/analysis/sample_index.h"

namespace qv::node::analysis {

struct Alike {
    const SampleIndex::Place* place;
    // The reliable bits of the place, less two for each of them that the side has not.
    int evidence;
};

// With less evidence, a place does not sound like the side.
constexpr int LEAST_EVIDENCE = SampleIndex::LEAST_RELIABLE;

// Writes the places that sound like the side, whose frames have these bits at the peaks of the
// landmark, to `alike`, which must have room for all places. Returns how many these are.
using PlaceFilter = std::size_t (*)(const SampleIndex::Places& places,
                                    const SampleIndex::BitsOfPair& side, Alike* alike);

// For every processor.
std::size_t filter_places(const SampleIndex::Places& places, const SampleIndex::BitsOfPair& side,
                          Alike* alike);

// The fastest one for the processor on which the program runs.
PlaceFilter fastest_place_filter();

}  // namespace qv::node::analysis
