#include "quorvane_lib/net_socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "quorvane_lib/log.h"
#include "quorvane_lib/utils_str.h"

namespace qv::net {

namespace {

using utils::str::split;
using utils::str::trim_left;
using utils::str::trim_right;
using utils::str::try_parse_value;

constexpr unsigned short DISCARD_PORT = 9;

const sockaddr* generic(const sockaddr_in& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

bool is_space(char c) {
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

void set_loopback(sockaddr_in& out) {
    out.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
}

// Reads the whole of `text` as a port.
bool parse_port(const std::string& text, sockaddr_in& out) {
    unsigned short port = 0;
    if (!try_parse_value<unsigned short>(text.c_str(), port)) {
        return false;
    }
    out.sin_port = htons(port);
    return true;
}

// Reads "address:port" with its colon at `colon`; either side may be empty.
bool parse_pair(const std::string& text, std::size_t colon, sockaddr_in& out) {
    const std::string host = text.substr(0, colon);
    const std::string port = text.substr(colon + 1);
    if (host.empty()) {
        set_loopback(out);
    }
    if (!port.empty() && !parse_port(port, out)) {
        return false;
    }
    return host.empty() || ::inet_pton(AF_INET, host.c_str(), &out.sin_addr) == 1;
}

// Reads an address or a port that stands alone.
bool parse_single(const std::string& text, sockaddr_in& out) {
    const int result = ::inet_pton(AF_INET, text.c_str(), &out.sin_addr);
    if (result != 0) {
        return result == 1;
    }
    set_loopback(out);
    return parse_port(text, out);
}

struct PortRange {
    unsigned short first = 0;
    unsigned short last = 0;
};

using ReadPort = bool (*)(const std::string& text, unsigned short& port);

// The port as a text stream reads it: 0 for no number, the largest port for a larger number.
bool read_port_leniently(const std::string& text, unsigned short& port) {
    std::istringstream(text) >> port;
    return true;
}

bool read_port_strictly(const std::string& text, unsigned short& port) {
    return static_cast<bool>(try_parse_value<unsigned short>(text.c_str(), port));
}

bool parse_range(const std::string& text, ReadPort read_port, PortRange& range) {
    std::vector<std::string> ends;
    split(text, '-', ends, false);
    if (ends.empty() || ends.size() > 2 || !read_port(ends.front(), range.first) ||
        !read_port(ends.back(), range.last)) {
        return false;
    }
    range.last = std::max(range.first, range.last);
    return true;
}

// Calls `append(host, port)` for every port of every item of a host list.
template <typename Append>
void for_each_host(const std::string& text, ReadPort read_port, Append append) {
    std::vector<std::string> items;
    split(text, ',', items, false);
    for (const std::string& item : items) {
        std::vector<std::string> parts;
        split(item, ':', parts, false);
        PortRange range;
        if (parts.size() != 2 ||
            !parse_range(trim_right(trim_left(parts.back())), read_port, range)) {
            continue;
        }
        const std::string host = trim_right(trim_left(parts.front()));
        for (unsigned port = range.first; port <= range.last; ++port) {
            append(host, static_cast<unsigned short>(port));
        }
    }
}

class Descriptor {
  public:
    explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() {
        if (descriptor_ >= 0) {
            ::shutdown(descriptor_, SHUT_RDWR);
            ::close(descriptor_);
        }
    }
    int get() const { return descriptor_; }

  private:
    int descriptor_;
};

// Logs "SOCKET[tag]: what" and the text of the errno value `error`, as from the line `line` of
// this file. The pieces are passed as values, so that a caller can keep them in registers.
template <typename... Pieces>
[[gnu::cold, gnu::noinline]] void log_error(int line, int error, Pieces... pieces) {
    log::ErrorMessage message;
    ((message.stream << "SOCKET[") << ... << pieces);
    // Not through a std::string: without memory it would throw, and the stream would swallow
    // the exception.
    std::array<char, 128> unknown{};
    message.stream << ", error (" << error
                   << "): " << ::strerror_r(error, unknown.data(), unknown.size());
    QV_LOG_WRITE_AT(line, message);
}

// Lets a send fail when the send buffer is still full after the shortest time that the system
// can wait, one or two ticks of its clock. All calls share the buffer: without the limit,
// datagrams for hosts that do not answer or for a slow link would make media threads wait for
// seconds. O_NONBLOCK is no way, because a read has to wait.
void limit_send_wait(int descriptor) {
    const timeval least{0, 1};
    if (::setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &least, sizeof(least)) != 0) {
        log_error(__LINE__, errno, descriptor, "]: failed to limit the wait of a send");
    }
}

// Programs that the host starts must not inherit the socket: it would outlive the module in them.
void keep_from_programs(int descriptor) {
    ::fcntl(descriptor, F_SETFD, FD_CLOEXEC);
}

// The system makes a send wait exactly while this is true.
bool send_buffer_is_full(int descriptor) {
    int queued = 0;
    int capacity = 0;
    socklen_t size = sizeof(capacity);
    return ::ioctl(descriptor, SIOCOUTQ, &queued) == 0 &&
           ::getsockopt(descriptor, SOL_SOCKET, SO_SNDBUF, &capacity, &size) == 0 &&
           queued >= capacity;
}

}  // namespace

bool parse_addr(const char* text, const char* end, sockaddr_in& out) {
    if (text == nullptr) {
        return false;
    }
    const char* const stop = end == nullptr ? text + std::strlen(text) : end;
    const std::string rest(std::find_if_not(text, stop, is_space), stop);
    if (rest.empty()) {
        // Does not set the family, unlike every other path. See docs/design.md, Odd on purpose:
        // addresses.
        set_loopback(out);
        out.sin_port = 0;
        return true;
    }
    out = sockaddr_in{};
    out.sin_family = AF_INET;
    const std::size_t colon = rest.rfind(':');
    return colon == std::string::npos ? parse_single(rest, out) : parse_pair(rest, colon, out);
}

void parse_hosts(const std::string& text, std::list<Host>& out) {
    for_each_host(text, read_port_leniently, [&out](const std::string& host, unsigned short port) {
        out.push_back({host, port});
    });
}

void parse_addrs(const std::string& text, std::list<HostAddr>& out) {
    for_each_host(text, read_port_strictly, [&out](const std::string& host, unsigned short port) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        ::inet_pton(AF_INET, host.c_str(), &address.sin_addr);
        out.push_back({host, port, address});
    });
}

std::string get_host_ip(std::uint32_t peer, const std::string& fallback) {
    if (peer == INADDR_ANY || peer == INADDR_NONE) {
        return fallback;
    }
    const Descriptor descriptor(::socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(DISCARD_PORT);
    address.sin_addr.s_addr = peer;
    if (descriptor.get() < 0 ||
        ::connect(descriptor.get(), generic(address), sizeof(address)) != 0) {
        return fallback;
    }
    socklen_t size = sizeof(address);
    if (::getsockname(descriptor.get(), reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        return fallback;
    }
    std::array<char, INET_ADDRSTRLEN> text{};
    const char* result = ::inet_ntop(AF_INET, &address.sin_addr, text.data(), text.size());
    return result == nullptr ? fallback : result;
}

std::string get_host_name() {
    // The longest name that Linux knows, 64 bytes, and its terminating zero.
    std::array<char, 65> name{};
    if (::gethostname(name.data(), name.size()) != 0) {
        return {};
    }
    return {name.data(), ::strnlen(name.data(), name.size())};
}

Socket::~Socket() {
    close();
}

bool Socket::open(int port, unsigned int address) {
    if (descriptor() >= 0) {
        return true;
    }
    const int created = ::socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    if (created < 0) {
        log_error(__LINE__, errno, " ]: failed to create a socket");
        return false;
    }
    keep_from_programs(created);
    limit_send_wait(created);
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_port = htons(static_cast<std::uint16_t>(port));
    local.sin_addr.s_addr = htonl(address);
    const bool bound = ::bind(created, generic(local), sizeof(local)) == 0;
    const int error = errno;
    // Stored only after bind(), because a send from another thread would bind the socket first.
    // Stored even if bind() failed, so that a later open succeeds without binding. See
    // docs/design.md, Odd on purpose: socket.
    const std::int32_t opened = use_taken_number(created);
    descriptor_.store(opened, std::memory_order_relaxed);
    if (!bound) {
        log_error(__LINE__, error, opened, "]: failed to bind a socket");
        return false;
    }
    return true;
}

// Moves the socket `created` to the number that was left taken, and returns the socket's
// number. Otherwise every reload during calls would use up one more number.
std::int32_t Socket::use_taken_number(std::int32_t created) {
    if (taken_number_ < 0 || ::dup3(created, taken_number_, O_CLOEXEC) < 0) {
        return created;
    }
    ::close(created);
    return std::exchange(taken_number_, -1);
}

bool Socket::send(const sockaddr_in& to, const char* data, unsigned long size) {
    if (data == nullptr) {
        return true;
    }
    const int target = descriptor();
    unsigned long sent = 0;
    while (sent < size) {
        const ssize_t count =
            ::sendto(target, data + sent, size - sent, 0, generic(to), sizeof(to));
        if (count < 0) {
            // Logs the address of the data as a decimal number. See docs/design.md, Odd on
            // purpose: socket.
            log_error(__LINE__, errno, target, "]: failed to send a data (", size, ": ",
                      reinterpret_cast<std::uintptr_t>(data), ")");
            return false;
        }
        sent += static_cast<unsigned long>(count);
    }
    return true;
}

// Polls, because the system wakes a waiting thread only when half of the buffer is free, which
// does not happen while other threads keep it full.
void Socket::wait_for_room(std::chrono::milliseconds patience) const {
    const auto give_up = std::chrono::steady_clock::now() + patience;
    while (send_buffer_is_full(descriptor()) && std::chrono::steady_clock::now() < give_up) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

long Socket::read(unsigned char* buffer, unsigned long size) {
    const ssize_t count = ::recv(descriptor(), buffer, size, MSG_NOSIGNAL);
    if (count >= 0) {
        return count;
    }
    const int error = errno;
    if (error == EINTR) {
        log::InfoMessage message;
        message.stream << "SOCKET[" << descriptor() << "]: system interrupted call";
        QV_LOG_WRITE(message);
        return 0;
    }
    // A failed read ends the process. See docs/design.md, Odd on purpose: socket.
    log_error(__LINE__, error, descriptor(), "]: failed to read a data");
    close();
    std::exit(-1);  // NOLINT(concurrency-mt-unsafe): nothing is worth saving.
}

void Socket::close() {
    const int closed = descriptor_.exchange(-1, std::memory_order_relaxed);
    if (closed >= 0) {
        ::shutdown(closed, SHUT_RDWR);
        ::close(closed);
    }
    release_number();
}

void Socket::close_under_senders() {
    const int closed = descriptor_.exchange(-1, std::memory_order_relaxed);
    if (closed < 0) {
        return;
    }
    ::shutdown(closed, SHUT_RDWR);
    // The system refuses to send on an O_PATH descriptor, as on a closed one. If there is none,
    // the number stays with the socket, which is shut down and cannot send either.
    const int dead = ::open("/", O_PATH | O_CLOEXEC);
    if (dead >= 0) {
        ::dup3(dead, closed, O_CLOEXEC);
        ::close(dead);
    }
    taken_number_ = closed;
}

void Socket::release_number() {
    if (taken_number_ >= 0) {
        ::close(std::exchange(taken_number_, -1));
    }
}

}  // namespace qv::net
