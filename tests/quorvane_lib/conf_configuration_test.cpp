#include "quorvane_lib/conf_configuration.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <set>
#include <type_traits>

#include "tests/support/log_recorder.h"

namespace qv::conf {
namespace {

using tests::LogLine;
using tests::LogRecorder;
using Lines = std::vector<LogLine>;

// Records what the parser passes to its hooks, and returns the codes that the test has set.
class NotingConfiguration : public Configuration {
  public:
    int set_flag(const std::string& name, std::stringstream& error) override {
        calls.push_back("<" + name + ">");
        return answer(name, error);
    }
    int set_value(const std::string& name, const std::string& value,
                  std::stringstream& error) override {
        calls.push_back("<" + name + "> = <" + value + ">");
        return answer(name, error);
    }

    std::vector<std::string> calls;
    std::map<std::string, int> codes;  // By option name; 0 for all others.

  private:
    int answer(const std::string& name, std::stringstream& error) {
        EXPECT_EQ(error.str(), "");
        error << "because of " << name;
        const auto code = codes.find(name);
        return code == codes.end() ? APPLIED : code->second;
    }
};

class ConfigurationTest : public testing::Test {
  protected:
    bool parse_file_of(const std::string& content) {
        std::ofstream(path_, std::ios::binary) << content;
        const bool result = configuration_.parse_file(path_);
        std::remove(path_.c_str());
        return result;
    }

    // The log without the line that announces the file.
    Lines lines_of_file() const {
        EXPECT_FALSE(log_.lines.empty());
        EXPECT_EQ(log_.lines.front(),
                  (LogLine{log::SYSTEM, "CONFIGURATION: reading from file [" + path_ + "]"}));
        return {log_.lines.begin() + 1, log_.lines.end()};
    }

    // The log without the line that announces the arguments.
    Lines lines_of_args(const std::string& args) const {
        EXPECT_FALSE(log_.lines.empty());
        EXPECT_EQ(log_.lines.front(),
                  (LogLine{log::SYSTEM, "CONFIGURATION: reading from args: " + args}));
        return {log_.lines.begin() + 1, log_.lines.end()};
    }

    using Calls = std::vector<std::string>;
    const Calls& calls() const { return configuration_.calls; }

    const std::string path_ = testing::TempDir() + "quorvane_" +
                              testing::UnitTest::GetInstance()->current_test_info()->name();
    LogRecorder log_;
    NotingConfiguration configuration_;
};

TEST(ConfigurationClasses, StandInOneLine) {
    EXPECT_TRUE((std::is_base_of_v<ReferenceCountable, Configuration>));
    EXPECT_TRUE((std::is_base_of_v<Configuration, LogExtenstion<Configuration>>));
    EXPECT_TRUE(std::has_virtual_destructor_v<Configuration>);
}

TEST(ConfigurationClasses, AReferenceCountStartsAtZero) {
    ReferenceCountable counted;
    EXPECT_EQ(counted.references(), 0);
    counted.add_reference();
    counted.add_reference();
    EXPECT_EQ(counted.references(), 2);
    EXPECT_EQ(counted.drop_reference(), 1);
    EXPECT_EQ(sizeof(ReferenceCountable), 4u);
}

TEST(ConfigurationClasses, TheLevelIsInfoUntilItIsSet) {
    EXPECT_EQ(LogExtenstion<Configuration>().level, log::INFO);
}

TEST(ConfigurationClasses, TheHooksOfTheBaseKnowNothing) {
    Configuration configuration;
    std::stringstream error;
    EXPECT_EQ(configuration.set_flag("a", error), 1);
    EXPECT_EQ(configuration.set_value("a", "b", error), 1);
    EXPECT_EQ(error.str(), "");
}

// Test builds may have another base directory; the names below it are fixed.
TEST(ConfigurationLocations, HangFromTheBaseDirectory) {
    EXPECT_EQ(default_conf_ext, ".conf");
    EXPECT_EQ(default_base_directory, QUORVANE_BASE_DIRECTORY);
    EXPECT_EQ(default_directory, QUORVANE_BASE_DIRECTORY "/quorvane");
    EXPECT_EQ(default_kafka_config_path, QUORVANE_BASE_DIRECTORY "/quorvane/kafka.conf");
}

TEST_F(ConfigurationTest, EachLineOfTheLogHasAPlaceOfItsOwnInTheSource) {
    configuration_.codes = {{"u", UNKNOWN}, {"m", MALFORMED}, {"f", -255}, {"o", 2}};
    configuration_.parse_file("");
    configuration_.parse_file("/nowhere");
    parse_file_of("a=b=c");
    configuration_.parse_args("a=b=c");
    for (const char* name : {"a", "u", "m", "f", "o"}) {
        configuration_.parse_option(name);
    }
    // Two of the lines announce the file and the arguments.
    ASSERT_EQ(log_.places.size(), 11U);
    EXPECT_EQ(std::set<int>(log_.places.begin(), log_.places.end()).size(), 11U);
}

TEST_F(ConfigurationTest, FlagCodesBecomeLinesAndResults) {
    struct Row {
        int code;
        log::Level level;
        const char* text;
        bool result;
    };
    const Row rows[] = {
        {0, log::SYSTEM, "CONFIGURATION: flag [a] applied", true},
        {1, log::WARNING, "CONFIGURATION: flag [a] is unknown", true},
        {-1, log::ERROR, "CONFIGURATION: failed to apply flag [a]: unexpected format", false},
        {-255, log::ERROR, "CONFIGURATION: failed to apply flag [a]: because of a", false},
        {2, log::ERROR, "CONFIGURATION: failed to apply flag [a]", true},
        {255, log::ERROR, "CONFIGURATION: failed to apply flag [a]", true},
        {-2, log::ERROR, "CONFIGURATION: failed to apply flag [a]", false},
        {-254, log::ERROR, "CONFIGURATION: failed to apply flag [a]", false},
        {-256, log::ERROR, "CONFIGURATION: failed to apply flag [a]", false},
    };
    for (const Row& row : rows) {
        configuration_.codes["a"] = row.code;
        log_.lines.clear();
        EXPECT_EQ(configuration_.parse_option("a"), row.result) << row.code;
        EXPECT_EQ(log_.lines, (Lines{{row.level, row.text}})) << row.code;
    }
}

TEST_F(ConfigurationTest, OptionCodesBecomeLinesAndResults) {
    struct Row {
        int code;
        log::Level level;
        const char* text;
        bool result;
    };
    const Row rows[] = {
        {0, log::SYSTEM, "CONFIGURATION: option [a] is set to [b]", true},
        {1, log::WARNING, "CONFIGURATION: option [a] is unknown", true},
        {-1, log::ERROR, "CONFIGURATION: failed to set option [a] to [b]: unexpected value format",
         false},
        {-255, log::ERROR, "CONFIGURATION: failed to set option [a] to [b]: because of a", false},
        {2, log::ERROR, "CONFIGURATION: failed to set option [a] to [b]", true},
        {-2, log::ERROR, "CONFIGURATION: failed to set option [a] to [b]", false},
    };
    for (const Row& row : rows) {
        configuration_.codes["a"] = row.code;
        log_.lines.clear();
        EXPECT_EQ(configuration_.parse_option("a", "b"), row.result) << row.code;
        EXPECT_EQ(log_.lines, (Lines{{row.level, row.text}})) << row.code;
    }
}

TEST_F(ConfigurationTest, LinesComeFromTheSourceFileOfTheParser) {
    configuration_.parse_option("a");
    EXPECT_EQ(log_.files, (std::vector<std::string>{"conf_configuration.cpp"}));
}

TEST_F(ConfigurationTest, TheParserDoesNotFilterByLevel) {
    log::Logger::m_instance.level = log::ERROR;
    configuration_.parse_file("");
    log::Logger::m_instance.level = log::INFO;
    EXPECT_EQ(log_.lines.size(), 1u);
}

TEST_F(ConfigurationTest, AnEmptyPathIsNoFileAndNoError) {
    EXPECT_TRUE(configuration_.parse_file(""));
    EXPECT_EQ(
        log_.lines,
        (Lines{{log::INFO, "CONFIGURATION: file is not specified, default values are used"}}));
}

TEST_F(ConfigurationTest, AMissingFileIsAnError) {
    EXPECT_FALSE(configuration_.parse_file("/nonexistent/a.conf"));
    EXPECT_EQ(log_.lines,
              (Lines{{log::ERROR, "CONFIGURATION: failed to open file [/nonexistent/a.conf]"}}));
}

TEST_F(ConfigurationTest, ADirectoryOpensAndHoldsNoLines) {
    EXPECT_TRUE(configuration_.parse_file("/"));
    EXPECT_EQ(log_.lines, (Lines{{log::SYSTEM, "CONFIGURATION: reading from file [/]"}}));
    EXPECT_EQ(calls(), Calls{});
}

TEST_F(ConfigurationTest, AnEmptyFileChangesNothing) {
    EXPECT_TRUE(parse_file_of(""));
    EXPECT_EQ(lines_of_file(), Lines{});
    EXPECT_EQ(calls(), Calls{});
}

TEST_F(ConfigurationTest, BlankLinesAndCommentsChangeNothing) {
    EXPECT_TRUE(parse_file_of("\n   \n# a=b\n \t # a=b=c\n\r\n#\n"));
    EXPECT_EQ(lines_of_file(), Lines{});
    EXPECT_EQ(calls(), Calls{});
}

TEST_F(ConfigurationTest, ThereAreNoTrailingComments) {
    EXPECT_TRUE(parse_file_of("x # y\nkey = a # b\n"));
    EXPECT_EQ(calls(), (Calls{"<x # y>", "<key> = <a # b>"}));
}

TEST_F(ConfigurationTest, AVerticalTabIsNotTrimmed) {
    EXPECT_TRUE(parse_file_of("\v# a\n"));
    EXPECT_EQ(calls(), (Calls{"<\v# a>"}));
}

TEST_F(ConfigurationTest, FlagsAndOptionsReachTheirHooksInOrder) {
    EXPECT_TRUE(parse_file_of("flag\nname = value\n"));
    EXPECT_EQ(calls(), (Calls{"<flag>", "<name> = <value>"}));
    EXPECT_EQ(lines_of_file(),
              (Lines{{log::SYSTEM, "CONFIGURATION: flag [flag] applied"},
                     {log::SYSTEM, "CONFIGURATION: option [name] is set to [value]"}}));
}

TEST_F(ConfigurationTest, ALineIsTrimmedAtBothEndsAndAroundTheSign) {
    EXPECT_TRUE(parse_file_of(" \t a b \t = \t c d \t \n"));
    EXPECT_EQ(calls(), (Calls{"<a b> = <c d>"}));
}

TEST_F(ConfigurationTest, AnEmptyValueMakesAFlag) {
    EXPECT_TRUE(parse_file_of("key =\nkey =  \t\nkey=\n"));
    EXPECT_EQ(calls(), (Calls{"<key>", "<key>", "<key>"}));
}

TEST_F(ConfigurationTest, EmptyPiecesOfALineAreDropped) {
    EXPECT_TRUE(parse_file_of("a==b\n=c\n= d\n=e=f\n"));
    EXPECT_EQ(calls(), (Calls{"<a> = <b>", "<c>", "< d>", "<e> = <f>"}));
}

TEST_F(ConfigurationTest, ABlankBetweenTwoSignsIsAPiece) {
    EXPECT_FALSE(parse_file_of("a= =b\n"));
    EXPECT_EQ(lines_of_file(),
              (Lines{{log::ERROR, "CONFIGURATION: incorrect option format at line 0: \"a= =b\""}}));
}

TEST_F(ConfigurationTest, ALineOfSignsOnlyHasNoPieceAndIsAnError) {
    EXPECT_FALSE(parse_file_of(" == \n"));
    EXPECT_EQ(lines_of_file(),
              (Lines{{log::ERROR, "CONFIGURATION: incorrect option format at line 0: \" == \""}}));
}

TEST_F(ConfigurationTest, QuotesArePartOfTheValue) {
    EXPECT_TRUE(parse_file_of("a=\"b\"\n"));
    EXPECT_EQ(calls(), (Calls{"<a> = <\"b\">"}));
}

TEST_F(ConfigurationTest, TheFirstLineIsNumberZero) {
    EXPECT_FALSE(parse_file_of("x=1\n# comment\na=b=c\ny=2\n"));
    EXPECT_EQ(calls(), (Calls{"<x> = <1>"}));
    EXPECT_EQ(lines_of_file(),
              (Lines{{log::SYSTEM, "CONFIGURATION: option [x] is set to [1]"},
                     {log::ERROR, "CONFIGURATION: incorrect option format at line 2: \"a=b=c\""}}));
}

TEST_F(ConfigurationTest, TheErrorShowsTheLineUntrimmed) {
    EXPECT_FALSE(parse_file_of(" a=b=c \r\n"));
    EXPECT_EQ(
        lines_of_file(),
        (Lines{{log::ERROR, "CONFIGURATION: incorrect option format at line 0: \" a=b=c \r\""}}));
}

TEST_F(ConfigurationTest, ALastLineWithoutLineEndIsParsed) {
    EXPECT_TRUE(parse_file_of("a=1\nb=2"));
    EXPECT_EQ(calls(), (Calls{"<a> = <1>", "<b> = <2>"}));
}

TEST_F(ConfigurationTest, CarriageReturnsAtLineEndsAreTrimmed) {
    EXPECT_TRUE(parse_file_of("a=1\r\nflag\r\n\r\nb=2\r\n"));
    EXPECT_EQ(calls(), (Calls{"<a> = <1>", "<flag>", "<b> = <2>"}));
}

TEST_F(ConfigurationTest, AFileStopsAtItsFirstFailure) {
    configuration_.codes["bad"] = -1;
    EXPECT_FALSE(parse_file_of("a=1\nbad=2\nb=3\n"));
    EXPECT_EQ(calls(), (Calls{"<a> = <1>", "<bad> = <2>"}));
}

TEST_F(ConfigurationTest, AnUnknownNameDoesNotStopAFile) {
    configuration_.codes["foo"] = 1;
    EXPECT_TRUE(parse_file_of("foo=1\nb=2\n"));
    EXPECT_EQ(calls(), (Calls{"<foo> = <1>", "<b> = <2>"}));
}

TEST_F(ConfigurationTest, APositiveFailureIsLoggedButDoesNotStopAFile) {
    configuration_.codes["a"] = 2;
    EXPECT_TRUE(parse_file_of("a=1\nb=2\n"));
    EXPECT_EQ(lines_of_file(),
              (Lines{{log::ERROR, "CONFIGURATION: failed to set option [a] to [1]"},
                     {log::SYSTEM, "CONFIGURATION: option [b] is set to [2]"}}));
}

TEST_F(ConfigurationTest, ALineNumberIsOnlyReported) {
    EXPECT_FALSE(configuration_.parse_line("a=b=c", 18446744073709551615u));
    EXPECT_EQ(log_.lines,
              (Lines{{log::ERROR,
                      "CONFIGURATION: incorrect option format at line 18446744073709551615: "
                      "\"a=b=c\""}}));
    EXPECT_TRUE(configuration_.parse_line("a=b", 0));
    EXPECT_TRUE(configuration_.parse_line("", 0));
}

TEST_F(ConfigurationTest, PercentSignsAreTakenLiterally) {
    EXPECT_TRUE(configuration_.parse_option("%s", "%n"));
    EXPECT_EQ(log_.lines, (Lines{{log::SYSTEM, "CONFIGURATION: option [%s] is set to [%n]"}}));
}

TEST_F(ConfigurationTest, AnEmptyArgumentStringSetsNothing) {
    EXPECT_TRUE(configuration_.parse_args(""));
    EXPECT_EQ(lines_of_args(""), Lines{});
    EXPECT_EQ(calls(), Calls{});
}

TEST_F(ConfigurationTest, ArgumentItemsAreSeparatedByCommas) {
    EXPECT_TRUE(configuration_.parse_args("a=1,flag,b=2"));
    EXPECT_EQ(calls(), (Calls{"<a> = <1>", "<flag>", "<b> = <2>"}));
    EXPECT_EQ(lines_of_args("a=1,flag,b=2"),
              (Lines{{log::SYSTEM, "CONFIGURATION: option [a] is set to [1]"},
                     {log::SYSTEM, "CONFIGURATION: flag [flag] applied"},
                     {log::SYSTEM, "CONFIGURATION: option [b] is set to [2]"}}));
}

TEST_F(ConfigurationTest, ADoubledCommaIsAComma) {
    EXPECT_TRUE(configuration_.parse_args("x=1,,2"));
    EXPECT_EQ(calls(), (Calls{"<x> = <1,2>"}));
    EXPECT_EQ(lines_of_args("x=1,,2"),
              (Lines{{log::SYSTEM, "CONFIGURATION: option [x] is set to [1,2]"}}));
}

TEST_F(ConfigurationTest, ThreeCommasAreTheFlagNamedComma) {
    EXPECT_TRUE(configuration_.parse_args(",,,"));
    EXPECT_EQ(calls(), (Calls{"<,>"}));
}

TEST_F(ConfigurationTest, ALiteralEscapeSequenceComesOutAsAComma) {
    EXPECT_TRUE(configuration_.parse_args("x=1_;2"));
    EXPECT_EQ(calls(), (Calls{"<x> = <1,2>"}));
}

TEST_F(ConfigurationTest, ArgumentPositionsCountFromOne) {
    EXPECT_FALSE(configuration_.parse_args("a=b=c"));
    EXPECT_EQ(lines_of_args("a=b=c"),
              (Lines{{log::ERROR, "CONFIGURATION: incorrect option format at position [1]"}}));
}

TEST_F(ConfigurationTest, ArgumentPositionsCountItemsOnly) {
    EXPECT_FALSE(configuration_.parse_args(",x,a==b,y"));
    EXPECT_EQ(calls(), (Calls{"<x>"}));
    EXPECT_EQ(lines_of_args(",x,a==b,y").back(),
              (LogLine{log::ERROR, "CONFIGURATION: incorrect option format at position [2]"}));
}

TEST_F(ConfigurationTest, EmptyPiecesOfAnArgumentCount) {
    EXPECT_TRUE(configuration_.parse_args("=b,=,a=,c= "));
    EXPECT_EQ(calls(), (Calls{"<> = <b>", "<>", "<a>", "<c>"}));
}

TEST_F(ConfigurationTest, ArgumentItemsAreNotTrimmedAsAWhole) {
    EXPECT_TRUE(configuration_.parse_args("a=1, b=2 ,c \t=\n 3\n, d "));
    EXPECT_EQ(calls(), (Calls{"<a> = <1>", "< b> = <2 >", "<c> = <3\n>", "< d>"}));
}

TEST_F(ConfigurationTest, ACommentSignMeansNothingInArguments) {
    EXPECT_TRUE(configuration_.parse_args("#a=1"));
    EXPECT_EQ(calls(), (Calls{"<#a> = <1>"}));
}

TEST_F(ConfigurationTest, ArgumentsStopAtTheFirstFailure) {
    configuration_.codes["bad"] = -255;
    EXPECT_FALSE(configuration_.parse_args("a=1,bad,b=2"));
    EXPECT_EQ(calls(), (Calls{"<a> = <1>", "<bad>"}));
    EXPECT_EQ(lines_of_args("a=1,bad,b=2").back(),
              (LogLine{log::ERROR, "CONFIGURATION: failed to apply flag [bad]: because of bad"}));
}

TEST_F(ConfigurationTest, APositiveFailureDoesNotStopArguments) {
    configuration_.codes["a"] = 2;
    EXPECT_TRUE(configuration_.parse_args("a,b"));
    EXPECT_EQ(calls(), (Calls{"<a>", "<b>"}));
}

}  // namespace
}  // namespace qv::conf
