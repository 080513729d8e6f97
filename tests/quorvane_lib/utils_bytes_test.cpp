#include "quorvane_lib/utils_bytes.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

namespace qv::utils::bytes {
namespace {

using Bytes = std::vector<unsigned char>;

Bytes decode_text(const std::string& text) {
    return decode(text.data(), text.size());
}

const Bytes COUNTING{0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07,
                     0x08, 0x09, 0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F};

// Decodes into a buffer filled with 0xEE, so that tests see which bytes stay unchanged.
struct Uuid {
    explicit Uuid(const std::string& text) : bytes(17, 0xEE) {
        valid = decode_uuid(text.c_str(), bytes.data(), qv::tag::direct_update_t{});
    }
    Bytes first_sixteen() const { return {bytes.begin(), bytes.begin() + 16}; }

    Bytes bytes;
    bool valid = false;
};

TEST(DecodeHex, DigitsOfEitherCaseBecomeBytes) {
    EXPECT_EQ(decode_text("0aFF"), (Bytes{0x0A, 0xFF}));
    EXPECT_EQ(decode_text("0123456789abcdefABCDEF"),
              (Bytes{0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF, 0xAB, 0xCD, 0xEF}));
}

TEST(DecodeHex, OddLengthGivesNothing) {
    EXPECT_EQ(decode_text("abc"), Bytes{});
    EXPECT_EQ(decode_text("a"), Bytes{});
}

TEST(DecodeHex, EmptyTextGivesNothing) {
    EXPECT_EQ(decode_text(""), Bytes{});
    EXPECT_EQ(decode(nullptr, 0), Bytes{});
}

TEST(DecodeHex, AnyOtherCharacterDiscardsEverything) {
    for (const char* text :
         {"0g", "g0", "00 1", "-1", "0x12", "01@9", "01:0", "01`0", "01/0", "01G0", "01\xFFg"}) {
        EXPECT_EQ(decode_text(text), Bytes{}) << text;
    }
}

TEST(DecodeHex, OnlyTheGivenLengthIsRead) {
    EXPECT_EQ(decode("12zz", 2), (Bytes{0x12}));
}

TEST(DecodeHex, AZeroByteInTheTextIsNoDigit) {
    EXPECT_EQ(decode_text({'1', '2', '\0', '4'}), Bytes{});
}

TEST(DecodeUuid, CanonicalAndBareFormGiveTheSameBytes) {
    for (const char* text :
         {"00010203-0405-0607-0809-0a0b0c0d0e0f", "000102030405060708090a0b0c0d0e0f"}) {
        const Uuid uuid(text);
        EXPECT_TRUE(uuid.valid) << text;
        EXPECT_EQ(uuid.first_sixteen(), COUNTING) << text;
    }
}

TEST(DecodeUuid, UpperAndLowerCaseAreTheSame) {
    EXPECT_EQ(Uuid("F47AC10B-58CC-4372-A567-0E02B2C3D479").bytes,
              Uuid("f47ac10b-58cc-4372-a567-0e02b2c3d479").bytes);
    EXPECT_EQ(Uuid("F47ac10b-58CC-4372-a567-0E02B2c3D479").first_sixteen(),
              (Bytes{0xF4, 0x7A, 0xC1, 0x0B, 0x58, 0xCC, 0x43, 0x72, 0xA5, 0x67, 0x0E, 0x02, 0xB2,
                     0xC3, 0xD4, 0x79}));
}

TEST(DecodeUuid, SomeOfTheFourDashesMayBeLeftOut) {
    // A dash is accepted at fixed indexes of the text, and earlier dashes count in the index.
    // Dashes of the usual form can therefore be left out only from the last one on.
    for (const char* text :
         {"00010203-0405060708090a0b0c0d0e0f", "00010203-0405-060708090a0b0c0d0e0f",
          "00010203-0405-0607-08090a0b0c0d0e0f"}) {
        const Uuid uuid(text);
        EXPECT_TRUE(uuid.valid) << text;
        EXPECT_EQ(uuid.first_sixteen(), COUNTING) << text;
    }
}

TEST(DecodeUuid, EachOfTheFourPlacesTakesADashOnItsOwn) {
    for (const std::size_t place : {8u, 13u, 18u, 23u}) {
        std::string text = "000102030405060708090a0b0c0d0e0f";
        text.insert(place, "-");
        const Uuid uuid(text);
        EXPECT_TRUE(uuid.valid) << text;
        EXPECT_EQ(uuid.first_sixteen(), COUNTING) << text;
    }
}

TEST(DecodeUuid, ADashAnywhereElseFails) {
    for (std::size_t place = 0; place < 32; ++place) {
        if (place == 8 || place == 13 || place == 18 || place == 23) {
            continue;
        }
        std::string text = "000102030405060708090a0b0c0d0e0f";
        text.insert(place, "-");
        EXPECT_FALSE(Uuid(text).valid) << text;
    }
}

TEST(DecodeUuid, ThirtyOneDigitsFail) {
    EXPECT_FALSE(Uuid("000102030405060708090a0b0c0d0e0").valid);
    EXPECT_FALSE(Uuid("00010203-0405-0607-0809-0a0b0c0d0e0").valid);
}

TEST(DecodeUuid, WhatFollowsTheThirtySecondDigitIsNotLookedAt) {
    for (const char* tail : {"0", "-", " ", "zzz", "-000102030405060708090a0b0c0d0e0f"}) {
        const Uuid uuid("000102030405060708090a0b0c0d0e0f" + std::string(tail));
        EXPECT_TRUE(uuid.valid) << tail;
        EXPECT_EQ(uuid.first_sixteen(), COUNTING) << tail;
    }
}

TEST(DecodeUuid, NeverWritesMoreThanSixteenBytes) {
    EXPECT_EQ(Uuid(std::string(64, 'a')).bytes[16], 0xEE);
}

TEST(DecodeUuid, EmptyTextFailsAndTouchesNothing) {
    const Uuid uuid("");
    EXPECT_FALSE(uuid.valid);
    EXPECT_EQ(uuid.bytes, Bytes(17, 0xEE));
}

TEST(DecodeUuid, AnyOtherCharacterFails) {
    for (const char* text :
         {"g0010203-0405-0607-0809-0a0b0c0d0e0f", " 00010203-0405-0607-0809-0a0b0c0d0e0f",
          "{00010203-0405-0607-0809-0a0b0c0d0e0f}", "00010203_0405-0607-0809-0a0b0c0d0e0f"}) {
        EXPECT_FALSE(Uuid(text).valid) << text;
    }
}

TEST(DecodeUuid, AFailureLeavesWhatWasDecodedBeforeIt) {
    const Uuid uuid("12345x");
    EXPECT_FALSE(uuid.valid);
    EXPECT_EQ((Bytes{uuid.bytes.begin(), uuid.bytes.begin() + 4}), (Bytes{0x12, 0x34, 0x50, 0xEE}));
}

TEST(DecodeUuid, TheTagIsEmpty) {
    EXPECT_TRUE(std::is_empty_v<qv::tag::direct_update_t>);
}

}  // namespace
}  // namespace qv::utils::bytes
