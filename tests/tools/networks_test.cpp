#include "tools/networks.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "tests/support/names.h"

namespace qv::tools {

namespace {

using tests::names;

bool is_inside(const char* network, const char* address) {
    sockaddr_in sender{};
    sender.sin_addr.s_addr = inet_addr(address);
    return parse_network(network).value().contains(sender);
}

TEST(NetworksTest, NetworkHoldsTheAddressesThatBeginLikeIt) {
    EXPECT_TRUE(is_inside("192.0.2.0/24", "192.0.2.0"));
    EXPECT_TRUE(is_inside("192.0.2.0/24", "192.0.2.255"));
    EXPECT_FALSE(is_inside("192.0.2.0/24", "192.0.3.0"));
    EXPECT_TRUE(is_inside("10.0.0.0/7", "11.255.255.255"));
    EXPECT_FALSE(is_inside("10.0.0.0/7", "12.0.0.0"));
}

TEST(NetworksTest, AddressAloneIsANetworkOfOne) {
    EXPECT_TRUE(is_inside("192.0.2.7", "192.0.2.7"));
    EXPECT_FALSE(is_inside("192.0.2.7", "192.0.2.6"));
    EXPECT_FALSE(is_inside("192.0.2.7/32", "192.0.2.6"));
}

TEST(NetworksTest, PrefixOfZeroHoldsEveryAddress) {
    EXPECT_TRUE(is_inside("0.0.0.0/0", "255.255.255.255"));
    EXPECT_TRUE(is_inside("192.0.2.7/0", "1.2.3.4"));
}

TEST(NetworksTest, BitsBehindThePrefixDoNotMatter) {
    EXPECT_TRUE(is_inside("192.0.2.7/24", "192.0.2.9"));
}

TEST(NetworksTest, WhatIsNoNetworkIsRefusedByName) {
    for (const char* text :
         {"", "/", "192.0.2.0/", "192.0.2.0/33", "192.0.2.0/-1", "192.0.2.0/ 8", "192.0.2/24",
          "192.0.2.0/24/8", "example.org", "::1/64", "192.0.2.0/255.255.255.0"}) {
        EXPECT_FALSE(parse_network(text).has_value()) << text;
        EXPECT_TRUE(names(check_network(text), {"'" + std::string(text) + "'"}));
    }
    EXPECT_EQ(check_network("192.0.2.0/24"), "");
}

TEST(NetworksTest, WithoutNetworksEverySenderIsAllowed) {
    EXPECT_TRUE(AllowedNetworks().allow(sockaddr_in{}));
    EXPECT_FALSE(AllowedNetworks({*parse_network("192.0.2.7")}).allow(sockaddr_in{}));
}

}  // namespace

}  // namespace qv::tools
