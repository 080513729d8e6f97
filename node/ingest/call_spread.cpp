#include "node/ingest/call_spread.h"

#include <linux/filter.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <system_error>

#include "quorvane/media_packet.h"

namespace qv::node {

namespace {

// The golden ratio of 32 bits: multiplied by it, keys that differ in any bits differ in the upper
// bits of the product. Keys need not be random.
constexpr std::uint32_t MULTIPLIER = 2654435769;
constexpr unsigned HALF = 16;

// Loads are big-endian, here and in the filter of the system.
std::uint32_t key_word(const unsigned char* datagram) {
    const unsigned char* key = datagram + media::CALL_KEY_OFFSET;
    return static_cast<std::uint32_t>(key[0]) << 24 | static_cast<std::uint32_t>(key[1]) << 16 |
           static_cast<std::uint32_t>(key[2]) << 8 | static_cast<std::uint32_t>(key[3]);
}

}  // namespace

std::size_t socket_of_call(const unsigned char* datagram, std::size_t size, std::size_t sockets) {
    if (size < media::CALL_KEY_OFFSET + sizeof(std::uint32_t)) {
        return 0;
    }
    const std::uint32_t upper_half = key_word(datagram) * MULTIPLIER >> HALF;
    return upper_half * static_cast<std::uint32_t>(sockets) >> HALF;
}

// The same computation as above. Where the datagram is too short, the system ends the filter with
// 0.
std::string spread_calls(int descriptor, std::size_t sockets) {
    std::array<sock_filter, 6> filter = {{
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, media::CALL_KEY_OFFSET),
        BPF_STMT(BPF_ALU | BPF_MUL | BPF_K, MULTIPLIER),
        BPF_STMT(BPF_ALU | BPF_RSH | BPF_K, HALF),
        BPF_STMT(BPF_ALU | BPF_MUL | BPF_K, static_cast<std::uint32_t>(sockets)),
        BPF_STMT(BPF_ALU | BPF_RSH | BPF_K, HALF),
        BPF_STMT(BPF_RET | BPF_A, 0),
    }};
    const sock_fprog program = {static_cast<unsigned short>(filter.size()), filter.data()};
    if (setsockopt(descriptor, SOL_SOCKET, SO_ATTACH_REUSEPORT_CBPF, &program, sizeof program) !=
        0) {
        return "the system cannot spread calls over threads (SO_ATTACH_REUSEPORT_CBPF): " +
               std::generic_category().message(errno);
    }
    return {};
}

}  // namespace qv::node
