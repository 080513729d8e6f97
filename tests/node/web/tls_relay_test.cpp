#include "node/web/tls_relay.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include "tests/node/audio/folder_test.h"
#include "tests/support/failing_allocation.h"

namespace qv::node::web {

namespace {

using namespace std::chrono_literals;

class TlsRelayTest : public tests::FolderTest {
  protected:
    void SetUp() override {
        FolderTest::SetUp();
        const std::string command =
            "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 1 "
            "-subj /CN=localhost -keyout " +
            path("key") + " -out " + path("certificate") + " 2>" + path("log") + " && cat " +
            path("key") + " >>" + path("certificate");
        if (std::system(command.c_str()) != 0) {
            GTEST_SKIP() << "there is no openssl, which makes the certificate";
        }
    }

    static sockaddr_in loopback(std::uint16_t port = 0) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return address;
    }

    static int connect_to(std::uint16_t port) {
        const int descriptor = ::socket(AF_INET, SOCK_STREAM, 0);
        const sockaddr_in address = loopback(port);
        const auto* place = reinterpret_cast<const sockaddr*>(&address);
        EXPECT_EQ(::connect(descriptor, place, sizeof(address)), 0);
        return descriptor;
    }

    // Somebody who sends no handshake is turned away.
    static bool turns_away(std::uint16_t port) {
        const int descriptor = connect_to(port);
        EXPECT_EQ(::write(descriptor, "no handshake\n\n", 14), 14);
        pollfd readable{descriptor, POLLIN, 0};
        const bool answered = ::poll(&readable, 1, 30'000) == 1;
        ::close(descriptor);
        return answered;
    }
};

TEST_F(TlsRelayTest, MemoryThatIsShortCostsOneConnectionOnly) {
    const TlsRelay relay(loopback(), path("certificate"), 9);
    ASSERT_TRUE(turns_away(relay.port()));
    // A connection is the largest object of the relay.
    tests::large_failures = 1;
    const int unlucky = connect_to(relay.port());
    const auto end = std::chrono::steady_clock::now() + 30s;
    while (tests::large_failures != 0 && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(1ms);
    }
    EXPECT_EQ(tests::large_failures, 0);
    EXPECT_TRUE(turns_away(relay.port()));
    ::close(unlucky);
}

}  // namespace

}  // namespace qv::node::web
