// CRC-64/ECMA-182: the hash that gives each call its key.
//
// Polynomial 0x42F0E1EBA9EA3693, most significant bit first, nothing reflected,
// initial value 0, no final XOR. Constant data; any thread may use it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace qv::hash {

struct CRC64 {
    static constexpr std::uint64_t POLYNOMIAL = 0x42F0E1EBA9EA3693;

    // Entry i is the CRC of the single byte i.
    static const std::array<std::uint64_t, 256> table;

    // The CRC of the `size` bytes at `data`.
    static std::uint64_t compute(const unsigned char* data, std::size_t size);
};

}  // namespace qv::hash
