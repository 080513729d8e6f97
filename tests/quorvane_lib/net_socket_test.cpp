#include "quorvane_lib/net_socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <set>
#include <type_traits>
#include <vector>

#include "tests/support/descriptor_limit.h"
#include "tests/support/log_recorder.h"
#include "tests/support/socket_errors.h"
#include "tests/support/system_calls.h"

namespace qv::net {
namespace {

using tests::LogLine;
using tests::LogRecorder;
using tests::Outcome;
using tests::SeenCall;
using tests::SystemCalls;
using tests::SystemError;
using Lines = std::vector<LogLine>;

constexpr sa_family_t UNTOUCHED_FAMILY = 0x7777;

std::string text_of(const sockaddr_in& address) {
    char text[INET_ADDRSTRLEN] = "";
    ::inet_ntop(AF_INET, &address.sin_addr, text, sizeof(text));
    return std::string(text) + ":" + std::to_string(ntohs(address.sin_port));
}

// Parses into an address filled with 0x77, so that tests see which bytes stay unchanged.
struct Parsed {
    explicit Parsed(const char* text, const char* end = nullptr) {
        std::memset(&address, 0x77, sizeof(address));
        valid = parse_addr(text, end, address);
    }
    std::string text() const { return text_of(address); }

    sockaddr_in address;
    bool valid = false;
};

TEST(ParseAddr, AnAddressAndAPort) {
    const Parsed parsed("10.1.2.3:4000");
    EXPECT_TRUE(parsed.valid);
    EXPECT_EQ(parsed.address.sin_family, AF_INET);
    const unsigned char expected[] = {0x0F, 0xA0, 0x0A, 0x01, 0x02, 0x03};
    EXPECT_EQ(std::memcmp(&parsed.address.sin_port, expected, 2), 0);
    EXPECT_EQ(std::memcmp(&parsed.address.sin_addr, expected + 2, 4), 0);
}

TEST(ParseAddr, WhatIsLeftOutIsTheLoopbackAddressOrPortZero) {
    struct Row {
        const char* text;
        const char* address;
    };
    const Row rows[] = {
        {":4000", "127.0.0.1:4000"},
        {"4000", "127.0.0.1:4000"},
        {"10.1.2.3", "10.1.2.3:0"},
        {"10.0.0.1:", "10.0.0.1:0"},
        {":", "127.0.0.1:0"},
        {" \t\n\v\f\r10.1.2.3:65535", "10.1.2.3:65535"},
        {"10.0.0.1: 80", "10.0.0.1:80"},
        {"10.0.0.1:+80", "10.0.0.1:80"},
        {"0.0.0.0:0", "0.0.0.0:0"},
        {"255.255.255.255:1", "255.255.255.255:1"},
        {"0", "127.0.0.1:0"},
    };
    for (const Row& row : rows) {
        const Parsed parsed(row.text);
        EXPECT_TRUE(parsed.valid) << row.text;
        EXPECT_EQ(parsed.text(), row.address) << row.text;
        EXPECT_EQ(parsed.address.sin_family, AF_INET) << row.text;
    }
}

TEST(ParseAddr, TheRestOfTheAddressIsZeroed) {
    const Parsed parsed("10.1.2.3:4000");
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(parsed.address.sin_zero), 8),
              std::string(8, '\0'));
}

TEST(ParseAddr, ABlankTextIsTheLoopbackAddressAndLeavesTheFamilyAlone) {
    for (const char* text : {"", "  ", "\t\n"}) {
        const Parsed parsed(text);
        EXPECT_TRUE(parsed.valid);
        EXPECT_EQ(parsed.text(), "127.0.0.1:0");
        EXPECT_EQ(parsed.address.sin_family, UNTOUCHED_FAMILY);
        EXPECT_EQ(parsed.address.sin_zero[0], 0x77);
    }
}

TEST(ParseAddr, ANullTextFailsAndTouchesNothing) {
    const Parsed parsed(nullptr);
    EXPECT_FALSE(parsed.valid);
    EXPECT_EQ(parsed.address.sin_family, UNTOUCHED_FAMILY);
}

TEST(ParseAddr, BadPortsFail) {
    for (const char* text :
         {"10.0.0.1:70000", "10.0.0.1:65536", "10.0.0.1:12x", "10.0.0.1:x",
          "10.0.0.1: ", "10.0.0.1:-1", "10.0.0.1:80 ", ":x", "70000", "12x", "10.0.0.1 "}) {
        EXPECT_FALSE(Parsed(text).valid) << text;
    }
}

TEST(ParseAddr, NamesAreNotResolved) {
    for (const char* text : {"medianode:5000", "localhost", "localhost:", "1.2.3:5", "1.2.3.4.5:6",
                             "::1", "256.0.0.1:1", "10.0.0.1:5:6", " :5x", "10.0.0.1 :5"}) {
        EXPECT_FALSE(Parsed(text).valid) << text;
    }
}

TEST(ParseAddr, AFailureKeepsWhatWasParsedBeforeIt) {
    const Parsed name("medianode:5000");
    EXPECT_EQ(name.text(), "0.0.0.0:5000");
    EXPECT_EQ(name.address.sin_family, AF_INET);
    EXPECT_EQ(Parsed("12x").text(), "127.0.0.1:0");
    EXPECT_EQ(Parsed(":12x").text(), "127.0.0.1:0");
}

TEST(ParseAddr, AnEndBoundsTheText) {
    const char* const text = "10.1.2.3:4000";
    EXPECT_EQ(Parsed(text, text + 11).text(), "10.1.2.3:40");
    EXPECT_EQ(Parsed(text, text + 8).text(), "10.1.2.3:0");
    EXPECT_EQ(Parsed(text, text).text(), "127.0.0.1:0");
    EXPECT_EQ(Parsed(text, text).address.sin_family, UNTOUCHED_FAMILY);
}

std::vector<std::string> hosts_of(const std::string& text) {
    std::list<Host> hosts;
    parse_hosts(text, hosts);
    std::vector<std::string> texts;
    for (const Host& host : hosts) {
        texts.push_back("<" + host.host + ">:" + std::to_string(host.port));
    }
    return texts;
}

using Texts = std::vector<std::string>;

TEST(ParseHosts, PortsAndRangesInRisingOrder) {
    EXPECT_EQ(hosts_of("a:1, b : 5-7 ,c"), (Texts{"<a>:1", "<b>:5", "<b>:6", "<b>:7"}));
}

TEST(ParseHosts, ARangeThatFallsIsItsFirstPort) {
    EXPECT_EQ(hosts_of("a:9-3"), (Texts{"<a>:9"}));
    EXPECT_EQ(hosts_of("a:9-9"), (Texts{"<a>:9"}));
}

TEST(ParseHosts, ARangeMayEndAtTheLastPort) {
    EXPECT_EQ(hosts_of("a:65534-65535"), (Texts{"<a>:65534", "<a>:65535"}));
    EXPECT_EQ(hosts_of("a:65535-65535"), (Texts{"<a>:65535"}));
    EXPECT_EQ(hosts_of("a:0-65535").size(), 65536u);
}

TEST(ParseHosts, ItemsWithoutExactlyTwoPartsAreSkipped) {
    EXPECT_EQ(hosts_of("a,b:,:5,a:1:2,:,"), Texts{});
    EXPECT_EQ(hosts_of(""), Texts{});
    EXPECT_EQ(hosts_of(",,a:1,,"), (Texts{"<a>:1"}));
}

TEST(ParseHosts, EmptyPiecesAreDropped) {
    EXPECT_EQ(hosts_of("a::5"), (Texts{"<a>:5"}));
    EXPECT_EQ(hosts_of(":a:5:"), (Texts{"<a>:5"}));
    EXPECT_EQ(hosts_of("a:-5"), (Texts{"<a>:5"}));
    EXPECT_EQ(hosts_of("a:5-"), (Texts{"<a>:5"}));
    EXPECT_EQ(hosts_of("a:5--7"), (Texts{"<a>:5", "<a>:6", "<a>:7"}));
}

TEST(ParseHosts, ARangeOfNoOrOfThreePortsIsSkipped) {
    EXPECT_EQ(hosts_of("a: "), Texts{});
    EXPECT_EQ(hosts_of("a:-"), Texts{});
    EXPECT_EQ(hosts_of("a:1-2-3"), Texts{});
}

TEST(ParseHosts, AHostMayBeBlank) {
    EXPECT_EQ(hosts_of(" :5"), (Texts{"<>:5"}));
}

TEST(ParseHosts, APortIsWhatATextStreamReads) {
    EXPECT_EQ(hosts_of("a:x"), (Texts{"<a>:0"}));
    EXPECT_EQ(hosts_of("a:12x"), (Texts{"<a>:12"}));
    EXPECT_EQ(hosts_of("a:+12"), (Texts{"<a>:12"}));
    EXPECT_EQ(hosts_of("a:1 - 2"), (Texts{"<a>:1", "<a>:2"}));
    EXPECT_EQ(hosts_of("a:x-2"), (Texts{"<a>:0", "<a>:1", "<a>:2"}));
}

TEST(ParseHosts, APortThatOverflowsIsTheLargest) {
    EXPECT_EQ(hosts_of("a:65536"), (Texts{"<a>:65535"}));
    EXPECT_EQ(hosts_of("a:99999999999999999999"), (Texts{"<a>:65535"}));
    EXPECT_EQ(hosts_of("a:65534-70000"), (Texts{"<a>:65534", "<a>:65535"}));
}

TEST(ParseHosts, HostsAreKeptAsWritten) {
    EXPECT_EQ(hosts_of("\tnode one\r\n:1,10.0.0.1:2"), (Texts{"<node one>:1", "<10.0.0.1>:2"}));
}

TEST(ParseHosts, EntriesAreAppended) {
    std::list<Host> hosts{{"before", 1}};
    parse_hosts("a:2", hosts);
    ASSERT_EQ(hosts.size(), 2u);
    EXPECT_EQ(hosts.front().host, "before");
    EXPECT_EQ(hosts.back().host, "a");
}

std::vector<std::string> addrs_of(const std::string& text) {
    std::list<HostAddr> hosts;
    parse_addrs(text, hosts);
    std::vector<std::string> texts;
    for (const HostAddr& host : hosts) {
        EXPECT_EQ(host.addr.sin_family, AF_INET);
        texts.push_back("<" + host.host + ">:" + std::to_string(host.port) + " " +
                        text_of(host.addr));
    }
    return texts;
}

TEST(ParseAddrs, EveryEntryGetsItsSocketAddress) {
    EXPECT_EQ(addrs_of("10.0.0.1:1, 10.0.0.2 : 65534-65535 ,c"),
              (Texts{"<10.0.0.1>:1 10.0.0.1:1", "<10.0.0.2>:65534 10.0.0.2:65534",
                     "<10.0.0.2>:65535 10.0.0.2:65535"}));
}

TEST(ParseAddrs, ANameLeavesTheAddressZero) {
    EXPECT_EQ(addrs_of("medianode:5000"), (Texts{"<medianode>:5000 0.0.0.0:5000"}));
}

TEST(ParseAddrs, ItemsWithAPortThatIsNotWhollyANumberAreSkipped) {
    EXPECT_EQ(addrs_of("a:x,a:12x,a:65536,a:1-x,a:x-1,a:1 -2,a: ,a:7"), (Texts{"<a>:7 0.0.0.0:7"}));
}

TEST(ParseAddrs, ARangeThatFallsIsItsFirstPort) {
    EXPECT_EQ(addrs_of("a:9-3"), (Texts{"<a>:9 0.0.0.0:9"}));
}

TEST(ParseAddrs, EntriesAreAppended) {
    std::list<HostAddr> hosts(1);
    parse_addrs("a:2", hosts);
    EXPECT_EQ(hosts.size(), 2u);
}

class HostIp : public testing::Test {
  protected:
    static constexpr std::uint32_t NO_PEER = 0;
    // The names of all calls except the first `count`.
    Texts names_from(std::size_t count) const {
        const Texts names = calls_.names();
        return {names.begin() + static_cast<std::ptrdiff_t>(count), names.end()};
    }

    const std::uint32_t loopback_ = htonl(INADDR_LOOPBACK);
    SystemCalls calls_;
};

TEST_F(HostIp, PeersThatAreNoneGiveTheFallbackWithoutASocket) {
    EXPECT_EQ(get_host_ip(NO_PEER, "fallback"), "fallback");
    EXPECT_EQ(get_host_ip(0xFFFFFFFF, "fallback"), "fallback");
    EXPECT_TRUE(calls_.names().empty());
}

TEST_F(HostIp, TheAddressThatReachesThePeer) {
    EXPECT_EQ(get_host_ip(loopback_, "fallback"), "127.0.0.1");
    EXPECT_EQ(calls_.names(), (Texts{"socket", "connect", "getsockname", "shutdown", "close"}));
    EXPECT_EQ(calls_.seen("socket")[0].numbers, (std::vector<long>{AF_INET, SOCK_DGRAM, 17}));
    EXPECT_EQ(calls_.seen("connect")[0].text, "127.0.0.1:9");
}

TEST_F(HostIp, EveryErrorOfCreatingTheSocketGivesTheFallback) {
    for (const SystemError& error : tests::SOCKET_ERRORS) {
        calls_.next("socket", Outcome::fail(error.number));
        EXPECT_EQ(get_host_ip(loopback_, "fallback"), "fallback") << error.text;
    }
    EXPECT_EQ(calls_.names(), Texts(std::size(tests::SOCKET_ERRORS), "socket"));
}

TEST_F(HostIp, EveryErrorOfConnectingGivesTheFallbackAndClosesTheSocket) {
    for (const SystemError& error : tests::CONNECT_ERRORS) {
        const std::size_t before = calls_.names().size();
        calls_.next("connect", Outcome::fail(error.number));
        EXPECT_EQ(get_host_ip(loopback_, "fallback"), "fallback") << error.text;
        EXPECT_EQ(names_from(before), (Texts{"socket", "connect", "shutdown", "close"}));
    }
}

TEST_F(HostIp, EveryErrorOfAskingForTheNameGivesTheFallbackAndClosesTheSocket) {
    for (const SystemError& error : tests::GETSOCKNAME_ERRORS) {
        const std::size_t before = calls_.names().size();
        calls_.next("getsockname", Outcome::fail(error.number));
        EXPECT_EQ(get_host_ip(loopback_, "fallback"), "fallback") << error.text;
        EXPECT_EQ(names_from(before),
                  (Texts{"socket", "connect", "getsockname", "shutdown", "close"}));
    }
}

TEST_F(HostIp, AfterAFailureTheNextIsTriedNormally) {
    calls_.next("connect", Outcome::fail(EINTR));
    EXPECT_EQ(get_host_ip(loopback_, "fallback"), "fallback");
    EXPECT_EQ(get_host_ip(loopback_, "fallback"), "127.0.0.1");
}

// The system's own name of the machine.
TEST(HostName, IsTheSystemsName) {
    char name[256] = "";
    ASSERT_EQ(::gethostname(name, sizeof(name)), 0);
    EXPECT_EQ(get_host_name(), name);
}

TEST(HostName, HasRoomForTheLongestNameThatTheSystemKnows) {
    const SystemCalls calls;
    get_host_name();
    EXPECT_EQ(calls.seen("gethostname")[0].numbers, (std::vector<long>{65}));
}

TEST(HostName, IsEmptyWhenTheSystemDoesNotTell) {
    SystemCalls calls;
    calls.next("gethostname", Outcome::fail(EFAULT));
    EXPECT_EQ(get_host_name(), "");
}

// A socket of the library, and one of the test's own at the other end.
class SocketTest : public testing::Test {
  protected:
    SocketTest() {
        peer_ = ::socket(AF_INET, SOCK_DGRAM, 0);
        peer_address_.sin_family = AF_INET;
        peer_address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::bind(peer_, reinterpret_cast<sockaddr*>(&peer_address_), 16), 0);
        socklen_t size = sizeof(peer_address_);
        EXPECT_EQ(::getsockname(peer_, reinterpret_cast<sockaddr*>(&peer_address_), &size), 0);
        const timeval patience{2, 0};
        ::setsockopt(peer_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
        calls_ = std::make_unique<SystemCalls>();
    }
    ~SocketTest() override {
        calls_.reset();
        ::close(peer_);
    }

    void open() { ASSERT_TRUE(socket_.open(0, 0)); }
    bool send(const std::string& data) {
        return socket_.send(peer_address_, data.data(), data.size());
    }
    std::string received() {
        char buffer[2048];
        const ssize_t size = ::recv(peer_, buffer, sizeof(buffer), 0);
        return size < 0 ? "nothing" : std::string(buffer, static_cast<std::size_t>(size));
    }
    bool nothing_is_waiting() {
        char byte = 0;
        return ::recv(peer_, &byte, 1, MSG_DONTWAIT) < 0;
    }
    // Sends from the test's socket to the address that the library's socket is bound to.
    void send_back(const std::string& data) {
        ASSERT_TRUE(send("where from"));
        char buffer[64];
        sockaddr_in from{};
        socklen_t size = sizeof(from);
        ASSERT_EQ(::recvfrom(peer_, buffer, 64, 0, reinterpret_cast<sockaddr*>(&from), &size), 10);
        ASSERT_EQ(
            ::sendto(peer_, data.data(), data.size(), 0, reinterpret_cast<sockaddr*>(&from), size),
            static_cast<ssize_t>(data.size()));
    }
    long descriptor() const { return calls_->seen("socket").back().result; }
    std::string tag() const { return "SOCKET[" + std::to_string(descriptor()) + "]"; }

    int peer_ = -1;
    sockaddr_in peer_address_{};
    LogRecorder log_;
    std::unique_ptr<SystemCalls> calls_;
    Socket socket_;
};

TEST(SocketClass, HasAVirtualDestructorAndIsNotCopied) {
    EXPECT_TRUE(std::has_virtual_destructor_v<Socket>);
    EXPECT_FALSE(std::is_copy_constructible_v<Socket>);
}

TEST_F(SocketTest, OpeningCreatesAUdpSocketAndBindsIt) {
    EXPECT_TRUE(socket_.open(0, 0));
    EXPECT_EQ(calls_->names(), (Texts{"socket", "setsockopt", "bind"}));
    EXPECT_EQ(calls_->seen("socket")[0].numbers, (std::vector<long>{AF_INET, SOCK_DGRAM, 17}));
    EXPECT_EQ(calls_->seen("bind")[0].numbers, (std::vector<long>{descriptor(), AF_INET, 16}));
    EXPECT_EQ(calls_->seen("bind")[0].text, "0.0.0.0:0");
    EXPECT_EQ(log_.lines, Lines{});
}

TEST_F(SocketTest, PortAndAddressAreInHostByteOrder) {
    calls_->next("bind", Outcome::answer(0));
    EXPECT_TRUE(socket_.open(4660, 0x7F000001));
    EXPECT_EQ(calls_->seen("bind")[0].text, "127.0.0.1:4660");
}

TEST_F(SocketTest, OpeningTwiceCreatesNoSecondDescriptor) {
    open();
    EXPECT_TRUE(socket_.open(0, 0));
    EXPECT_EQ(calls_->names(), (Texts{"socket", "setsockopt", "bind"}));
}

TEST_F(SocketTest, EveryErrorOfCreationIsLoggedAndMayBeTriedAgain) {
    for (const SystemError& error : tests::SOCKET_ERRORS) {
        Socket socket;
        calls_->next("socket", Outcome::fail(error.number));
        log_.lines.clear();
        EXPECT_FALSE(socket.open(0, 0));
        EXPECT_EQ(log_.lines,
                  (Lines{{log::ERROR,
                          std::string("SOCKET[ ]: failed to create a socket, ") + error.text}}));
        EXPECT_EQ(calls_->names().back(), "socket");
        EXPECT_TRUE(socket.open(0, 0)) << error.text;
    }
}

TEST_F(SocketTest, NoDescriptorIsOneOfThem) {
    calls_->next("socket", Outcome::starve());
    EXPECT_FALSE(socket_.open(0, 0));
    EXPECT_EQ(log_.lines, (Lines{{log::ERROR,
                                  "SOCKET[ ]: failed to create a socket, error (24): "
                                  "Too many open files"}}));
}

TEST_F(SocketTest, OnlySendsAreKeptFromWaiting) {
    open();
    const SeenCall call = calls_->seen("setsockopt").at(0);
    EXPECT_EQ(call.numbers, (std::vector<long>{descriptor(), SOL_SOCKET, SO_SNDTIMEO}));
    EXPECT_EQ(::fcntl(static_cast<int>(descriptor()), F_GETFL) & O_NONBLOCK, 0);
    timeval patience{-1, -1};
    socklen_t size = sizeof(patience);
    ASSERT_EQ(
        ::getsockopt(static_cast<int>(descriptor()), SOL_SOCKET, SO_RCVTIMEO, &patience, &size), 0);
    EXPECT_EQ(patience.tv_sec, 0);  // Zero means that it waits for ever.
    EXPECT_EQ(patience.tv_usec, 0);
}

TEST_F(SocketTest, ASocketWhoseSendsMayWaitIsBetterThanNone) {
    calls_->next("setsockopt", Outcome::fail(ENOPROTOOPT));
    open();
    EXPECT_EQ(log_.lines, (Lines{{log::ERROR, tag() + ": failed to limit the wait of a send, "
                                                      "error (92): Protocol not available"}}));
    EXPECT_TRUE(send("data"));
    EXPECT_EQ(received(), "data");
}

TEST_F(SocketTest, EachErrorLineHasAPlaceOfItsOwnInTheSource) {
    calls_->next("socket", Outcome::fail(EMFILE));
    socket_.open(0, 0);
    calls_->next("setsockopt", Outcome::fail(EINVAL));
    calls_->next("bind", Outcome::fail(EADDRINUSE));
    socket_.open(0, 0);
    calls_->next("sendto", Outcome::fail(EPERM));
    send("abc");
    ASSERT_EQ(log_.places.size(), 4U);
    EXPECT_EQ(std::set<int>(log_.places.begin(), log_.places.end()).size(), 4U);
}

TEST_F(SocketTest, EveryErrorOfBindingIsLoggedAndKeepsTheDescriptor) {
    for (const SystemError& error : tests::BIND_ERRORS) {
        Socket socket;
        calls_->next("bind", Outcome::fail(error.number));
        log_.lines.clear();
        EXPECT_FALSE(socket.open(0, 0));
        EXPECT_EQ(log_.lines,
                  (Lines{{log::ERROR, tag() + ": failed to bind a socket, " + error.text}}));
        EXPECT_EQ(calls_->names().back(), "bind");
    }
}

TEST_F(SocketTest, AfterAFailedBindOpeningSucceedsWithoutBinding) {
    calls_->next("bind", Outcome::fail(EACCES));
    EXPECT_FALSE(socket_.open(0, 0));
    EXPECT_TRUE(socket_.open(0, 0));
    EXPECT_EQ(calls_->names(), (Texts{"socket", "setsockopt", "bind"}));
}

TEST_F(SocketTest, TheMessageNamesWhateverErrorItIs) {
    calls_->next("socket", Outcome::fail(4711));
    EXPECT_FALSE(socket_.open(0, 0));
    EXPECT_EQ(log_.lines.back().text,
              "SOCKET[ ]: failed to create a socket, error (4711): Unknown error 4711");
}

// A call that outlived an unload may send while the module is loaded again. The system binds an
// unbound socket at its first send, and then refuses a later bind.
TEST_F(SocketTest, ASendBesideTheOpeningDoesNotTakeTheSocketBeforeItIsBound) {
    calls_->before("bind", [this] { EXPECT_FALSE(send("early")); });
    EXPECT_TRUE(socket_.open(0, 0));
    EXPECT_EQ(calls_->seen("sendto").at(0).numbers.at(0), -1);
    EXPECT_EQ(log_.lines.size(), 1u);
    EXPECT_TRUE(send("late"));
    EXPECT_EQ(received(), "late");
}

TEST_F(SocketTest, ADatagramArrivesWhole) {
    open();
    const std::string data = std::string("abc\0def", 7) + std::string(1400, 'x');
    EXPECT_TRUE(send(data));
    EXPECT_EQ(received(), data);
    const std::vector<SeenCall> sent = calls_->seen("sendto");
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].numbers, (std::vector<long>{descriptor(), 0, 16}));
    EXPECT_EQ(sent[0].text, text_of(peer_address_));
    EXPECT_EQ(log_.lines, Lines{});
}

TEST_F(SocketTest, NothingToSendIsASuccessWithoutASystemCall) {
    open();
    EXPECT_TRUE(socket_.send(peer_address_, "abc", 0));
    EXPECT_TRUE(socket_.send(peer_address_, nullptr, 3));
    EXPECT_TRUE(calls_->seen("sendto").empty());
    EXPECT_TRUE(nothing_is_waiting());
}

TEST_F(SocketTest, APartialCountIsFollowedByTheRest) {
    open();
    calls_->next("sendto", Outcome::limit(2));
    calls_->next("sendto", Outcome::limit(1));
    EXPECT_TRUE(send("abcdef"));
    EXPECT_EQ(received(), "ab");
    EXPECT_EQ(received(), "c");
    EXPECT_EQ(received(), "def");
    EXPECT_EQ(calls_->seen("sendto")[1].bytes, "cdef");
}

TEST_F(SocketTest, AFailureBehindAPartialCountEndsTheSending) {
    open();
    calls_->next("sendto", Outcome::limit(2));
    calls_->next("sendto", Outcome::fail(EINTR));
    EXPECT_FALSE(send("abcdef"));
    EXPECT_EQ(calls_->seen("sendto").size(), 2u);
    EXPECT_NE(log_.lines.back().text.find("failed to send a data (6: "), std::string::npos);
}

TEST_F(SocketTest, EveryErrorOfSendingEndsItWithoutARetry) {
    open();
    const char data[] = "abc";
    for (const SystemError& error : tests::SENDTO_ERRORS) {
        calls_->next("sendto", Outcome::fail(error.number));
        log_.lines.clear();
        EXPECT_FALSE(socket_.send(peer_address_, data, 3));
        const std::string pointer = std::to_string(reinterpret_cast<std::uintptr_t>(data));
        EXPECT_EQ(log_.lines, (Lines{{log::ERROR, tag() + ": failed to send a data (3: " + pointer +
                                                      "), " + error.text}}));
    }
    EXPECT_EQ(calls_->seen("sendto").size(), std::size(tests::SENDTO_ERRORS));
}

TEST_F(SocketTest, AfterAFailedSendTheNextIsTriedNormally) {
    open();
    sockaddr_in broadcast{};
    broadcast.sin_family = AF_INET;
    broadcast.sin_port = peer_address_.sin_port;
    broadcast.sin_addr.s_addr = 0xFFFFFFFF;
    // The system refuses this send, because broadcasting is not enabled on the socket.
    EXPECT_FALSE(socket_.send(broadcast, "abc", 3));
    ASSERT_EQ(log_.lines.size(), 1u);
    EXPECT_NE(log_.lines[0].text.find("), error (13): Permission denied"), std::string::npos);
    EXPECT_TRUE(send("def"));
    EXPECT_EQ(received(), "def");
}

TEST_F(SocketTest, SendingOnAClosedSocketFailsWithItsErrorLine) {
    const char data[] = "abc";
    EXPECT_FALSE(socket_.send(peer_address_, data, 3));
    const std::string pointer = std::to_string(reinterpret_cast<std::uintptr_t>(data));
    EXPECT_EQ(log_.lines, (Lines{{log::ERROR, "SOCKET[-1]: failed to send a data (3: " + pointer +
                                                  "), error (9): Bad file descriptor"}}));
}

TEST_F(SocketTest, ReadingReturnsTheLengthOfTheDatagram) {
    open();
    send_back("hello");
    unsigned char buffer[64] = {};
    EXPECT_EQ(socket_.read(buffer, sizeof(buffer)), 5);
    EXPECT_EQ(std::string(buffer, buffer + 5), "hello");
    EXPECT_EQ(calls_->seen("recv").back().numbers,
              (std::vector<long>{descriptor(), 64, MSG_NOSIGNAL}));
}

TEST_F(SocketTest, ReadingAnEmptyDatagramReturnsZeroWithoutALine) {
    open();
    send_back("");
    unsigned char buffer[64];
    EXPECT_EQ(socket_.read(buffer, sizeof(buffer)), 0);
    EXPECT_EQ(log_.lines, Lines{});
}

TEST_F(SocketTest, AnInterruptedReadReturnsZeroWithALine) {
    open();
    calls_->next("recv", Outcome::fail(EINTR));
    unsigned char buffer[64];
    EXPECT_EQ(socket_.read(buffer, sizeof(buffer)), 0);
    EXPECT_EQ(log_.lines, (Lines{{log::INFO, tag() + ": system interrupted call"}}));
    EXPECT_TRUE(calls_->seen("close").empty());
}

// At the end of the process, prints what happened since its construction.
class Epilogue {
  public:
    Epilogue(const LogRecorder& log, const SystemCalls& calls) {
        log_of_the_end = &log;
        calls_of_the_end = &calls;
        calls_before = calls.names().size();
        std::atexit([] {
            for (const LogLine& line : log_of_the_end->lines) {
                std::cerr << log::level_to_string[line.level] << " " << line.text << "; ";
            }
            const std::vector<std::string> names = calls_of_the_end->names();
            for (std::size_t i = calls_before; i < names.size(); ++i) {
                std::cerr << names[i] << " ";
            }
        });
    }

  private:
    inline static const LogRecorder* log_of_the_end = nullptr;
    inline static const SystemCalls* calls_of_the_end = nullptr;
    inline static std::size_t calls_before = 0;
};

TEST_F(SocketTest, AnyOtherFailureOfReadingClosesTheSocketAndEndsTheProcess) {
    open();
    unsigned char buffer[64];
    const auto read = [&](int error) {
        const Epilogue epilogue(log_, *calls_);
        calls_->next("recv", Outcome::fail(error));
        socket_.read(buffer, sizeof(buffer));
    };
    EXPECT_EXIT(read(ECONNREFUSED), testing::ExitedWithCode(255),
                "ERROR SOCKET.[0-9]+.: failed to read a data, error .111.: Connection refused; "
                "recv shutdown close $");
    EXPECT_EXIT(read(EBADF), testing::ExitedWithCode(255), "error .9.: Bad file descriptor; ");
    EXPECT_EXIT(read(EAGAIN), testing::ExitedWithCode(255), "error .11.: ");
}

TEST_F(SocketTest, ReadingFromAClosedSocketEndsTheProcess) {
    unsigned char buffer[64];
    const auto read = [&] {
        const Epilogue epilogue(log_, *calls_);
        socket_.read(buffer, sizeof(buffer));
    };
    EXPECT_EXIT(read(), testing::ExitedWithCode(255),
                "ERROR SOCKET.-1.: failed to read a data, error .9.: Bad file descriptor; recv $");
}

TEST_F(SocketTest, ClosingShutsDownAndForgetsTheDescriptor) {
    open();
    const long descriptor_before = descriptor();
    socket_.close();
    EXPECT_EQ(calls_->names(), (Texts{"socket", "setsockopt", "bind", "shutdown", "close"}));
    EXPECT_EQ(calls_->seen("shutdown")[0].numbers,
              (std::vector<long>{descriptor_before, SHUT_RDWR}));
    EXPECT_EQ(calls_->seen("close")[0].numbers, (std::vector<long>{descriptor_before}));
}

TEST_F(SocketTest, ClosingTwiceDoesNothingMore) {
    open();
    socket_.close();
    socket_.close();
    EXPECT_EQ(calls_->names(), (Texts{"socket", "setsockopt", "bind", "shutdown", "close"}));
}

TEST_F(SocketTest, ClosingASocketThatWasNeverOpenDoesNothing) {
    socket_.close();
    EXPECT_TRUE(calls_->names().empty());
}

TEST_F(SocketTest, AClosedSocketMayBeOpenedAgain) {
    open();
    socket_.close();
    EXPECT_TRUE(socket_.open(0, 0));
    EXPECT_EQ(calls_->seen("socket").size(), 2u);
    EXPECT_EQ(calls_->seen("bind").size(), 2u);
}

// ---- closing under senders ----------------------------------------------------------

TEST_F(SocketTest, ASendUnderWayFindsTheSocketClosedAndNothingElse) {
    open();
    const long number = descriptor();
    int opened = -1;
    calls_->before("sendto", [&] {
        calls_->before("sendto", nullptr);
        socket_.close_under_senders();
        opened = ::socket(AF_INET, SOCK_DGRAM, 0);
    });
    EXPECT_FALSE(send("abc"));
    EXPECT_NE(opened, number);
    ASSERT_EQ(log_.lines.size(), 1U);
    EXPECT_EQ(log_.lines[0].text.rfind("SOCKET[" + std::to_string(number) + "]: failed to send", 0),
              0U);
    EXPECT_NE(log_.lines[0].text.find(", error (9): Bad file descriptor"), std::string::npos);
    EXPECT_FALSE(send("def"));
    EXPECT_EQ(log_.lines.back().text.rfind("SOCKET[-1]: failed to send a data (3: ", 0), 0U);
    EXPECT_TRUE(nothing_is_waiting());
    ::close(opened);
}

TEST_F(SocketTest, ANumberLeftTakenIsReleasedOnce) {
    open();
    const int number = static_cast<int>(descriptor());
    socket_.close_under_senders();
    EXPECT_GE(::fcntl(number, F_GETFD), 0);
    socket_.release_number();
    EXPECT_LT(::fcntl(number, F_GETFD), 0);
    const std::size_t closes = calls_->seen("close").size();
    socket_.release_number();
    socket_.close();
    EXPECT_EQ(calls_->seen("close").size(), closes);
}

TEST_F(SocketTest, ANumberLeftTakenIsReleasedByClosing) {
    open();
    const int number = static_cast<int>(descriptor());
    socket_.close_under_senders();
    socket_.close();
    EXPECT_LT(::fcntl(number, F_GETFD), 0);
}

TEST_F(SocketTest, ANumberLeftTakenIsUsedByTheNextOpening) {
    open();
    const long number = descriptor();
    for (int i = 0; i < 3; ++i) {
        socket_.close_under_senders();
        open();
        EXPECT_TRUE(send("abc"));
        EXPECT_EQ(calls_->seen("sendto").back().numbers[0], number);
        EXPECT_EQ(received(), "abc");
    }
}

// A host starts programs for dialplans and commands, and some of them run for long.
TEST_F(SocketTest, NoProgramThatTheHostStartsInheritsTheSocketOrItsNumber) {
    open();
    const int number = static_cast<int>(descriptor());
    EXPECT_EQ(::fcntl(number, F_GETFD), FD_CLOEXEC);
    socket_.close_under_senders();
    EXPECT_EQ(::fcntl(number, F_GETFD), FD_CLOEXEC);
    open();
    EXPECT_EQ(::fcntl(number, F_GETFD), FD_CLOEXEC);
}

TEST_F(SocketTest, WithoutAFreeDescriptorTheSocketItselfKeepsTheNumberAndSendsNothing) {
    open();
    const int number = static_cast<int>(descriptor());
    {
        const tests::NoDescriptors starving;
        socket_.close_under_senders();
    }
    EXPECT_GE(::fcntl(number, F_GETFD), 0);
    EXPECT_LT(::sendto(number, "abc", 3, 0, reinterpret_cast<sockaddr*>(&peer_address_),
                       sizeof(peer_address_)),
              0);
    EXPECT_TRUE(nothing_is_waiting());
    socket_.release_number();
    EXPECT_LT(::fcntl(number, F_GETFD), 0);
}

TEST_F(SocketTest, ClosingASocketUnderSendersThatWasNeverOpenDoesNothing) {
    socket_.close_under_senders();
    socket_.release_number();
    EXPECT_TRUE(calls_->names().empty());
}

TEST_F(SocketTest, FailuresOfClosingAreIgnored) {
    open();
    calls_->next("shutdown", Outcome::fail(ENOTCONN));
    socket_.close();
    EXPECT_EQ(calls_->seen("close").size(), 1u);
    EXPECT_EQ(log_.lines, Lines{});
}

TEST_F(SocketTest, TheDestructorClosesAnOpenSocketOnly) {
    { Socket never_opened; }
    EXPECT_TRUE(calls_->names().empty());
    {
        Socket opened;
        opened.open(0, 0);
    }
    EXPECT_EQ(calls_->names(), (Texts{"socket", "setsockopt", "bind", "shutdown", "close"}));
}

}  // namespace
}  // namespace qv::net
