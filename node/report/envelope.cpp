#include "node/report/envelope.h"

#include <algorithm>

namespace qv::node {

namespace {

float sum_of_squares(const std::int16_t* samples, std::size_t count) {
    std::uint64_t sum = 0;
    for (std::size_t i = 0; i < count; ++i) {
        sum += static_cast<std::uint32_t>(samples[i] * samples[i]);
    }
    return static_cast<float>(sum);
}

}  // namespace

void Envelope::add(const std::int16_t* samples, std::size_t count) {
    while (count > 0) {
        const auto part = static_cast<std::size_t>(std::min<std::uint64_t>(count, room()));
        const auto [lowest, highest] = std::minmax_element(samples, samples + part);
        Span& span = spans_.back();
        span.lowest = std::min(span.lowest, *lowest);
        span.highest = std::max(span.highest, *highest);
        span.squares += sum_of_squares(samples, part);
        samples_ += part;
        samples += part;
        count -= part;
    }
}

void Envelope::add_silence(std::uint64_t count) {
    while (count > 0) {
        const std::uint64_t part = std::min(count, room());
        samples_ += part;
        count -= part;
    }
}

// Returns how many samples the last span can still take. Starts a new span when it is full.
std::uint64_t Envelope::room() {
    if (samples_ == spans_.size() * samples_per_span_) {
        if (spans_.size() == max_spans_) {
            join_neighbours();
        }
        spans_.push_back({0, 0, 0});
    }
    return spans_.size() * samples_per_span_ - samples_;
}

void Envelope::join_neighbours() {
    for (std::size_t i = 0; i < spans_.size() / 2; ++i) {
        const Span& left = spans_[2 * i];
        const Span& right = spans_[2 * i + 1];
        spans_[i] = {std::min(left.lowest, right.lowest), std::max(left.highest, right.highest),
                     left.squares + right.squares};
    }
    spans_.resize(spans_.size() / 2);
    samples_per_span_ *= 2;
}

}  // namespace qv::node
