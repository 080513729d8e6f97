// The power spectrum of a piece of audio, computed with FFTW.
//
// One Transform serves all sides: it keeps no state between calls, and any thread may use it.
// Transforms exist until the program ends.
#pragma once

#include <cstddef>

struct fftwf_plan_s;

namespace qv::node::analysis {

class Transform {
  public:
    static constexpr std::size_t LONGEST = 2048;

    // Returns the transform of `size` samples: an even number from 2 to LONGEST. Takes a lock, and
    // plans a size when it is used for the first time; call it from constructors.
    static const Transform& of_size(std::size_t size);

    // Writes the power of the bins 0 to size / 2 to `power`, which are size / 2 + 1 values. A sine
    // of amplitude A in the middle of a bin gives (A * S / 2)^2, where S is the sum of the window
    // by which the samples were multiplied.
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
