#include "node/outputs/metrics_output.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <string>

#include "tools/address.h"

namespace qv::node {

namespace {

TEST(MetricsOutputTest, NothingIsServedWithoutAnAddress) {
    MetricsOutput output;
    EXPECT_EQ(output.open(std::nullopt), "");
    EXPECT_EQ(output.url(), "");
}

TEST(MetricsOutputTest, UrlHasThePortThatTheSystemHasChosen) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    MetricsOutput output;
    ASSERT_EQ(output.open(address), "");
    EXPECT_EQ(output.url().rfind("http://127.0.0.1:", 0), 0u);
    EXPECT_EQ(output.url().find(":0/"), std::string::npos);
    EXPECT_EQ(output.url().substr(output.url().rfind('/')), "/metrics");
}

TEST(MetricsOutputTest, AddressOfAnotherMachineIsNamed) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = inet_addr("192.0.2.1");
    address.sin_port = htons(9464);
    MetricsOutput output;
    EXPECT_EQ(output.open(address).rfind("cannot serve metrics on 192.0.2.1:9464: ", 0), 0u);
    EXPECT_EQ(output.url(), "");
}

TEST(MetricsOutputTest, TextHasTheFiguresOfTheUpdate) {
    MetricsOutput output;
    NodeFigures figures;
    figures.received = 100;
    output.update(figures, {});
    EXPECT_NE(output.text().find("\nquorvane_node_received_packets_total 100\n"),
              std::string::npos);
}

}  // namespace

}  // namespace qv::node
