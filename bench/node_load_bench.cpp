// node_load: sends the packets of many calls to the media node, evenly spread over time, and
// compares the files with what was sent.
//
//   node_load send   127.0.0.1:PORT CALLS SECONDS   3,000 calls are 300,000 packets/s
//   node_load singly 127.0.0.1:PORT CALLS SECONDS   the same without bundles of packets
//   node_load check  FOLDER CALLS                   every sample of every file
#include <arpa/inet.h>
#include <netinet/udp.h>
#include <sndfile.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "node/calls/types.h"
#include "quorvane/media_packet.h"
#include "quorvane_lib/hash_crc64.h"
#include "quorvane_lib/net_socket.h"
#include "quorvane_lib/utils_str.h"

namespace {

using namespace qv;
using Clock = std::chrono::steady_clock;

constexpr unsigned FRAMES_PER_SECOND = 50;
constexpr unsigned SAMPLES = 160;
constexpr std::size_t PACKET_SIZE = media::AUDIO_OFFSET + 2 * SAMPLES;
constexpr std::size_t START_SIZE = media::CALL_REFERENCE_OFFSET + 1;
constexpr unsigned BATCH = 64;  // The system allows at least 64.

std::array<unsigned char, media::UUID_SIZE> uuid_of(unsigned call) {
    std::array<unsigned char, media::UUID_SIZE> uuid{};
    uuid[0] = 0xBE;
    media::put_u32(&uuid[12], call);
    return uuid;
}

// Sample `at` of a side. Never zero, so that it differs from inserted silence.
std::int16_t sample(unsigned call, unsigned side, std::uint32_t at) {
    return static_cast<std::int16_t>(((at * 7 + call * 13 + side * 5) & 0x7FFE) | 1);
}

using Buffer = std::array<unsigned char, PACKET_SIZE>;

class Sender {
  public:
    Sender(const char* address, bool singly)
        : descriptor_(socket(AF_INET, SOCK_DGRAM, 0)), singly_(singly) {
        sockaddr_in to{};
        if (!net::parse_addr(address, nullptr, to)) {
            throw std::runtime_error(std::string(address) + ": no address");
        }
        if (connect(descriptor_, reinterpret_cast<sockaddr*>(&to), sizeof to) != 0) {
            throw std::runtime_error("connect");
        }
    }
    ~Sender() { close(descriptor_); }
    Sender(const Sender&) = delete;
    Sender& operator=(const Sender&) = delete;

    void start(unsigned call) {
        unsigned char* out = header(media::PacketType::START, 0, call);
        media::put_u64(out + media::CONFIGURED_CLOCK_OFFSET, 1);
        media::put_u16(out + media::CALL_REFERENCE_LENGTH_OFFSET, 1);
        push(START_SIZE);
    }

    void terminate(unsigned call) {
        header(media::PacketType::TERMINATE, 0, call);
        push(media::TERMINATE_SIZE);
    }

    void data(unsigned call, unsigned side, std::uint32_t frame) {
        const auto leg_word = static_cast<std::uint16_t>(
            side == 0 ? 0 : media::LEG_WRITE | media::LEG_TERMINATOR_SIDE);
        unsigned char* out = header(media::PacketType::DATA, leg_word, call);
        media::put_u32(out + media::SEQUENCE_NUMBER_OFFSET, frame + 1);
        media::put_u32(out + media::SAMPLE_OFFSET_OFFSET, frame * SAMPLES);
        media::put_u16(out + media::SAMPLE_COUNT_OFFSET, SAMPLES);
        for (unsigned i = 0; i < SAMPLES; ++i) {
            media::put_u16(out + media::AUDIO_OFFSET + 2 * i,
                           static_cast<std::uint16_t>(sample(call, side, frame * SAMPLES + i)));
        }
        push(PACKET_SIZE);
    }

    // Sends all collected datagrams, which have the same size.
    void flush() {
        if (filled_ == 0) {
            return;
        }
        if (singly_) {
            send_each();
        } else {
            send_bundle();
        }
        total_ += filled_;
        filled_ = 0;
    }

    std::uint64_t total() const { return total_; }

  private:
    // In one call; the system splits it into datagrams (UDP_SEGMENT). One core cannot send enough
    // datagrams one by one.
    void send_bundle() {
        const int size = static_cast<int>(size_);
        if (setsockopt(descriptor_, IPPROTO_UDP, UDP_SEGMENT, &size, sizeof size) != 0) {
            throw std::runtime_error(std::string("UDP_SEGMENT: ") + std::strerror(errno));
        }
        while (send(descriptor_, bytes_.data(), filled_ * size_, 0) < 0) {
            if (errno != EINTR && errno != ECONNREFUSED) {
                throw std::runtime_error(std::strerror(errno));
            }
        }
    }

    // As datagrams of their own, as switches send them.
    void send_each() {
        std::array<iovec, BATCH> parts{};
        std::array<mmsghdr, BATCH> messages{};
        for (unsigned i = 0; i < filled_; ++i) {
            parts[i] = {bytes_.data() + i * size_, size_};
            messages[i].msg_hdr.msg_iov = &parts[i];
            messages[i].msg_hdr.msg_iovlen = 1;
        }
        for (unsigned sent = 0; sent < filled_;) {
            const int more = sendmmsg(descriptor_, &messages[sent], filled_ - sent, 0);
            if (more < 0 && errno != EINTR && errno != ECONNREFUSED) {
                throw std::runtime_error(std::strerror(errno));
            }
            sent += more > 0 ? static_cast<unsigned>(more) : 0;
        }
    }

    unsigned char* header(media::PacketType type, std::uint16_t leg_word, unsigned call) {
        unsigned char* out = scratch_.data();
        std::memset(out, 0, media::AUDIO_OFFSET + 64);
        const auto uuid = uuid_of(call);
        media::put_common_fields(out, type, leg_word,
                                 hash::CRC64::compute(uuid.data(), uuid.size()), uuid.data());
        media::put_u64(out + media::SEND_TIME_OFFSET,
                       static_cast<std::uint64_t>(node::steady_now().count()));
        return out;
    }

    void push(std::size_t size) {
        if (size != size_) {
            flush();
            size_ = size;
        }
        std::memcpy(bytes_.data() + filled_ * size, scratch_.data(), size);
        if (++filled_ == BATCH) {
            flush();
        }
    }

    int descriptor_;
    const bool singly_;
    Buffer scratch_{};
    std::array<unsigned char, BATCH * PACKET_SIZE> bytes_{};
    unsigned filled_ = 0;
    std::size_t size_ = 0;  // Of each collected datagram.
    std::uint64_t total_ = 0;
};

// Sends one frame per side and call, spread over the frame time in steps of a millisecond.
void send_round(Sender& sender, unsigned calls, std::uint32_t frame, Clock::time_point begin) {
    constexpr unsigned STEPS = 1000 / FRAMES_PER_SECOND;
    unsigned call = 0;
    for (unsigned step = 0; step < STEPS; ++step) {
        std::this_thread::sleep_until(begin + std::chrono::milliseconds(frame * STEPS + step));
        for (; call < calls * (step + 1) / STEPS; ++call) {
            sender.data(call, 0, frame);
            sender.data(call, 1, frame);
        }
        sender.flush();
    }
}

int send_calls(const char* address, unsigned calls, unsigned seconds, bool singly) {
    Sender sender(address, singly);
    for (unsigned call = 0; call < calls; ++call) {
        sender.start(call);
    }
    sender.flush();
    const auto begin = Clock::now();
    const std::uint64_t before = sender.total();
    for (std::uint32_t frame = 0; frame < seconds * FRAMES_PER_SECOND; ++frame) {
        send_round(sender, calls, frame, begin);
    }
    const double took = std::chrono::duration<double>(Clock::now() - begin).count();
    const auto data_packets = static_cast<double>(sender.total() - before);
    for (unsigned call = 0; call < calls; ++call) {
        sender.terminate(call);
    }
    sender.flush();
    std::printf("sent %llu packets of %u calls, %.0f data packets/s over %.2f s\n",
                static_cast<unsigned long long>(sender.total()), calls, data_packets / took, took);
    return 0;
}

// Counts the samples of one file, and those that differ from what was sent.
void check_file(const std::string& path, unsigned call, unsigned side, std::uint64_t& samples,
                std::uint64_t& wrong) {
    SF_INFO info{};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    if (file == nullptr) {
        throw std::runtime_error(path + ": " + sf_strerror(nullptr));
    }
    std::vector<std::int16_t> audio(static_cast<std::size_t>(info.frames));
    sf_read_short(file, audio.data(), info.frames);
    sf_close(file);
    samples += audio.size();
    for (std::uint32_t at = 0; at < audio.size(); ++at) {
        wrong += audio[at] != sample(call, side, at) ? 1 : 0;
    }
}

int check_calls(const std::string& folder, unsigned calls) {
    std::uint64_t samples = 0;
    std::uint64_t wrong = 0;
    for (unsigned call = 0; call < calls; ++call) {
        const std::string stem = folder + '/' + utils::str::print_uuid(uuid_of(call).data());
        check_file(stem + "-originator.wav", call, 0, samples, wrong);
        check_file(stem + "-terminator.wav", call, 1, samples, wrong);
    }
    std::printf("checked %llu samples in %u files, %llu differ from what was sent\n",
                static_cast<unsigned long long>(samples), 2 * calls,
                static_cast<unsigned long long>(wrong));
    return wrong == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string verb = argc > 1 ? argv[1] : "";
    const auto number = [argv](int at) {
        return static_cast<unsigned>(std::strtoul(argv[at], nullptr, 10));
    };
    try {
        if ((verb == "send" || verb == "singly") && argc == 5) {
            return send_calls(argv[2], number(3), number(4), verb == "singly");
        }
        if (verb == "check" && argc == 4) {
            return check_calls(argv[2], number(3));
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "node_load: %s\n", error.what());
        return 1;
    }
    std::fprintf(stderr,
                 "usage: node_load send|singly ADDRESS:PORT CALLS SECONDS\n"
                 "       node_load check FOLDER CALLS\n");
    return 2;
}
