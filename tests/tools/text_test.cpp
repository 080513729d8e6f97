#include "tools/node/text.h"

#include <gtest/gtest.h>

namespace {

using namespace qv::tools::node;

TEST(NodeTextTest, ForeignTextCannotSteerATerminal) {
    EXPECT_EQ(quoted_text("a\x1b[2Jb\"\\\n"), R"("a\x1b[2Jb\"\\\x0a")");
    EXPECT_EQ(quoted_text("\xff\x7f"), R"("\xff\x7f")");
}

TEST(NodeTextTest, LongForeignTextIsCut) {
    EXPECT_EQ(quoted_text(std::string(300, 'x')), '"' + std::string(200, 'x') + "...\"");
}

TEST(NodeTextTest, FeaturesAreWords) {
    EXPECT_EQ(features_text({0, 0}), "no features");
    EXPECT_EQ(features_text({0x0C, 0x0C}), "audio activity on both");
    EXPECT_EQ(features_text({0x30, 0x00}), "detection off both");
    EXPECT_EQ(features_text({0xC0, 0x80}), "recording off originator, on terminator");
    EXPECT_EQ(features_text({0x04, 0x04}), "audio activity on originator");
    EXPECT_EQ(features_text({0x20 | 0x40, 0x40}),
              "detection off terminator; recording on originator");
}

}  // namespace
