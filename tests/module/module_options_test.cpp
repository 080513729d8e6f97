#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "module/module_options.h"
#include "tests/support/log_recorder.h"

namespace qv::freeswitch {

namespace {

using tests::LogRecorder;

std::string address_of(const Configuration& config) {
    char text[INET_ADDRSTRLEN] = "";
    ::inet_ntop(AF_INET, &config.media_node_addr.sin_addr, text, sizeof(text));
    return std::string(text) + ":" + std::to_string(ntohs(config.media_node_addr.sin_port));
}

std::string media_node_of(const Configuration& config) {
    return config.media_node_host + ":" + std::to_string(config.media_node_port);
}

class ModuleOptions : public ::testing::Test {
  protected:
    int set(const std::string& name, const std::string& value) {
        error.str("");
        return config.set_value(name, value, error);
    }
    int set(const std::string& name) {
        error.str("");
        return config.set_flag(name, error);
    }

    Configuration config;
    std::stringstream error;
};

TEST_F(ModuleOptions, DefaultsAreLoopbackWithoutDumpsAndFeatures) {
    EXPECT_EQ(config.level, log::INFO);
    EXPECT_EQ(media_node_of(config), "127.0.0.1:0");
    EXPECT_EQ(address_of(config), "127.0.0.1:0");
    EXPECT_EQ(config.media_node_addr.sin_family, AF_INET);
    EXPECT_EQ(config.dump_mode, DumpMode::NONE);
    EXPECT_EQ(config.default_detection, "");
    EXPECT_EQ(config.default_audio_activity, "");
    EXPECT_EQ(config.references(), 0);
}

TEST_F(ModuleOptions, ByteOrderMarkBeforeANameIsWarnedOf) {
    const LogRecorder log;
    EXPECT_EQ(set("\xEF\xBB\xBFmedia_node", "192.0.2.1:4000"), 1);
    EXPECT_EQ(set("\xEF\xBB\xBF# a comment"), 1);
    EXPECT_EQ(set("\xFF\xFEm"), 1);
    ASSERT_EQ(log.lines.size(), 3U);
    for (const tests::LogLine& line : log.lines) {
        EXPECT_EQ(line.level, log::WARNING);
        EXPECT_EQ(line.text,
                  "configuration begins with a byte order mark, which hides its first option: save "
                  "the file as plain text without one");
    }
    EXPECT_EQ(set("medianode", "192.0.2.1:4000"), 1);
    EXPECT_EQ(log.lines.size(), 3U);
}

// Each range stands for 65536 hosts. A hundred thousand ranges would take half a terabyte.
TEST_F(ModuleOptions, ListOfPortRangesTakesNoMoreMemoryThanOne) {
    std::string value;
    for (int i = 0; i < 100000; ++i) {
        value += "a:0-65535,";
    }
    EXPECT_EQ(set("media_node", value), -1);
    EXPECT_EQ(media_node_of(config), "127.0.0.1:0");
    EXPECT_EQ(set("media_node", ",,a, 192.0.2.1:4000 ,b:1:2"), 0);
    EXPECT_EQ(media_node_of(config), "192.0.2.1:4000");
}

TEST_F(ModuleOptions, FlagDumpEventsSelectsAll) {
    EXPECT_EQ(set("dump_events"), 0);
    EXPECT_EQ(config.dump_mode, DumpMode::ALL);
}

TEST_F(ModuleOptions, EveryOtherFlagIsUnknown) {
    for (const char* name : {"media_node", "log_level", "default_detection", "Dump_events",
                             "dump_events ", "foo", ""}) {
        EXPECT_EQ(set(name), 1) << name;
    }
    EXPECT_EQ(config.dump_mode, DumpMode::NONE);
}

TEST_F(ModuleOptions, DumpModesAreNamed) {
    const std::vector<std::pair<std::string, int>> rows = {
        {"all", 1}, {"channel", 2}, {"channel-short", 3}, {"none", 0}};
    for (const auto& [name, mode] : rows) {
        EXPECT_EQ(set("dump_events", name), 0) << name;
        EXPECT_EQ(static_cast<int>(config.dump_mode), mode) << name;
        EXPECT_EQ(dump_mode_name(config.dump_mode), name);
    }
}

TEST_F(ModuleOptions, DumpModeThatDoesNotExistIsNotSpecified) {
    EXPECT_STREQ(dump_mode_name(static_cast<DumpMode>(4)), "not-specified");
    EXPECT_STREQ(dump_mode_name(static_cast<DumpMode>(-1)), "not-specified");
}

TEST_F(ModuleOptions, BadDumpModeResetsToNone) {
    set("dump_events", "all");
    EXPECT_EQ(set("dump_events", "Channel"), -1);
    EXPECT_EQ(config.dump_mode, DumpMode::NONE);
    EXPECT_EQ(error.str(), "[unexpected value \"Channel\" for option \"dump_events\"]");
}

TEST_F(ModuleOptions, MediaNodeSetsHostPortAndAddress) {
    EXPECT_EQ(set("media_node", "192.0.2.10:5060"), 0);
    EXPECT_EQ(media_node_of(config), "192.0.2.10:5060");
    EXPECT_EQ(address_of(config), "192.0.2.10:5060");
    EXPECT_EQ(config.media_node_addr.sin_family, AF_INET);
    EXPECT_EQ(config.media_node_addr.sin_port, htons(5060));
}

TEST_F(ModuleOptions, MediaNodeThatIsNotExactlyOneHostKeepsTheOldOne) {
    set("media_node", "192.0.2.10:5060");
    for (const char* value : {"192.0.2.1:1,192.0.2.2:2", "192.0.2.1:1-2", "192.0.2.1", "", ","}) {
        EXPECT_EQ(set("media_node", value), -1) << value;
        EXPECT_EQ(error.str(), "[exactly one host must be specified for option \"media_node\"]");
        EXPECT_EQ(media_node_of(config), "192.0.2.10:5060");
        EXPECT_EQ(address_of(config), "192.0.2.10:5060");
    }
}

TEST_F(ModuleOptions, MediaNodeNameLeavesTheAddressEmpty) {
    set("media_node", "192.0.2.10:5060");
    EXPECT_EQ(set("media_node", "node.example:4000"), 0);
    EXPECT_EQ(media_node_of(config), "node.example:4000");
    EXPECT_EQ(address_of(config), "0.0.0.0:4000");
    EXPECT_EQ(config.media_node_addr.sin_family, AF_INET);
}

TEST_F(ModuleOptions, FeatureDefaultsAreKeptAsWritten) {
    EXPECT_EQ(set("default_audio_activity", "orig::false term"), 0);
    EXPECT_EQ(set("default_detection", "trueish"), 0);
    EXPECT_EQ(config.default_audio_activity, "orig::false term");
    EXPECT_EQ(config.default_detection, "trueish");
}

TEST_F(ModuleOptions, BadFeatureDefaultKeepsTheOldOne) {
    set("default_audio_activity", "true");
    set("default_detection", "orig");
    EXPECT_EQ(set("default_audio_activity", "yes"), -1);
    EXPECT_EQ(error.str(), "[unexpected value \"yes\" for option \"default_audio_activity\"]");
    EXPECT_EQ(set("default_detection", "both"), -1);
    EXPECT_EQ(error.str(), "[unexpected value \"both\" for option \"default_detection\"]");
    EXPECT_EQ(config.default_audio_activity, "true");
    EXPECT_EQ(config.default_detection, "orig");
}

TEST_F(ModuleOptions, LogLevelIsOneOfSixNames) {
    int level = 0;
    for (const char* name : {"SYSTEM", "ERROR", "WARNING", "INFO", "DEBUG", "TRACE"}) {
        EXPECT_EQ(set("log_level", name), 0) << name;
        EXPECT_EQ(static_cast<int>(config.level), level++) << name;
    }
}

TEST_F(ModuleOptions, LogLevelInLowerCaseIsRefusedWithoutAWord) {
    EXPECT_EQ(set("log_level", "debug"), -1);
    EXPECT_EQ(config.level, log::INFO);
    EXPECT_EQ(error.str(), "");
}

TEST_F(ModuleOptions, NamesAreExact) {
    for (const char* name : {"Media_node", "media_node ", "dump-events", "loglevel", ""}) {
        EXPECT_EQ(set(name, "all"), 1) << name;
    }
}

TEST_F(ModuleOptions, UnknownNameIsOnlyAWarning) {
    LogRecorder recorder;
    EXPECT_TRUE(config.parse_line("foo=1", 0));
    const std::vector<tests::LogLine> expected = {
        {log::WARNING, "CONFIGURATION: option [foo] is unknown"}};
    EXPECT_EQ(recorder.lines, expected);
}

TEST_F(ModuleOptions, LineWithoutAValueIsTheFlag) {
    EXPECT_TRUE(config.parse_line("dump_events", 0));
    EXPECT_EQ(config.dump_mode, DumpMode::ALL);
    EXPECT_TRUE(config.parse_line("dump_events=channel-short", 1));
    EXPECT_EQ(config.dump_mode, DumpMode::CHANNEL_SHORT);
}

// The hook gives an explanation, but for its code the parser logs only that the format is wrong.
TEST_F(ModuleOptions, ExplanationOfABadValueDoesNotReachTheLog) {
    LogRecorder recorder;
    EXPECT_FALSE(config.parse_line("dump_events=Channel", 0));
    const std::vector<tests::LogLine> expected = {
        {log::ERROR,
         "CONFIGURATION: failed to set option [dump_events] to [Channel]: unexpected value "
         "format"}};
    EXPECT_EQ(recorder.lines, expected);
}

}  // namespace

}  // namespace qv::freeswitch
