// Reads numbers from the bytes of a fuzz input.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qv::fuzz {

class Input {
  public:
    Input(const std::uint8_t* data, std::size_t size) : data_(data), end_(data + size) {}

    bool empty() const { return data_ == end_; }

    // The next bytes, 1 to 8, as a number. Bytes after the end are 0.
    std::uint64_t take(int bytes) {
        std::uint64_t value = 0;
        for (; bytes > 0; --bytes) {
            value = value << 8 | (empty() ? 0u : *data_++);
        }
        return value;
    }

  private:
    const std::uint8_t* data_;
    const std::uint8_t* end_;
};

}  // namespace qv::fuzz
