#include "node/report/keys.h"

#include <gtest/gtest.h>

#include <string>

namespace qv::node {

namespace {

// The keys as letters: characters as they are, others as U D P N H E, and R for Enter, X for
// Escape, B for Backspace.
std::string read(KeyReader& reader, const std::string& bytes) {
    std::string all;
    for (const Key& key : reader.read(bytes)) {
        all += key.kind == Key::Kind::CHARACTER ? key.character
                                                : "?UDPNHERXB"[static_cast<int>(key.kind)];
    }
    return all;
}

TEST(KeyReaderTest, CharactersAndKeysAreToldApart) {
    KeyReader reader;
    EXPECT_EQ(read(reader, "q/ \r\n\x7f\b"), "q/ RRBB");
    EXPECT_EQ(read(reader, "\x1b[A\x1b[B\x1b[5~\x1b[6~\x1b[H\x1b[F"), "UDPNHE");
    EXPECT_EQ(read(reader, "\x1bOA\x1bOB\x1bOH\x1bOF\x1b[1~\x1b[4~\x1b[7~\x1b[8~"), "UDHEHEHE");
}

TEST(KeyReaderTest, KeyMayComeInPieces) {
    KeyReader reader;
    EXPECT_EQ(read(reader, "a\x1b"), "a");
    EXPECT_EQ(read(reader, "["), "");
    EXPECT_EQ(read(reader, "6"), "");
    EXPECT_EQ(read(reader, "~b"), "Nb");
}

TEST(KeyReaderTest, EscapeThatNothingFollowsIsAKey) {
    KeyReader reader;
    EXPECT_EQ(read(reader, "\x1b"), "");
    EXPECT_EQ(read(reader, ""), "X");
    EXPECT_EQ(read(reader, ""), "");
    EXPECT_EQ(read(reader, "\x1bq"), "Xq");
}

TEST(KeyReaderTest, UnknownKeysAndBytesAreLeftOut) {
    KeyReader reader;
    EXPECT_EQ(read(reader, "\x1b[1;5C\x1b[24~\x1bOPa"), "a");
    EXPECT_EQ(read(reader, std::string("\x00\x01\x80\xff", 4)), "");
    EXPECT_EQ(read(reader, "\x1b[" + std::string(100'000, '1')), "");
    EXPECT_EQ(read(reader, "q"), "q");
}

}  // namespace

}  // namespace qv::node
