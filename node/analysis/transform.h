// The power spectrum of a piece of sound, by FFTW.
//
// One Transform serves every side: it keeps no state between calls, and any thread may
// use it. Transforms live until the program ends.
#pragma once

#include <cstddef>

struct fftwf_plan_s;

namespace qv::node::analysis {

class Transform {
  public:
    static constexpr std::size_t LONGEST = 2048;

    // The transform of `size` samples: even, 2 to LONGEST. Takes a lock, and plans the first
    // time that a size is asked for; meant for constructors.
    static const Transform& of_size(std::size_t size);

    // Writes the power of the bins 0 to size / 2, which are size / 2 + 1, to `power`. A sine
    // of amplitude A in the middle of a bin gives (A * S / 2)^2, S being the sum of the
    // window that the samples were multiplied by.
    void power(const float* samples, float* power) const;

    Transform(const Transform&) = delete;
    Transform& operator=(const Transform&) = delete;

  private:
    explicit Transform(std::size_t size);
    ~Transform() = default;

    std::size_t size_;
    fftwf_plan_s* plan_;
};

}  // namespace qv::node::analysis
