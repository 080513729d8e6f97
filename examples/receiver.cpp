// A media node to start from: decodes the packets, follows both sides of each call and
// passes their samples to on_audio(). Put your own code there.
//
//   g++ -std=c++17 -O2 -Iinclude examples/receiver.cpp -o receiver
//   ./receiver 127.0.0.1 5090
//
// Prints a line for each event and ends on SIGINT or SIGTERM. A call ends one second after its
// terminate packet, because data may arrive after it, or after one minute without packets.
// docs/protocol.md describes the packets and the rules.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

#include "quorvane/media_packet.h"

namespace {

using qv::media::Packet;
using qv::media::PacketType;

using Clock = std::chrono::steady_clock;

// How long to keep a call after its terminate packet, and how long without any packet.
constexpr std::chrono::seconds LATE_TIME{1};
constexpr std::chrono::seconds IDLE_TIME{60};
constexpr std::chrono::milliseconds LOOK_AROUND{200};

// What is known of one side of a call.
struct Side {
    bool begun = false;
    std::uint32_t next_sequence_number = 1;
    std::uint32_t next_sample_offset = 0;
    std::uint64_t packets = 0;
    std::uint64_t samples = 0;
    std::uint64_t lost_packets = 0;
    int peak = 0;
};

struct Call {
    std::int64_t configured_clock = 0;
    Side sides[2];  // Originator, terminator.
    std::chrono::seconds stays = IDLE_TIME;
    Clock::time_point deadline;
};

std::map<std::string, Call> calls;
volatile std::sig_atomic_t stopped = 0;

void stop(int) {
    stopped = 1;
}

std::string uuid_text(const unsigned char* uuid) {
    std::string text;
    for (std::size_t i = 0; i < qv::media::UUID_SIZE; ++i) {
        char pair[3];
        std::snprintf(pair, sizeof(pair), "%02x", uuid[i]);
        text += (i == 4 || i == 6 || i == 8 || i == 10) ? "-" : "";
        text += pair;
    }
    return text;
}

// Text from the network without the characters that control a terminal.
std::string printable(std::string text) {
    for (char& c : text) {
        c = std::iscntrl(static_cast<unsigned char>(c)) != 0 ? '?' : c;
    }
    return text;
}

const char* side_name(const Packet& packet) {
    return packet.terminator_side() ? "terminator" : "originator";
}

// Put your own code here. The samples of the packet begin `packet.sample_offset` samples after
// the beginning of this side.
void on_audio(const Packet& packet, Side& side) {
    for (std::size_t i = 0; i < packet.sample_count; ++i) {
        const auto sample = static_cast<std::int16_t>(qv::media::get_u16(packet.audio + 2 * i));
        side.peak = std::abs(sample) > side.peak ? std::abs(sample) : side.peak;
    }
}

void take_data(const std::string& uuid, Call& call, const Packet& packet) {
    Side& side = call.sides[packet.terminator_side() ? 1 : 0];
    if (!side.begun && packet.sequence_number > 1000) {  // The receiver joins a running call.
        side.next_sequence_number = packet.sequence_number;
        side.next_sample_offset = packet.sample_offset;
    }
    side.begun = true;
    // Signed differences need no special case for counters that wrap.
    const auto ahead =
        static_cast<std::int32_t>(packet.sequence_number - side.next_sequence_number);
    if (ahead < 0) {
        std::printf("%s late or copied: %s sequence number %u\n", uuid.c_str(), side_name(packet),
                    packet.sequence_number);
        return;
    }
    if (ahead > 0) {
        const auto samples =
            static_cast<std::int32_t>(packet.sample_offset - side.next_sample_offset);
        side.lost_packets += static_cast<std::uint32_t>(ahead);
        std::printf("%s gap: %s lost_packets=%d missing_samples=%d\n", uuid.c_str(),
                    side_name(packet), ahead, samples);
    }
    side.next_sequence_number = packet.sequence_number + 1;
    side.next_sample_offset = packet.sample_offset + packet.sample_count;
    side.packets += 1;
    side.samples += packet.sample_count;
    on_audio(packet, side);
}

void tell_end(const std::string& uuid, const Call& call) {
    const char* const names[] = {"originator", "terminator"};
    for (int i = 0; i < 2; ++i) {
        const Side& side = call.sides[i];
        std::printf("%s end: %s packets=%llu samples=%llu lost_packets=%llu peak=%d\n",
                    uuid.c_str(), names[i], static_cast<unsigned long long>(side.packets),
                    static_cast<unsigned long long>(side.samples),
                    static_cast<unsigned long long>(side.lost_packets), side.peak);
    }
}

void end_calls_that_are_over() {
    const auto now = Clock::now();
    for (auto call = calls.begin(); call != calls.end();) {
        if (call->second.deadline > now) {
            ++call;
            continue;
        }
        tell_end(call->first, call->second);
        call = calls.erase(call);
    }
}

void take_start(const std::string& uuid, Call& call, const Packet& packet) {
    if (call.configured_clock != 0 && call.configured_clock != packet.configured_clock) {
        tell_end(uuid, call);  // The channel is tapped a second time.
        call = Call{};
    }
    call.configured_clock = packet.configured_clock;
    std::printf("%s start: %s reference=%s features=%02x%02x\n", uuid.c_str(),
                packet.outbound() ? "outbound" : "inbound",
                printable(packet.call_reference).c_str(), packet.features.supported,
                packet.features.active);
}

void take_packet(const Packet& packet) {
    const std::string uuid = uuid_text(packet.call_uuid);
    if (packet.type == PacketType::TERMINATE && calls.count(uuid) == 0) {
        return;  // A copy that arrives after the end of its call.
    }
    Call& call = calls[uuid];
    switch (packet.type) {
        case PacketType::START:
            take_start(uuid, call, packet);
            break;
        case PacketType::DATA:
            take_data(uuid, call, packet);
            break;
        case PacketType::CONTROL:
            std::printf("%s control: features=%02x%02x\n", uuid.c_str(), packet.features.supported,
                        packet.features.active);
            break;
        case PacketType::TERMINATE:
            call.stays = LATE_TIME;
            break;
    }
    call.deadline = Clock::now() + call.stays;
}

void take_datagram(const unsigned char* datagram, std::size_t size) {
    Packet packet;
    const auto result = qv::media::decode_packet(datagram, size, packet);
    if (result == qv::media::DecodeResult::OK) {
        take_packet(packet);
    } else {
        std::printf("refused: %s (%zu bytes)\n", qv::media::describe(result), size);
    }
}

// A socket bound to the address, or -1 after a message.
int listen_on(const char* address, const char* port) {
    char* rest = nullptr;
    const unsigned long number = std::strtoul(port, &rest, 10);
    if (std::isdigit(static_cast<unsigned char>(*port)) == 0 || *rest != '\0' || number > 65535) {
        std::fprintf(stderr, "not a port: %s\n", port);
        return -1;
    }
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_port = htons(static_cast<std::uint16_t>(number));
    if (inet_pton(AF_INET, address, &local.sin_addr) != 1) {
        std::fprintf(stderr, "not an IPv4 address: %s\n", address);
        return -1;
    }
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    const int buffer = 4 << 20;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof(buffer));
    // The longest time until a signal or the end of a call is noticed.
    const timeval patience{0, std::chrono::microseconds(LOOK_AROUND).count()};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof(local)) != 0) {
        std::perror((std::string("cannot listen on ") + address + ":" + port).c_str());
        return -1;
    }
    socklen_t size = sizeof(local);
    getsockname(fd, reinterpret_cast<sockaddr*>(&local), &size);
    std::printf("listening on %s:%u\n", address, ntohs(local.sin_port));
    return fd;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s ADDRESS PORT\n", argv[0]);
        return 2;
    }
    struct sigaction action {};
    action.sa_handler = stop;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    const int fd = listen_on(argv[1], argv[2]);
    if (fd < 0) {
        return 1;
    }
    unsigned char datagram[65536];
    auto next_look = Clock::now();
    while (stopped == 0) {
        const ssize_t size = recv(fd, datagram, sizeof(datagram), 0);
        if (size >= 0) {
            take_datagram(datagram, static_cast<std::size_t>(size));
        }
        if (Clock::now() >= next_look) {
            end_calls_that_are_over();
            next_look = Clock::now() + LOOK_AROUND;
        }
    }
    for (const auto& [uuid, call] : calls) {
        tell_end(uuid, call);
    }
    close(fd);
}
