#include "tools/help_formatter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

namespace qv::tools {
namespace {

TEST(WrappedTest, TextThatFitsStaysOnOneLine) {
    EXPECT_EQ(wrapped("two words", 9), "two words");
    EXPECT_EQ(wrapped("", 9), "");
}

TEST(WrappedTest, TheLinesBreakBetweenWords) {
    EXPECT_EQ(wrapped("one two three four", 8), "one two\nthree\nfour");
}

TEST(WrappedTest, AWordThatIsTooLongHasALineOfItsOwn) {
    EXPECT_EQ(wrapped("a 127.0.0.1:40000 b", 4), "a\n127.0.0.1:40000\nb");
}

TEST(WrappedTest, LineBreaksBecomeBlanks) {
    EXPECT_EQ(wrapped("one\ntwo", 20), "one two");
}

TEST(HelpFormatterTest, DescriptionsEndBeforeColumn100) {
    CLI::App app("About", "program");
    app.formatter(std::make_shared<HelpFormatter>(30));
    bool flag = false;
    std::string description;
    for (int i = 0; i < 40; ++i) {
        description += "word ";
    }
    app.add_flag("--flag", flag, description);
    std::istringstream help(app.help());
    std::size_t longest = 0;
    for (std::string line; std::getline(help, line);) {
        longest = std::max(longest, line.size());
    }
    EXPECT_GT(longest, 90U);
    EXPECT_LE(longest, 100U);
}

}  // namespace
}  // namespace qv::tools
