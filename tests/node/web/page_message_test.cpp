#include "node/web/page_message.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace qv::node::web {

namespace {

using Type = PageMessage::Type;

PageMessage read(const std::string& text) {
    std::string error;
    const auto message = read_page_message(text, error);
    EXPECT_TRUE(message.has_value()) << text << ": " << error;
    return message.value_or(PageMessage{});
}

std::string complaint(const std::string& text) {
    std::string error;
    EXPECT_FALSE(read_page_message(text, error).has_value()) << text;
    return error;
}

TEST(PageMessageTest, EachTypeIsRead) {
    EXPECT_EQ(read(R"({"type":"watch","calls":[1,18446744073709551615]})").calls,
              (std::vector<std::uint64_t>{1, 18446744073709551615U}));
    EXPECT_EQ(read(R"({"type":"watch","calls":[]})").type, Type::WATCH);
    EXPECT_EQ(read(R"({"type":"open","call":7})").call, 7U);
    EXPECT_EQ(read(R"({"type":"open","call":null})").call, std::nullopt);
    EXPECT_EQ(read(R"({"type":"stop"})").type, Type::STOP);
}

TEST(PageMessageTest, SidesHaveNames) {
    EXPECT_EQ(read(R"({"type":"listen","call":1,"sides":"both"})").sides,
              (std::vector<Side>{Side::ORIGINATOR, Side::TERMINATOR}));
    EXPECT_EQ(read(R"({"type":"listen","call":1,"sides":"terminator"})").sides,
              (std::vector<Side>{Side::TERMINATOR}));
    EXPECT_EQ(complaint(R"({"type":"listen","call":1,"sides":"left"})"),
              "listen: sides must be both, originator or terminator");
}

TEST(PageMessageTest, WhatIsWrongIsNamed) {
    EXPECT_EQ(complaint("x"), "a message must be a JSON object of at most 4096 bytes");
    EXPECT_EQ(complaint("[]"), "a message must be a JSON object of at most 4096 bytes");
    EXPECT_EQ(complaint(R"({"type":"stop","x":")" + std::string(5000, 'a') + "\"}"),
              "a message must be a JSON object of at most 4096 bytes");
    EXPECT_EQ(complaint("{}"), "type must be watch, open, listen or stop");
    EXPECT_EQ(complaint(R"({"type":["stop"]})"), "type must be watch, open, listen or stop");
    EXPECT_EQ(complaint(R"({"type":"open"})"), "open: call must be a number or null");
    EXPECT_EQ(complaint(R"({"type":"open","call":-1})"), "open: call must be a number or null");
    EXPECT_EQ(complaint(R"({"type":"listen","call":1.5,"sides":"both"})"),
              "listen: call must be a number");
    EXPECT_EQ(complaint(R"({"type":"watch","calls":["1"]})"),
              "watch: calls must be a list of at most 100 numbers");
}

TEST(PageMessageTest, NotTooManyCallsAreWatched) {
    std::string list = "1";
    for (int i = 0; i < 99; ++i) {
        list += ",1";
    }
    EXPECT_EQ(read(R"({"type":"watch","calls":[)" + list + "]}").calls.size(), 100U);
    EXPECT_EQ(complaint(R"({"type":"watch","calls":[1,)" + list + "]}"),
              "watch: calls must be a list of at most 100 numbers");
}

}  // namespace

}  // namespace qv::node::web
