// The part of a file that a request asks for (the header Range of HTTP). No state.
#pragma once

#include <cstdint>
#include <string>

namespace qv::node::web {

struct ByteRange {
    enum class Kind : std::uint8_t {
        WHOLE,           // No part is asked for, or something that may be ignored.
        PART,            // [begin, end)
        NOT_SATISFIABLE  // A part that the file does not have.
    };

    Kind kind = Kind::WHOLE;
    std::uint64_t begin = 0;
    std::uint64_t end = 0;
};

// Reads the header's value, empty if there is none, for a file of `size` bytes. One range is
// answered; of several, or of another unit, the whole file is.
ByteRange read_byte_range(const std::string& header, std::uint64_t size);

}  // namespace qv::node::web
