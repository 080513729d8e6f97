// The outline of a long signal in little memory: the lowest and highest sample, and the
// power, of each of a limited number of equal spans. When the spans are used up, neighbours are
// joined and each span is twice as long. Belongs to one thread.
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

    // At most `max_spans` spans, an even number.
    explicit Envelope(std::size_t max_spans) : max_spans_(max_spans) {}

    void add(const std::int16_t* samples, std::size_t count);
    void add_silence(std::uint64_t count);

    const std::vector<Span>& spans() const { return spans_; }
    // Length of a span, the last one may be shorter.
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
