#include "node/report/metrics_port.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <string>

#include "node/report/metrics.h"

namespace qv::node {

namespace {

sockaddr_in loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// Requests the text from the server on that port of the loopback interface.
std::string scrape(std::uint16_t port) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    const timeval patience{10, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    const sockaddr_in address = loopback(port);
    std::string answer;
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
        const std::string request = "GET /metrics HTTP/1.0\r\nHost: localhost\r\n\r\n";
        send(fd, request.data(), request.size(), MSG_NOSIGNAL);
        char piece[4096];
        for (ssize_t got = 0; (got = recv(fd, piece, sizeof piece, 0)) > 0;) {
            answer.append(piece, static_cast<std::size_t>(got));
        }
    }
    close(fd);
    return answer;
}

TEST(MetricsPortTest, FiguresAreServedOverHttp) {
    Metrics metrics;
    const MetricsPort port(metrics, loopback(0));
    NodeFigures figures;
    figures.received = 100;
    metrics.update(figures, {});
    const std::string answer = scrape(port.port());
    EXPECT_NE(answer.find("\nquorvane_node_received_packets_total 100\n"), std::string::npos);
    EXPECT_NE(answer.find("\nprocess_threads "), std::string::npos);
}

TEST(MetricsPortTest, APortInUseIsRefused) {
    const Metrics metrics;
    const MetricsPort first(metrics, loopback(0));
    EXPECT_THROW(MetricsPort second(metrics, loopback(first.port())), std::exception);
}

}  // namespace

}  // namespace qv::node
