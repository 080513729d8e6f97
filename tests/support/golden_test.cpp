#include "tests/support/golden.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

namespace qv::tests {

namespace {

bool is_malformed(const std::string& name) {
    return name.rfind("malformed_", 0) == 0;
}

std::vector<std::string> names_in_the_folder() {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(QUORVANE_TEST_DATA_DIR)) {
        if (entry.path().extension() == ".hex") {
            names.push_back(entry.path().stem());
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

TEST(GoldenDatagrams, CommentsAndBlanksDoNotCount) {
    Bytes bytes;
    EXPECT_TRUE(append_hex_line(" 01\tfF0a  # 99 is a comment", bytes));
    EXPECT_EQ(bytes, (Bytes{0x01, 0xFF, 0x0A}));
}

TEST(GoldenDatagrams, HalfAPairIsRefused) {
    Bytes bytes;
    EXPECT_FALSE(append_hex_line("01 2", bytes));
    EXPECT_FALSE(append_hex_line("0 12", bytes));
    EXPECT_FALSE(append_hex_line("0x01", bytes));
}

TEST(GoldenDatagrams, MissingFileIsNamed) {
    try {
        golden("no_such_datagram");
        FAIL() << "no error";
    } catch (const std::runtime_error& error) {
        EXPECT_NE(std::string(error.what()).find("no_such_datagram.hex"), std::string::npos);
    }
}

TEST(GoldenDatagrams, TerminateIsFortyBytes) {
    EXPECT_EQ(
        golden("terminate"),
        (Bytes{0xFF, 0x00, 0xFF, 0x00, 0x82, 0x01, 0x00, 0x00, 0x33, 0x96, 0xB2, 0x9D, 0x1D, 0x05,
               0xC9, 0x54, 0xC2, 0xD8, 0xE1, 0xF4, 0x7A, 0x06, 0x45, 0xB3, 0xA1, 0x90, 0x9C, 0x3D,
               0x5E, 0x7F, 0x2B, 0x68, 0x28, 0x35, 0x27, 0xDA, 0x00, 0x00, 0x00, 0x00}));
}

TEST(GoldenDatagrams, ListOfTheMalformedIsComplete) {
    std::vector<std::string> names = names_in_the_folder();
    names.erase(std::remove_if(names.begin(), names.end(),
                               [](const std::string& name) { return !is_malformed(name); }),
                names.end());
    EXPECT_EQ(names, golden_malformed());
}

TEST(GoldenDatagrams, CallIsCompleteAndInOrder) {
    std::vector<unsigned> types;
    for (const std::string& name : golden_call()) {
        types.push_back(golden(name).at(4));
    }
    EXPECT_EQ(types, (std::vector<unsigned>{0x81, 0x83, 0x83, 0x83, 0x83, 0x84, 0x82}));
}

TEST(GoldenDatagrams, OnlyOneIsLongerThanAPacketCanBe) {
    for (const std::string& name : names_in_the_folder()) {
        EXPECT_EQ(golden(name).size() > 1376, name == "malformed_start_too_long") << name;
    }
}

}  // namespace

}  // namespace qv::tests
