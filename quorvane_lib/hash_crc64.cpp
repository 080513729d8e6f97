#include "quorvane_lib/hash_crc64.h"

namespace qv::hash {

namespace {

constexpr std::uint64_t entry(std::uint64_t byte) {
    std::uint64_t crc = byte << 56;
    for (int bit = 0; bit < 8; ++bit) {
        const bool carry = (crc >> 63) != 0;
        crc = (crc << 1) ^ (carry ? CRC64::POLYNOMIAL : 0);
    }
    return crc;
}

constexpr std::array<std::uint64_t, 256> make_table() {
    std::array<std::uint64_t, 256> entries{};
    for (std::size_t i = 0; i < entries.size(); ++i) {
        entries[i] = entry(i);
    }
    return entries;
}

}  // namespace

constexpr std::array<std::uint64_t, 256> CRC64::table = make_table();

std::uint64_t CRC64::compute(const unsigned char* data, std::size_t size) {
    std::uint64_t crc = 0;
    for (std::size_t i = 0; i < size; ++i) {
        crc = (crc << 8) ^ table[(crc >> 56) ^ data[i]];
    }
    return crc;
}

}  // namespace qv::hash
