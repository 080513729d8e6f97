// The text that the programs print for --version.
#include "tools/version.h"

#include <gtest/gtest.h>

#include <regex>

namespace qv::tools {

namespace {

TEST(Version, NamesTheProgramItsVersionAndItsRevision) {
    EXPECT_TRUE(std::regex_match(
        version_text("quorvane-node"),
        std::regex(R"(quorvane-node [0-9]+\.[0-9]+\.[0-9]+ \(revision [0-9a-f]{16}\))")))
        << version_text("quorvane-node");
}

}  // namespace

}  // namespace qv::tools
