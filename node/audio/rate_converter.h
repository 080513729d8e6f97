// Converts audio to another sample rate, with speexdsp, for a file that both sides of a call share.
// Sample n of the result is the sound at sample n * from / to of the input, over any length. The
// first samples come out when enough have gone in for the filter. Belongs to one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "tools/speex_resampler.h"

namespace qv::node {

class RateConverter {
  public:
    // Rates in Hz, above 0.
    RateConverter(int from, int to);

    // Converts samples and appends the result to `out`.
    void convert(const std::int16_t* samples, std::size_t count, std::vector<std::int16_t>& out);

    // Appends what is still in the filter. More audio may follow, as if after silence.
    void flush(std::vector<std::int16_t>& out);

    // Returns how many samples replace this much silence. Call it after flush().
    std::uint64_t convert_silence(std::uint64_t count);

  private:
    std::uint64_t due() const;
    void process(const std::int16_t* samples, std::size_t count, std::vector<std::int16_t>& out);

    const tools::SpeexResampler state_;
    const std::uint64_t from_;
    const std::uint64_t to_;
    std::uint64_t taken_ = 0;
    std::uint64_t given_ = 0;
};

}  // namespace qv::node
