#include "tools/address.h"

#include <gtest/gtest.h>

#include "tests/support/names.h"

namespace qv::tools {

namespace {

using tests::names;

std::string read(const std::string& text) {
    const auto address = parse_address(text);
    return address.has_value() ? address_text(*address) : "refused";
}

TEST(AddressTest, IsWrittenWithItsPort) {
    const unsigned char address[] = {192, 0, 2, 255};
    EXPECT_EQ(address_text(address, 65535), "192.0.2.255:65535");
}

TEST(AddressTest, IsReadWithItsPort) {
    EXPECT_EQ(read("192.0.2.7:5060"), "192.0.2.7:5060");
    EXPECT_EQ(parse_address("192.0.2.7:5060")->sin_family, AF_INET);
}

TEST(AddressTest, PortAloneIsOfTheLoopback) {
    EXPECT_EQ(read("5060"), "127.0.0.1:5060");
}

TEST(AddressTest, OtherTextsAreRefused) {
    for (const char* text :
         {"", "nowhere", ":", ":5060", ":70000", "192.0.2.7", "192.0.2.7:", "192.0.2:5060",
          "192.0.2.7:99999", "localhost:5060", "::1", "192.0.2.7:5060x"}) {
        EXPECT_EQ(read(text), "refused") << text;
    }
}

TEST(AddressTest, RefusalNamesTheText) {
    EXPECT_TRUE(names(check_address("nowhere"), {"'nowhere'"}));
    EXPECT_EQ(check_address("5060"), "");
    EXPECT_TRUE(names(check_address(":x"), {"':x'"}));
}

TEST(AddressTest, DestinationIsRefusedWithoutAskingWhatItCouldMean) {
    EXPECT_EQ(check_destination("192.0.2.7:5060"), "");
    EXPECT_EQ(check_destination("5060"), "");
    EXPECT_TRUE(names(check_destination(":5060"), {"':5060'"}));
    EXPECT_EQ(check_destination(":5060").find("0.0.0.0:5060"), std::string::npos);
}

TEST(AddressTest, PortBehindAColonIsRefusedWithTheTwoThatItCouldMean) {
    EXPECT_TRUE(names(check_address(":5060"), {"':5060'", "127.0.0.1:5060", "0.0.0.0:5060"}));
}

}  // namespace

}  // namespace qv::tools
