// Brings the samples of one side to another rate, by speexdsp. Sample n of the result is
// the sound at the time of sample n * from / to of the input: the filter's delay is taken
// out. Belongs to one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

struct SpeexResamplerState_;

namespace qv::node::analysis {

class Resampler {
  public:
    // Rates in Hz, above 0.
    Resampler(int from, int to);
    ~Resampler();
    Resampler(Resampler&&) noexcept;
    Resampler& operator=(Resampler&&) noexcept;

    // Most samples that one call of convert() takes.
    static constexpr std::size_t PIECE = 256;

    // Converts up to PIECE samples; returns how many were written to `out`, which has room
    // for room_for(count). Samples are -1 to 1 in the result.
    std::size_t convert(const std::int16_t* samples, std::size_t count, float* out);
    std::size_t room_for(std::size_t count) const;

    // Forgets what was heard.
    void reset();

  private:
    struct Destroy {
        void operator()(SpeexResamplerState_* state) const;
    };

    std::unique_ptr<SpeexResamplerState_, Destroy> state_;  // Null where rates are equal.
    int from_;
    int to_;
};

}  // namespace qv::node::analysis
