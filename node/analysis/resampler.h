// Converts the samples of one side to another rate, with speexdsp. Sample n of the result is the
// sound at sample n * from / to of the input: the delay of the filter is removed. Belongs to one
// thread.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tools/speex_resampler.h"

namespace qv::node::analysis {

class Resampler {
  public:
    // Rates in Hz, above 0.
    Resampler(int from, int to);

    // The most samples that one call of convert() takes.
    static constexpr std::size_t PIECE = 256;

    // Converts up to PIECE samples to values from -1 to 1. Returns how many were written to `out`,
    // which has room for room_for(count) of them.
    std::size_t convert(const std::int16_t* samples, std::size_t count, float* out);
    std::size_t room_for(std::size_t count) const;

    // Forgets the audio so far.
    void reset();

  private:
    tools::SpeexResampler state_;  // Null if the rates are equal.
    int from_;
    int to_;
};

}  // namespace qv::node::analysis
