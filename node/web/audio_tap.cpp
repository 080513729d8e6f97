#include "node/web/audio_tap.h"

#include <algorithm>

namespace qv::node::web {

void AudioTap::push(const std::int16_t* samples, std::size_t count, Head head) {
    while (count > 0) {
        const std::size_t some = std::min(count, PART_SAMPLES);
        const std::uint64_t written = written_.load(std::memory_order_relaxed);
        if (written - read_.load(std::memory_order_acquire) == MOST_PARTS) {
            lost_ = true;
            return;
        }
        Part& part = parts_[written % MOST_PARTS];
        part.place = head.place;
        part.sample_rate = head.sample_rate;
        part.came = head.came;
        part.after_loss = head.after_loss || lost_;
        part.count = static_cast<std::uint32_t>(some);
        std::copy_n(samples, some, part.samples.begin());
        written_.store(written + 1, std::memory_order_release);
        lost_ = false;
        head.after_loss = false;
        head.place += some;
        samples += some;
        count -= some;
    }
}

const AudioTap::Part* AudioTap::front() const {
    const std::uint64_t read = read_.load(std::memory_order_relaxed);
    return read == written_.load(std::memory_order_acquire) ? nullptr : &parts_[read % MOST_PARTS];
}

void AudioTap::pop() {
    read_.store(read_.load(std::memory_order_relaxed) + 1, std::memory_order_release);
}

}  // namespace qv::node::web
