#include "node/audio/name_pattern.h"

#include <gtest/gtest.h>

namespace qv::node {

namespace {

constexpr const char* UUID = "3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37";

std::string expand(const std::string& pattern, const std::string& reference = "a@192.0.2.7") {
    EXPECT_EQ(NamePattern::complaint(pattern), "");
    return NamePattern(pattern).expand({UUID, reference, "2026-01-31T23:59:58.123456Z"});
}

TEST(NamePattern, IsTheUuidUnlessSaidOtherwise) {
    EXPECT_EQ(NamePattern().expand({UUID, "a", ""}), UUID);
}

TEST(NamePattern, EveryWordHasItsValue) {
    EXPECT_EQ(expand("{date}_{time}-{reference}.{uuid}"),
              std::string("2026-01-31_235958-a@192.0.2.7.") + UUID);
}

TEST(NamePattern, UnknownReferenceIsSaidSo) {
    EXPECT_EQ(expand("{reference}", ""), "unknown");
}

TEST(NamePattern, HostileReferenceStaysInItsFolder) {
    EXPECT_EQ(expand("{reference}", "../../etc/passwd"), "_._.._etc_passwd");
    EXPECT_EQ(expand("{reference}", "/etc/passwd"), "_etc_passwd");
    EXPECT_EQ(expand("{reference}", ".."), "_.");
    EXPECT_EQ(expand("{reference}", "--rm"), "_-rm");
    EXPECT_EQ(expand("{reference}", "a b\n\x1b[31m\xff$(x);`y`\"'*?"), "a_b___31m___x___y_____");
    EXPECT_EQ(expand("{reference}", std::string("a\0b", 3)), "a_b");
}

TEST(NamePattern, LongReferenceIsCut) {
    EXPECT_EQ(expand("{reference}-{date}", std::string(2000, 'x')),
              std::string(64, 'x') + "-2026-01-31");
}

TEST(NamePattern, NameIsNeverTooLong) {
    const std::string pattern = "{reference}{reference}{reference}{reference}{uuid}{uuid}";
    EXPECT_EQ(expand(pattern, std::string(2000, 'x')).size(), 200u);
}

TEST(NamePattern, WhatIsNoPatternIsRefused) {
    EXPECT_EQ(NamePattern::complaint(""), "a name needs at least one character");
    EXPECT_EQ(NamePattern::complaint("{uid}"),
              "{uid} is none of {uuid}, {reference}, {date}, {time}");
    EXPECT_EQ(NamePattern::complaint("{uuid"), "a brace stands alone in '{uuid'");
    EXPECT_EQ(NamePattern::complaint("uuid}"), "a brace stands alone in 'uuid}'");
    EXPECT_EQ(NamePattern::complaint("a/{uuid}"),
              "'/' cannot be in a name: use letters, digits and - _ . + @");
    EXPECT_EQ(NamePattern::complaint(std::string(81, 'a')),
              "a name pattern has at most 80 characters");
}

}  // namespace

}  // namespace qv::node
