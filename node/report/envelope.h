// The outline of a long signal in little memory: a limited number of equal spans, each with the
// lowest and highest sample and the power. When all spans are used, neighbours are merged, and each
// span is twice as long. Belongs to one thread.
#pragma once

#include <cstdint>
#include <vector>

namespace qv::node {

class Envelope {
  public:
    struct Span {
        std::int16_t lowest;
        std::int16_t highest;
        float squares;  // Sum over the samples.
    };

    // `max_spans` must be even.
    explicit Envelope(std::size_t max_spans) : max_spans_(max_spans) {}

    void add(const std::int16_t* samples, std::size_t count);
    void add_silence(std::uint64_t count);

    const std::vector<Span>& spans() const { return spans_; }
    // Samples per span. The last span may have fewer.
    std::uint64_t samples_per_span() const { return samples_per_span_; }
    std::uint64_t samples() const { return samples_; }

  private:
    std::uint64_t room();
    void join_neighbours();

    std::size_t max_spans_;
    std::vector<Span> spans_;
    std::uint64_t samples_per_span_ = 16;
    std::uint64_t samples_ = 0;
};

}  // namespace qv::node
