#include "node/web/byte_range.h"

#include <gtest/gtest.h>

namespace qv::node::web {

namespace {

struct Row {
    const char* header;
    std::uint64_t size;
    ByteRange::Kind kind;
    std::uint64_t begin;
    std::uint64_t end;
};

TEST(ByteRangeTest, HeadersAreRead) {
    const Row rows[] = {
        {"", 100, ByteRange::Kind::WHOLE, 0, 0},
        {"bytes=0-0", 100, ByteRange::Kind::PART, 0, 1},
        {"bytes=10-19", 100, ByteRange::Kind::PART, 10, 20},
        {"bytes=10-", 100, ByteRange::Kind::PART, 10, 100},
        {"bytes=10-1000", 100, ByteRange::Kind::PART, 10, 100},
        {"bytes=0-18446744073709551615", 100, ByteRange::Kind::PART, 0, 100},
        {"bytes=-10", 100, ByteRange::Kind::PART, 90, 100},
        {"bytes=-1000", 100, ByteRange::Kind::PART, 0, 100},
        {"bytes=99-", 100, ByteRange::Kind::PART, 99, 100},
        {"bytes=100-", 100, ByteRange::Kind::NOT_SATISFIABLE, 0, 0},
        {"bytes=-0", 100, ByteRange::Kind::NOT_SATISFIABLE, 0, 0},
        {"bytes=0-", 0, ByteRange::Kind::NOT_SATISFIABLE, 0, 0},
        {"bytes=-5", 0, ByteRange::Kind::NOT_SATISFIABLE, 0, 0},
    };
    for (const Row& row : rows) {
        const ByteRange range = read_byte_range(row.header, row.size);
        EXPECT_EQ(range.kind, row.kind) << row.header;
        EXPECT_EQ(range.begin, row.begin) << row.header;
        EXPECT_EQ(range.end, row.end) << row.header;
    }
}

TEST(ByteRangeTest, WhatIsNoSingleRangeIsIgnored) {
    for (const char* header :
         {"bytes", "bytes=", "bytes=-", "bytes=5", "bytes=5-2", "bytes=a-b", "bytes=1-2,4-5",
          "bytes= 1-2", "bytes=+1-2", "bytes=1-2 ", "bytes=0x1-2", "lines=1-2", "BYTES=1-2",
          "bytes=18446744073709551616-", "bytes=--5", "bytes=1--5"}) {
        EXPECT_EQ(read_byte_range(header, 100).kind, ByteRange::Kind::WHOLE) << header;
    }
}

}  // namespace

}  // namespace qv::node::web
