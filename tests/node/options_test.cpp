#include "node/options.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sched.h>

#include <string>
#include <vector>

#include "tests/support/names.h"
#include "tests/tools/command_line_test.h"
#include "tools/address.h"

namespace qv::node {

namespace {

using tests::names;
using namespace std::chrono_literals;

using NodeOptionsTest = tests::CommandLineTest<Options, parse_options, EXIT_USAGE>;

TEST_F(NodeOptionsTest, DefaultsAreThoseOfTheDocument) {
    EXPECT_EQ(parse({}), std::nullopt);
    EXPECT_EQ(ntohs(options_.listen.sin_port), 40000);
    EXPECT_EQ(ntohl(options_.listen.sin_addr.s_addr), 0x7F000001u);
    EXPECT_EQ(options_.folder, ".");
    EXPECT_EQ(options_.metrics.has_value(), false);
    EXPECT_EQ(options_.block_kib, 32u);
    EXPECT_EQ(options_.receive_buffer_mib, 64);
    EXPECT_EQ(options_.limits.max_calls, 10'000u);
    EXPECT_EQ(options_.max_files, 1'000'000u);
    EXPECT_EQ(options_.limits.idle, 120s);
    EXPECT_EQ(options_.limits.max_age, 12h);
    EXPECT_EQ(options_.limits.linger, 300ms);
    EXPECT_EQ(options_.limits.max_silence_s, 120.0);
    EXPECT_EQ(options_.limits.reorder.packets, 32u);
    EXPECT_EQ(options_.limits.reorder.wait, 200ms);
}

TEST_F(NodeOptionsTest, AddressAndPortAreTaken) {
    EXPECT_EQ(parse({"--listen", "5091"}), std::nullopt);
    EXPECT_EQ(ntohs(options_.listen.sin_port), 5091);
    EXPECT_EQ(parse({"--listen", "192.0.2.9:5090"}), std::nullopt);
    EXPECT_EQ(ntohs(options_.listen.sin_port), 5090);
    EXPECT_EQ(ntohl(options_.listen.sin_addr.s_addr), 0xC0000209u);
    EXPECT_EQ(options_.listen.sin_family, AF_INET);
}

TEST_F(NodeOptionsTest, SwitchesAreOffUntilGiven) {
    parse({});
    EXPECT_FALSE(options_.stereo || options_.no_sides || options_.keep_pauses || options_.quiet ||
                 options_.overwrite || options_.live || options_.timeline || options_.every_packet);
    parse({"--stereo", "--no-sides", "--keep-pauses", "-q", "--overwrite", "--live", "--timeline",
           "--packets"});
    EXPECT_TRUE(options_.stereo && options_.no_sides && options_.keep_pauses && options_.quiet &&
                options_.overwrite && options_.live && options_.timeline && options_.every_packet);
}

TEST_F(NodeOptionsTest, FormatIsOneOfThree) {
    EXPECT_EQ(parse({}), std::nullopt);
    EXPECT_EQ(options_.format, AudioFormat::WAV);
    EXPECT_EQ(parse({"--format", "flac"}), std::nullopt);
    EXPECT_EQ(options_.format, AudioFormat::FLAC);
    EXPECT_EQ(parse({"--format", "opus"}), std::nullopt);
    EXPECT_EQ(options_.format, AudioFormat::OPUS);
    EXPECT_EQ(parse({"--format", "mp3"}), EXIT_USAGE);
}

TEST_F(NodeOptionsTest, LimitsOfWhatIsKeptMayBothBeGiven) {
    EXPECT_EQ(parse({}), std::nullopt);
    EXPECT_FALSE(options_.keep.any());
    EXPECT_EQ(parse({"--keep", "30d", "--keep", "200G"}), std::nullopt);
    EXPECT_EQ(options_.keep.age, 720h);
    EXPECT_EQ(options_.keep.bytes, 214'748'364'800u);
    EXPECT_EQ(parse({"--keep", "30"}), EXIT_USAGE);
    EXPECT_EQ(parse({"--keep", "30d", "--name", "{date}-{uuid}"}), std::nullopt);
    EXPECT_EQ(parse({"--keep", "30d", "--name", "{reference}"}), EXIT_USAGE);
}

TEST_F(NodeOptionsTest, NetworksForReportsNeedReports) {
    EXPECT_EQ(parse({}), std::nullopt);
    EXPECT_FALSE(options_.reports);
    EXPECT_EQ(parse({"--reports", "--report-to", "192.0.2.0/24", "--report-to", "10.0.0.1"}),
              std::nullopt);
    EXPECT_TRUE(options_.reports);
    EXPECT_EQ(options_.reported_to.size(), 2u);
    EXPECT_EQ(parse({"--report-to", "192.0.2.0/24"}), EXIT_USAGE);
    EXPECT_EQ(parse({"--reports", "--report-to", "192.0.2.0/33"}), EXIT_USAGE);
}

TEST_F(NodeOptionsTest, NetworksOfSendersAreGathered) {
    parse({});
    EXPECT_TRUE(options_.allowed.empty());
    EXPECT_FALSE(options_.limits.any_source);
    EXPECT_EQ(parse({"--allow", "192.0.2.0/24", "--any-source", "--allow", "10.0.0.1"}),
              std::nullopt);
    ASSERT_EQ(options_.allowed.size(), 2u);
    EXPECT_EQ(options_.allowed[0].address, 0xC0000200u);
    EXPECT_EQ(options_.allowed[0].mask, 0xFFFFFF00u);
    EXPECT_EQ(options_.allowed[1].address, 0x0A000001u);
    EXPECT_TRUE(options_.limits.any_source);
    EXPECT_EQ(parse({"--allow", "192.0.2.0/33"}), EXIT_USAGE);
}

TEST_F(NodeOptionsTest, SecondsMayHaveAFraction) {
    parse({"--linger", "0.25", "--call-timeout", "1.5", "--reorder-wait", "0", "--max-call-age",
           "3600"});
    EXPECT_EQ(options_.limits.linger, 250ms);
    EXPECT_EQ(options_.limits.idle, 1500ms);
    EXPECT_EQ(options_.limits.reorder.wait, 0ms);
    EXPECT_EQ(options_.limits.max_age, 1h);
}

TEST_F(NodeOptionsTest, LimitsAreTaken) {
    parse({"--calls",          "3", "--idle-exit",   "2.5", "--rate",           "48000",
           "--max-reorder",    "0", "--max-silence", "0",   "--max-calls",      "5",
           "--max-open-files", "7", "--block",       "1",   "--receive-buffer", "8",
           "--metrics",        "0", "--events",      "-",   "--max-files",      "9",
           "--sync",           "2"});
    EXPECT_EQ(options_.sync_s, 2.0);
    EXPECT_EQ(options_.calls, 3u);
    EXPECT_EQ(options_.idle_exit_s, 2.5);
    EXPECT_EQ(options_.limits.sample_rate, 48000);
    EXPECT_EQ(options_.limits.reorder.packets, 0u);
    EXPECT_EQ(options_.limits.max_silence_s, 0.0);
    EXPECT_EQ(options_.limits.max_calls, 5u);
    EXPECT_EQ(options_.max_open_files, 7u);
    EXPECT_EQ(options_.max_files, 9u);
    EXPECT_EQ(options_.block_kib, 1u);
    EXPECT_EQ(options_.receive_buffer_mib, 8);
    EXPECT_EQ(tools::address_text(*options_.metrics), "127.0.0.1:0");
    EXPECT_EQ(options_.events, "-");
}

TEST_F(NodeOptionsTest, CommandIsSplitAtBlanks) {
    parse({"--on-end", "  python3 /opt/a.py  'x", "--on-end-running", "2"});
    EXPECT_EQ(options_.on_end, (std::vector<std::string>{"python3", "/opt/a.py", "'x"}));
    EXPECT_EQ(options_.on_end_running, 2u);
    EXPECT_TRUE(names(refusal_of({"--on-end", " "}), {"--on-end"}));
}

TEST_F(NodeOptionsTest, RefusalNamesTheOptionAndTheValue) {
    EXPECT_TRUE(names(refusal_of({"--listen", "nowhere"}), {"--listen", "'nowhere'"}));
    EXPECT_TRUE(names(refusal_of({"--output", ""}), {"--output"}));
    // Without a port, the system would choose one, which nobody wants.
    for (const std::string text : {"", "192.0.2.9", "192.0.2.9:", ":"}) {
        EXPECT_TRUE(names(refusal_of({"--listen", text}), {"--listen", "'" + text + "'"}));
    }
    EXPECT_TRUE(names(refusal_of({"--rate", "999"}), {"--rate", "999", "1000", "384000"}));
    EXPECT_TRUE(names(refusal_of({"--metrics", "65536"}), {"--metrics", "'65536'"}));
    EXPECT_TRUE(names(refusal_of({"--calls", "-1"}), {"--calls", "-1", "0", "1000000000"}));
    EXPECT_TRUE(names(refusal_of({"--linger", "soon"}), {"--linger", "'soon'", "0", "60"}));
    EXPECT_TRUE(names(refusal_of({"--unknown"}), {"--unknown"}));
}

TEST_F(NodeOptionsTest, MetricsMayBeServedOnAnyAddress) {
    EXPECT_EQ(parse({"--metrics", "192.0.2.9:9100"}), std::nullopt);
    EXPECT_EQ(tools::address_text(*options_.metrics), "192.0.2.9:9100");
    parse({"--metrics", "9100"});
    EXPECT_EQ(tools::address_text(*options_.metrics), "127.0.0.1:9100");
}

// In both programs, -r is the short form of --read.
TEST_F(NodeOptionsTest, LetterRIsNotTheSampleRate) {
    EXPECT_EQ(parse({"-r", "trunk.pcap"}), std::nullopt);
    EXPECT_EQ(options_.read, "trunk.pcap");
    EXPECT_EQ(options_.limits.sample_rate, 0);
    EXPECT_FALSE(options_.listen_given);
    EXPECT_EQ(parse({"--sample-rate", "48000"}), std::nullopt);
    EXPECT_EQ(options_.limits.sample_rate, 48000);
}

TEST_F(NodeOptionsTest, ValuesBeyondTheRangesAreRefused) {
    for (const auto& [option, value] :
         std::vector<std::pair<std::string, std::string>>{{"--max-reorder", "1001"},
                                                          {"--reorder-wait", "10.1"},
                                                          {"--reorder-wait", "-1"},
                                                          {"--max-silence", "3601"},
                                                          {"--max-calls", "0"},
                                                          {"--call-timeout", "0"},
                                                          {"--call-timeout", "nan"},
                                                          {"--max-call-age", "1e9"},
                                                          {"--linger", "61"},
                                                          {"--max-open-files", "0"},
                                                          {"--max-files", "-1"},
                                                          {"--block", "0"},
                                                          {"--receive-buffer", "0"},
                                                          {"--threads", "257"},
                                                          {"--threads", "-1"},
                                                          {"--idle-exit", "-1"},
                                                          {"--sync", "-1"},
                                                          {"--idle-exit", "nan"}}) {
        EXPECT_EQ(parse({option, value}), EXIT_USAGE) << option << ' ' << value;
    }
}

TEST_F(NodeOptionsTest, OneThreadReceivesUnlessMoreAreAskedFor) {
    ASSERT_EQ(parse({}), std::nullopt);
    EXPECT_EQ(options_.threads, 1u);
    ASSERT_EQ(parse({"--threads", "3"}), std::nullopt);
    EXPECT_EQ(options_.threads, 3u);
    cpu_set_t cores;
    CPU_ZERO(&cores);
    ASSERT_EQ(sched_getaffinity(0, sizeof cores, &cores), 0);
    ASSERT_EQ(parse({"--threads", "0"}), std::nullopt);
    EXPECT_EQ(options_.threads, static_cast<std::size_t>(CPU_COUNT(&cores)));
}

TEST_F(NodeOptionsTest, HelpTellsDefaultsAndExitCodes) {
    EXPECT_EQ(parse({"--version"}), EXIT_FINE);
    EXPECT_EQ(parse({"--help"}), EXIT_FINE);
    EXPECT_NE(help_.find("--listen ADDRESS:PORT=127.0.0.1:40000"), std::string::npos);
    for (const char* code : {"\n  0  ", "\n  1  ", "\n  2  ", "\n  3  "}) {
        EXPECT_NE(help_.find(code), std::string::npos) << code;
    }
}

}  // namespace

}  // namespace qv::node
