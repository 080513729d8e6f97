#include "tools/call/options.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/names.h"
#include "tests/tools/command_line_test.h"

namespace qv::tools::call {
namespace {

using tests::names;
using OptionsTest = qv::tests::CommandLineTest<Options, parse_options, EXIT_USAGE>;

using Variable = std::pair<std::string, std::string>;

TEST_F(OptionsTest, WithoutOptionsTonesGoToTheUsualMediaNode) {
    EXPECT_FALSE(parse({}));
    EXPECT_EQ(options_.module.options, (ModuleOptions{{"media_node", "127.0.0.1:40000"}}));
    EXPECT_EQ(options_.plan.schedule.length_s->min, 5);
    EXPECT_EQ(options_.plan.schedule.calls, 1u);
    EXPECT_EQ(options_.module.module_path, "");
}

TEST_F(OptionsTest, FilesPlayAsLongAsTheyLast) {
    EXPECT_FALSE(parse({"--read", "a.wav"}));
    EXPECT_EQ(options_.read_path, "a.wav");
    EXPECT_FALSE(options_.plan.schedule.length_s);
}

TEST_F(OptionsTest, AConfigurationFileNamesTheMediaNodeItself) {
    EXPECT_FALSE(parse({"--config", "some.conf"}));
    EXPECT_TRUE(options_.module.options.empty());
    EXPECT_FALSE(parse({"--config", "some.conf", "--media-node", "10.0.0.1:5"}));
    EXPECT_EQ(options_.module.options, (ModuleOptions{{"media_node", "10.0.0.1:5"}}));
}

TEST_F(OptionsTest, APortAloneIsAMediaNodeOnTheLoopback) {
    EXPECT_FALSE(parse({"--media-node", "40001"}));
    EXPECT_EQ(options_.module.options, (ModuleOptions{{"media_node", "40001"}}));
}

TEST_F(OptionsTest, ModuleOptionsGoToTheModule) {
    EXPECT_FALSE(parse({"-n", "10.0.0.1:5", "--log-level", "TRACE", "--dump-events", "channel",
                        "--default-detection", "orig", "--default-audio-activity", "true"}));
    EXPECT_EQ(options_.module.options, (ModuleOptions{{"media_node", "10.0.0.1:5"},
                                                      {"log_level", "TRACE"},
                                                      {"default_audio_activity", "true"},
                                                      {"default_detection", "orig"},
                                                      {"dump_events", "channel"}}));
}

TEST_F(OptionsTest, EveryFeatureTextOfTheModuleIsTaken) {
    for (const char* text : {"true", "enabled", "inactive", "originator", "orig", "terminator",
                             "term", "orig::active", "term::none", "trueish", ""}) {
        EXPECT_FALSE(parse({"--default-detection", text})) << text;
    }
}

TEST_F(OptionsTest, AVariableMayBeSetAgainAndAgain) {
    EXPECT_FALSE(parse({"--set", "a=1", "--set", "b=x=y", "-s", "c="}));
    EXPECT_EQ(options_.plan.variables,
              (std::vector<Variable>{
                  {"sip_call_id", "{uuid}@quorvane-call"}, {"a", "1"}, {"b", "x=y"}, {"c", ""}}));
}

TEST_F(OptionsTest, CommandsAreSortedByTheirTimes) {
    EXPECT_FALSE(parse({"--api", "2 quorvane version", "--api", "0.5   quorvane {uuid} features"}));
    ASSERT_EQ(options_.plan.commands.size(), 2u);
    EXPECT_EQ(options_.plan.commands[0].at_s, 0.5);
    EXPECT_EQ(options_.plan.commands[0].text, "quorvane {uuid} features");
    EXPECT_EQ(options_.plan.commands[1].text, "quorvane version");
}

TEST_F(OptionsTest, ManyCallsHaveARateAndALength) {
    EXPECT_FALSE(parse({"--calls", "2000", "--rate", "50", "--length", "20-40", "--concurrent", "7",
                        "--seed", "3", "--repeat", "--direction", "outbound"}));
    EXPECT_EQ(options_.plan.schedule.calls, 2000u);
    EXPECT_EQ(options_.plan.schedule.rate, 50);
    EXPECT_EQ(options_.plan.schedule.length_s->min, 20);
    EXPECT_EQ(options_.plan.schedule.length_s->max, 40);
    EXPECT_EQ(options_.plan.concurrent, 7u);
    EXPECT_EQ(options_.plan.schedule.seed, 3u);
    EXPECT_EQ(options_.plan.afterwards, Afterwards::REPEAT);
    EXPECT_TRUE(options_.plan.outbound);
}

TEST_F(OptionsTest, FaultsAndLevelsAreKnownByName) {
    EXPECT_FALSE(
        parse({"--fault", "no-timetable", "--fault", "null-frame@1-2", "--show-log", "debug"}));
    EXPECT_EQ(options_.plan.faults.size(), 2u);
    EXPECT_EQ(options_.show_log, SWITCH_LOG_DEBUG);
}

TEST_F(OptionsTest, WrongValuesAreNamedWithTheirOption) {
    const std::vector<std::pair<std::string, std::string>> wrong = {
        {"--media-node", "localhost"},
        {"--media-node", ":40000"},
        {"--set", "novalue"},
        {"--set", "=x"},
        {"--uuid", "12"},
        {"--duration", "5-2"},
        {"--duration", "0"},
        {"--duration", "soon"},
        {"--api", "quorvane"},
        {"--show-log", "LOUD"},
        {"--default-detection", "TRUE"},
        {"--default-audio-activity", "both"}};
    for (const auto& [option, value] : wrong) {
        EXPECT_TRUE(names(refusal_of({option, value}), {option, "'" + value + "'"}));
    }
    EXPECT_TRUE(names(refusal_of({"--config-place", "nowhere"}),
                      {"--config-place", "nowhere", "auto", "private", "relocated"}));
    EXPECT_TRUE(names(refusal_of({"--dump-events", "foo"}),
                      {"--dump-events", "foo", "none", "all", "channel", "channel-short"}));
    EXPECT_NE(refusal_of({"--frame-ms", "5"}), "accepted");
    EXPECT_NE(refusal_of({"--calls", "0"}), "accepted");
    EXPECT_NE(refusal_of({"--log-level", "debug"}), "accepted");
    EXPECT_NE(refusal_of({"--nonsense"}), "accepted");
}

TEST_F(OptionsTest, OptionsThatContradictEachOtherAreRefused) {
    const std::string uuid = "00010203-0405-0607-0809-0a0b0c0d0e0f";
    EXPECT_TRUE(names(refusal_of({"--uuid", uuid, "--calls", "2"}), {"--uuid", "--calls 2"}));
    EXPECT_TRUE(
        names(refusal_of({"--read", "a.wav", "--sample-rate", "16000"}), {"--sample-rate"}));
    EXPECT_NE(refusal_of({"--quiet", "--verbose"}), "accepted");
}

TEST_F(OptionsTest, TheHelpNamesExamplesFaultsAndExitCodes) {
    EXPECT_EQ(parse({"--version"}), EXIT_FINE);
    EXPECT_EQ(parse({"--help"}), EXIT_FINE);
    EXPECT_NE(help_.find("quorvane-call --calls 2000"), std::string::npos);
    EXPECT_NE(help_.find("bug-refused "), std::string::npos);
    EXPECT_NE(help_.find("\n  3  "), std::string::npos);
    EXPECT_NE(help_.find("quorvane_rule_id=N"), std::string::npos);
}

}  // namespace
TEST_F(OptionsTest, NetworkLosesDuplicatesReordersAndDelays) {
    EXPECT_EQ(parse({}), std::nullopt);
    EXPECT_FALSE(options_.network.wanted());
    EXPECT_EQ(parse({"--lose", "1.5", "--duplicate", "2", "--reorder", "3", "--delay", "10-20.5"}),
              std::nullopt);
    EXPECT_EQ(options_.network.lose_percent, 1.5);
    EXPECT_EQ(options_.network.duplicate_percent, 2);
    EXPECT_EQ(options_.network.reorder_packets, 3u);
    EXPECT_EQ(options_.network.delay_ms.min, 10);
    EXPECT_EQ(options_.network.delay_ms.max, 20.5);
}

TEST_F(OptionsTest, NetworkThatMakesNoSenseIsRefused) {
    for (const auto& [option, value] :
         std::vector<std::pair<std::string, std::string>>{{"--lose", "101"},
                                                          {"--lose", "-1"},
                                                          {"--lose", "nan"},
                                                          {"--duplicate", "x"},
                                                          {"--reorder", "1001"},
                                                          {"--delay", "20-10"},
                                                          {"--delay", "10001"},
                                                          {"--delay", ""}}) {
        EXPECT_EQ(parse({option.c_str(), value.c_str()}), EXIT_USAGE) << option << value;
    }
    EXPECT_EQ(parse({"--config", "file", "--lose", "1"}), EXIT_USAGE);
    EXPECT_EQ(parse({"--config", "file", "--lose", "1", "--media-node", "127.0.0.1:1"}),
              std::nullopt);
}

}  // namespace qv::tools::call
