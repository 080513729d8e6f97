#include "node/analysis/transform.h"

#include <fftw3.h>

#include <algorithm>
#include <map>
#include <new>
#include <stdexcept>

#include "quorvane_lib/mutex.h"

namespace qv::node::analysis {

namespace {

struct Transforms {
    Mutex lock;  // Also held while a transform is planned: FFTW must plan on one thread at a time.
    std::map<std::size_t, const Transform*> by_size QV_GUARDED_BY(lock);
};

constexpr std::size_t BINS = Transform::LONGEST / 2 + 1;

struct Scratch {
    alignas(64) float samples[Transform::LONGEST];
    alignas(64) fftwf_complex bins[BINS];
};

}  // namespace

const Transform& Transform::of_size(std::size_t size) {
    // The transforms are never freed, because a side may end after static objects were destroyed.
    static auto& transforms = *new Transforms;
    if (size < 2 || size > LONGEST || size % 2 != 0) {
        throw std::invalid_argument("no transform of this size");
    }
    const LockGuard guard(transforms.lock);
    const Transform*& transform = transforms.by_size[size];
    if (transform == nullptr) {
        transform = new Transform(size);
    }
    return *transform;
}

Transform::Transform(std::size_t size) : size_(size) {
    Scratch scratch;
    // Estimated plans are the same in every run. So are the results.
    plan_ = fftwf_plan_dft_r2c_1d(static_cast<int>(size), scratch.samples, scratch.bins,
                                  FFTW_ESTIMATE | FFTW_DESTROY_INPUT);
    if (plan_ == nullptr) {
        throw std::bad_alloc();
    }
}

void Transform::power(const float* samples, float* power) const {
    Scratch scratch;
    std::copy(samples, samples + size_, scratch.samples);
    fftwf_execute_dft_r2c(plan_, scratch.samples, scratch.bins);
    for (std::size_t bin = 0; bin <= size_ / 2; ++bin) {
        const float re = scratch.bins[bin][0];
        const float im = scratch.bins[bin][1];
        power[bin] = re * re + im * im;
    }
}

}  // namespace qv::node::analysis
