#include "tools/call/lossy_network.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <system_error>
#include <tuple>

#include "quorvane/media_packet.h"
#include "tools/address.h"

namespace qv::tools::call {
namespace {

using namespace std::chrono_literals;

// A packet that waits for later ones is passed on when none comes for so long.
constexpr auto QUIET = 100ms;
// After the calls: nothing more comes from the module when nothing came for so long.
constexpr auto LAST_WAIT = 100ms;
constexpr int ROOM = 16 * 1024 * 1024;  // bytes, of the socket that the module sends to
constexpr std::size_t LONGEST = 65'536;

// SplitMix64, a public-domain generator: one step of its state.
std::uint64_t next_random(std::uint64_t& state) {
    state += 0x9E3779B97F4A7C15;
    std::uint64_t value = state;
    value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9;
    value = (value ^ (value >> 27)) * 0x94D049BB133111EB;
    return value ^ (value >> 31);
}

// At least 0, below 1.
double next_share(std::uint64_t& state) {
    return static_cast<double>(next_random(state) >> 11) * 0x1p-53;
}

}  // namespace

LossyNetwork::LossyNetwork(const NetworkPlan& plan, const sockaddr_in& media_node,
                           std::uint64_t seed)
    : plan_(plan), seed_(seed) {
    figures_.used = true;
    figures_.media_node = address_text(media_node);
    sockaddr_in loopback = parse_address("127.0.0.1:0").value();
    // Only root may exceed the system's limit. What does not fit is counted.
    if (::setsockopt(inside_.descriptor(), SOL_SOCKET, SO_RCVBUFFORCE, &ROOM, sizeof ROOM) != 0) {
        ::setsockopt(inside_.descriptor(), SOL_SOCKET, SO_RCVBUF, &ROOM, sizeof ROOM);
    }
    const int on = 1;
    ::setsockopt(inside_.descriptor(), SOL_SOCKET, SO_RXQ_OVFL, &on, sizeof on);
    if (::bind(inside_.descriptor(), reinterpret_cast<sockaddr*>(&loopback), sizeof loopback) !=
            0 ||
        ::connect(outside_.descriptor(), reinterpret_cast<const sockaddr*>(&media_node),
                  sizeof media_node) != 0) {
        throw std::system_error(errno, std::generic_category(), figures_.media_node);
    }
}

LossyNetwork::~LossyNetwork() {
    if (thread_.joinable()) {
        finishing_ = true;
        thread_.join();
    }
}

std::string LossyNetwork::address() const {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    ::getsockname(inside_.descriptor(), reinterpret_cast<sockaddr*>(&address), &size);
    return address_text(address);
}

void LossyNetwork::start() {
    thread_ = std::thread([this] { run(); });
}

NetworkFigures LossyNetwork::finish() {
    finishing_ = true;
    if (thread_.joinable()) {
        thread_.join();
    }
    return figures_;
}

void LossyNetwork::run() {
    Clock::time_point latest = Clock::now();
    while (true) {
        // Taken first: if the thread is held up, what came meanwhile is still taken.
        const Clock::time_point now = Clock::now();
        latest = receive_all() ? now : latest;
        release_quiet(now);
        send_due(now);
        if (finishing_ && delayed_.empty() && now - latest > QUIET + LAST_WAIT) {
            break;
        }
        const auto until_due =
            delayed_.empty()
                ? 10ms
                : std::chrono::duration_cast<std::chrono::milliseconds>(delayed_.top().due - now);
        pollfd input{inside_.descriptor(), POLLIN, 0};
        ::poll(&input, 1, static_cast<int>(std::clamp(until_due, 0ms, 10ms).count()));
    }
    note_error();
}

bool LossyNetwork::receive_all() {
    bool came = false;
    std::array<unsigned char, LONGEST> bytes{};
    std::array<char, CMSG_SPACE(sizeof(std::uint32_t))> control{};
    while (true) {
        iovec place{bytes.data(), bytes.size()};
        msghdr message{};
        message.msg_iov = &place;
        message.msg_iovlen = 1;
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        const ssize_t size = ::recvmsg(inside_.descriptor(), &message, 0);
        if (size < 0) {
            return came;
        }
        came = true;
        for (cmsghdr* head = CMSG_FIRSTHDR(&message); head != nullptr;
             head = CMSG_NXTHDR(&message, head)) {
            if (head->cmsg_level == SOL_SOCKET && head->cmsg_type == SO_RXQ_OVFL) {
                std::uint32_t dropped = 0;
                std::memcpy(&dropped, CMSG_DATA(head), sizeof dropped);
                figures_.overflowed = dropped;
            }
        }
        receive(Datagram(bytes.begin(), bytes.begin() + size));
    }
}

// Draws what happens to each packet when it comes, always with the same number of draws: a seed
// then gives the same losses with and without the other options, however fast the packets come.
void LossyNetwork::receive(const Datagram& datagram) {
    ++figures_.datagrams;
    media::Packet packet;
    const bool known =
        media::decode_packet(datagram.data(), datagram.size(), packet) == media::DecodeResult::OK;
    const bool is_data = known && packet.type == media::PacketType::DATA;
    const std::string uuid =
        known ? std::string(packet.call_uuid, packet.call_uuid + media::UUID_SIZE) : std::string();
    Stream& stream = stream_of({uuid, is_data ? 1U + packet.leg() : 0U});
    stream.latest = Clock::now();
    const bool lost = 100 * next_share(stream.random) < plan_.lose_percent;
    const bool twice = 100 * next_share(stream.random) < plan_.duplicate_percent;
    figures_.lost += lost ? 1 : 0;
    figures_.lost_data += lost && is_data ? 1 : 0;
    figures_.duplicated += !lost && twice ? 1 : 0;
    const int copies = lost ? 0 : twice ? 2 : 1;
    for (int copy = 0; copy < 2; ++copy) {
        Held held = draw_copy(stream);
        if (copy < copies) {
            held.datagram = datagram;
            stream.held.push_back(std::move(held));
        }
    }
    ++stream.packets;
    release(stream, is_data ? stream.packets : UINT64_MAX);
}

LossyNetwork::Stream& LossyNetwork::stream_of(const StreamName& name) {
    const auto [found, is_new] = streams_.try_emplace(name);
    if (is_new) {
        const auto [call, is_new_call] = calls_.try_emplace(name.first, next_call_);
        next_call_ += is_new_call ? 1 : 0;
        std::uint64_t mixed = seed_ ^ (call->second << 2) ^ name.second;
        found->second.random = next_random(mixed);
    }
    return found->second;
}

// Returns a copy of the stream's next packet, without its bytes.
LossyNetwork::Held LossyNetwork::draw_copy(Stream& stream) const {
    const auto later =
        static_cast<std::uint64_t>(next_share(stream.random) * (1.0 + plan_.reorder_packets));
    const double delay_ms =
        plan_.delay_ms.min + next_share(stream.random) * (plan_.delay_ms.max - plan_.delay_ms.min);
    const auto delay = std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double, std::milli>(delay_ms));
    return {stream.packets + 1 + later, stream.packets, delay, {}};
}

// Passes on what is to come before the packet after that number.
void LossyNetwork::release(Stream& stream, std::uint64_t number) {
    std::vector<Held>& held = stream.held;
    std::stable_sort(held.begin(), held.end(),
                     [](const Held& one, const Held& two) { return one.release < two.release; });
    const auto end = std::find_if(held.begin(), held.end(),
                                  [&](const Held& each) { return each.release > number; });
    for (auto each = held.begin(); each != end; ++each) {
        pass_on(stream, *each);
    }
    held.erase(held.begin(), end);
}

void LossyNetwork::release_quiet(Clock::time_point now) {
    if (plan_.reorder_packets == 0) {
        return;
    }
    for (auto& [name, stream] : streams_) {
        if (!stream.held.empty() && now - stream.latest >= QUIET) {
            release(stream, UINT64_MAX);
        }
    }
}

void LossyNetwork::pass_on(Stream& stream, const Held& held) {
    figures_.reordered += held.number < stream.latest_sent ? 1 : 0;
    stream.latest_sent = std::max(stream.latest_sent, held.number);
    if (held.delay.count() == 0) {
        send(held.datagram);
    } else {
        delayed_.push({Clock::now() + held.delay, next_order_++, held.datagram});
    }
}

void LossyNetwork::send_due(Clock::time_point now) {
    while (!delayed_.empty() && delayed_.top().due <= now) {
        send(delayed_.top().datagram);
        delayed_.pop();
    }
}

// The refusal of one datagram is reported with the next, which is not sent then.
void LossyNetwork::send(const Datagram& datagram) {
    if (::send(outside_.descriptor(), datagram.data(), datagram.size(), MSG_NOSIGNAL) >= 0) {
        return;
    }
    if (errno == ECONNREFUSED) {
        ++figures_.refused;
        ::send(outside_.descriptor(), datagram.data(), datagram.size(), MSG_NOSIGNAL);
    }
}

void LossyNetwork::note_error() {
    int error = 0;
    socklen_t size = sizeof error;
    if (::getsockopt(outside_.descriptor(), SOL_SOCKET, SO_ERROR, &error, &size) == 0 &&
        error == ECONNREFUSED) {
        ++figures_.refused;
    }
}

}  // namespace qv::tools::call
