// The effect of each channel variable of a call on the start packet and on the log.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <string>

#include "tests/support/clocks.h"
#include "tests/support/module_test.h"

namespace qv::tests {

namespace {

class ChannelVariables : public ModuleTest {
  protected:
    // The start packet of a call with these variables and sip_call_id.
    Bytes start(Variables variables,
                switch_call_direction_t direction = SWITCH_CALL_DIRECTION_INBOUND) {
        host::CallOptions options;
        options.variables = std::move(variables);
        options.variables.emplace("sip_call_id", "x");
        options.direction = direction;
        return start_with(options);
    }
    Bytes start_with(const host::CallOptions& options) {
        host.log().clear();
        const auto call = start_call_as(options);
        call->execute("quorvane");
        Bytes packet = node.receive();
        hangup(*call);
        EXPECT_EQ(field(node.receive(), 4, 1), "82");
        return packet;
    }

    // The features, supported and active, of a call with these variables.
    std::string features(const Variables& variables) { return field(start(variables), 78, 2); }

    // The lines that report faulty variables.
    Lines complaints() {
        Lines lines;
        for (const host::LogLine& line : host.log().lines()) {
            if (line.function == "configure_context") {
                lines.push_back(to_text(line));
            }
        }
        return lines;
    }

    static std::string complaint(const std::string& text) {
        return session_line("ERROR", "configure_context", text);
    }
    static std::string parse_complaint(const std::string& name, const std::string& rest) {
        return complaint("failed to parse channel variable \"" + name + "\": " + rest);
    }
};

TEST_F(ChannelVariables, NoVariablesAtAll) {
    load("default_detection=true\ndefault_audio_activity=true\n");
    host::CallOptions options;
    options.created = 1767225600123456;
    const Bytes packet = start_with(options);
    EXPECT_EQ(field(packet, 6, 2), hex("00 00"));                     // leg word
    EXPECT_EQ(field(packet, 40, 8), hex("40 22 22 46 48 47 06 00"));  // created
    EXPECT_EQ(field(packet, 64, 14), hex("00 00 00 00 00 00 00 00"    // rule id
                                         "00 00 00 00 00 00"));       // report node
    EXPECT_EQ(field(packet, 78, 5), hex("00 00 01 00 00"));           // no features, no reference
    EXPECT_EQ(packet.size(), 83U);
    EXPECT_EQ(complaints(),
              (Lines{complaint("channel variable \"sip_call_id\" is not set; ignoring")}));
}

// ---- quorvane_media_node ----------------------------------------------------------

TEST_F(ChannelVariables, MediaNodeOfTheCallWinsOverTheModules) {
    load();
    MediaNode other;
    const auto call = start_call({{"quorvane_media_node", other.address()}});
    call->execute("quorvane");
    EXPECT_EQ(field(other.receive(), 4, 1), "81");
    EXPECT_TRUE(node.receive_all().empty());
}

TEST_F(ChannelVariables, MediaNodeMayBeAPortAlone) {
    load("media_node=127.0.0.1:9\n");
    const Bytes packet = start({{"quorvane_media_node", std::to_string(node.port())}});
    EXPECT_EQ(field(packet, 4, 1), "81");
}

TEST_F(ChannelVariables, MediaNodeMayBeginWithBlanks) {
    load("media_node=127.0.0.1:9\n");
    const Bytes packet = start({{"quorvane_media_node", "  " + node.address()}});
    EXPECT_EQ(field(packet, 4, 1), "81");
}

TEST_F(ChannelVariables, BadMediaNodeEndsTheConfigurationBeforeAnythingElse) {
    load();
    const auto call = start_call({{"quorvane_media_node", "a:b"},
                                  {"quorvane_rule_id", "12x"},
                                  {"quorvane_report_node", "bad"}});
    call->execute("quorvane");
    EXPECT_EQ(complaints(), (Lines{parse_complaint("quorvane_media_node", "a:b; discarding!")}));
    EXPECT_TRUE(host.log().contains("failed to configure application context"));
}

// ---- quorvane_record --------------------------------------------------------------

TEST_F(ChannelVariables, WordsThatTurnRecordingOnWhateverTheirCase) {
    load();
    for (const char* value : {"yes", "on", "true", "t", "enabled", "active", "allow", "YES", "On",
                              "TRUE", "T", "Enabled", "ALLOW"}) {
        EXPECT_EQ(features({{"quorvane_record", value}}), hex("c0 c0")) << value;
        EXPECT_TRUE(complaints().empty()) << value;
    }
}

TEST_F(ChannelVariables, NumbersOtherThanZeroTurnRecordingOn) {
    load();
    for (const char* value : {"7", "1", "-1", "+2", "1.0", "007"}) {
        EXPECT_EQ(features({{"quorvane_record", value}}), hex("c0 c0")) << value;
    }
}

TEST_F(ChannelVariables, EverythingElseLeavesRecordingOffWithoutAWord) {
    load();
    for (const char* value : {"0", "no", "off", "false", "", "0.5", "-0", "-", ".", "1x", "yes ",
                              " 1", "truely", "allowed", "f"}) {
        EXPECT_EQ(features({{"quorvane_record", value}}), hex("00 00")) << value;
        EXPECT_TRUE(complaints().empty()) << value;
    }
}

TEST_F(ChannelVariables, RecordingNeedsNoRuleId) {
    load();
    EXPECT_EQ(features({{"quorvane_record", "yes"}, {"quorvane_detection", "true"}}), hex("c0 c0"));
}

// ---- quorvane_rule_id -------------------------------------------------------------

TEST_F(ChannelVariables, RuleIdIsDecimalOfUpTo64Bits) {
    load();
    Bytes packet = start({{"quorvane_rule_id", "42"}});
    EXPECT_EQ(field(packet, 64, 8), hex("2a 00 00 00 00 00 00 00"));
    EXPECT_EQ(field(packet, 6, 2), hex("00 80"));
    packet = start({{"quorvane_rule_id", "18446744073709551615"}});
    EXPECT_EQ(field(packet, 64, 8), hex("ff ff ff ff ff ff ff ff"));
    EXPECT_EQ(field(packet, 6, 2), hex("00 80"));
}

TEST_F(ChannelVariables, RuleIdZeroIsARuleId) {
    load();
    const Bytes packet = start({{"quorvane_rule_id", "0"}});
    EXPECT_EQ(field(packet, 64, 8), hex("00 00 00 00 00 00 00 00"));
    EXPECT_EQ(field(packet, 6, 2), hex("00 80"));
}

// The number before the other characters is stored although the flag stays clear.
TEST_F(ChannelVariables, RuleIdWithSomethingBehindItIsIgnoredYetStored) {
    load("default_detection=true\ndefault_audio_activity=true\n");
    const Bytes packet = start({{"quorvane_rule_id", "12x"},
                                {"quorvane_detection", "true"},
                                {"quorvane_audio_activity", "true"}});
    EXPECT_EQ(complaints(), (Lines{parse_complaint("quorvane_rule_id", "12x; ignored!")}));
    EXPECT_EQ(field(packet, 6, 2), hex("00 00"));
    EXPECT_EQ(field(packet, 64, 8), hex("0c 00 00 00 00 00 00 00"));
    EXPECT_EQ(field(packet, 78, 2), hex("00 00"));
}

TEST_F(ChannelVariables, RuleIdThatIsNoNumberIsIgnored) {
    load();
    for (const char* value : {"abc", "", "18446744073709551616", "0x10"}) {
        const Bytes packet = start({{"quorvane_rule_id", value}});
        EXPECT_EQ(complaints(),
                  (Lines{parse_complaint("quorvane_rule_id", std::string(value) + "; ignored!")}));
        EXPECT_EQ(field(packet, 6, 2), hex("00 00")) << value;
    }
}

// ---- quorvane_detection, quorvane_audio_activity ----------------------------------

TEST_F(ChannelVariables, FeaturesNeedARuleId) {
    load("default_detection=true\ndefault_audio_activity=true\n");
    EXPECT_EQ(features({{"quorvane_detection", "true"}, {"quorvane_audio_activity", "true"}}),
              hex("00 00"));
    EXPECT_EQ(features({{"quorvane_detection", "bogus"}}), hex("00 00"));
    EXPECT_TRUE(complaints().empty());
}

TEST_F(ChannelVariables, FeaturesOfTheCallGoWithTheirLegs) {
    load();
    EXPECT_EQ(features({{"quorvane_rule_id", "1"}, {"quorvane_detection", "true"}}), hex("30 30"));
    EXPECT_EQ(features({{"quorvane_rule_id", "1"}, {"quorvane_audio_activity", "term::false"}}),
              hex("08 00"));
    EXPECT_EQ(features({{"quorvane_rule_id", "1"},
                        {"quorvane_record", "1"},
                        {"quorvane_detection", "orig::inactive"},
                        {"quorvane_audio_activity", "true"}}),
              hex("dc cc"));
}

TEST_F(ChannelVariables, DefaultsStandInForVariablesThatAreNotSet) {
    load("default_detection=orig\ndefault_audio_activity=inactive\n");
    EXPECT_EQ(features({{"quorvane_rule_id", "1"}}), hex("1c 10"));
    EXPECT_TRUE(complaints().empty());
}

TEST_F(ChannelVariables, BadDetectionFallsBackToTheDefault) {
    load("default_detection=orig\n");
    EXPECT_EQ(features({{"quorvane_rule_id", "1"}, {"quorvane_detection", "bogus"}}), hex("10 10"));
    EXPECT_EQ(complaints(), (Lines{parse_complaint("quorvane_detection", "bogus; default used!")}));
}

TEST_F(ChannelVariables, BadDetectionWithoutADefaultStaysOff) {
    load();
    EXPECT_EQ(features({{"quorvane_rule_id", "1"}, {"quorvane_detection", "bogus"}}), hex("00 00"));
    EXPECT_EQ(complaints(), (Lines{parse_complaint("quorvane_detection", "bogus; discarding!")}));
}

TEST_F(ChannelVariables, BadAudioActivityFallsBackToTheDefault) {
    load("default_audio_activity=term\n");
    EXPECT_EQ(features({{"quorvane_rule_id", "1"}, {"quorvane_audio_activity", ""}}), hex("08 08"));
    EXPECT_EQ(complaints(), (Lines{parse_complaint("quorvane_audio_activity", "; default used!")}));
}

TEST_F(ChannelVariables, BadAudioActivityWithoutADefaultStaysOff) {
    load();
    EXPECT_EQ(features({{"quorvane_rule_id", "1"}, {"quorvane_audio_activity", "both"}}),
              hex("00 00"));
    EXPECT_EQ(complaints(),
              (Lines{parse_complaint("quorvane_audio_activity", "both; discarding!")}));
}

TEST_F(ChannelVariables, ValueOfTheCallWinsOverTheDefault) {
    load("default_detection=true\ndefault_audio_activity=true\n");
    EXPECT_EQ(features({{"quorvane_rule_id", "1"},
                        {"quorvane_detection", "orig"},
                        {"quorvane_audio_activity", "term::no"}}),
              hex("18 10"));
}

TEST_F(ChannelVariables, DetectionIsComplainedOfBeforeAudioActivity) {
    load();
    start(
        {{"quorvane_rule_id", "1"}, {"quorvane_detection", "x"}, {"quorvane_audio_activity", "y"}});
    EXPECT_EQ(complaints(), (Lines{parse_complaint("quorvane_detection", "x; discarding!"),
                                   parse_complaint("quorvane_audio_activity", "y; discarding!")}));
}

// ---- quorvane_report_node ---------------------------------------------------------

TEST_F(ChannelVariables, ReportNodeGoesOutInNetworkOrder) {
    load();
    const Bytes packet = start({{"quorvane_report_node", "192.0.2.10:5060"}});
    EXPECT_EQ(field(packet, 72, 6), hex("c0 00 02 0a 13 c4"));
    EXPECT_EQ(field(packet, 6, 2), hex("00 40"));
}

TEST_F(ChannelVariables, ReportNodeWithoutAPortHasPortZero) {
    load();
    const Bytes packet = start({{"quorvane_report_node", "192.0.2.10"}});
    EXPECT_EQ(field(packet, 72, 6), hex("c0 00 02 0a 00 00"));
    EXPECT_EQ(field(packet, 6, 2), hex("00 40"));
}

TEST_F(ChannelVariables, BlankReportNodeIsLoopback) {
    load();
    const Bytes packet = start({{"quorvane_report_node", " "}});
    EXPECT_EQ(field(packet, 72, 6), hex("7f 00 00 01 00 00"));
    EXPECT_EQ(field(packet, 6, 2), hex("00 40"));
}

TEST_F(ChannelVariables, BadReportNodeIsIgnored) {
    load();
    for (const char* value : {"nowhere", "192.0.2.10:99999", "192.0.2.300:1"}) {
        const Bytes packet = start({{"quorvane_report_node", value}});
        EXPECT_EQ(
            complaints(),
            (Lines{parse_complaint("quorvane_report_node", std::string(value) + "; ignored!")}));
        EXPECT_EQ(field(packet, 72, 6), hex("00 00 00 00 00 00")) << value;
        EXPECT_EQ(field(packet, 6, 2), hex("00 00")) << value;
    }
}

// ---- quorvane_call_id_ref, sip_call_id --------------------------------------------

TEST_F(ChannelVariables, CallReferenceIsSipCallId) {
    load();
    const Bytes packet = start({{"sip_call_id", "ab@c"}});
    EXPECT_EQ(field(packet, 80, 7), hex("05 00 61 62 40 63 00"));
    EXPECT_EQ(packet.size(), 87U);
    EXPECT_TRUE(complaints().empty());
}

TEST_F(ChannelVariables, CallReferenceIsTheVariableThatIsNamed) {
    load();
    const Bytes packet = start({{"quorvane_call_id_ref", "X-Call"}, {"X-Call", "ref"}});
    EXPECT_EQ(field(packet, 80, 6), hex("04 00 72 65 66 00"));
    EXPECT_TRUE(complaints().empty());
}

TEST_F(ChannelVariables, NamedVariableThatIsNotSetIsComplainedOf) {
    load();
    const Bytes packet = start({{"quorvane_call_id_ref", "X-Call"}});
    EXPECT_EQ(field(packet, 80, 3), hex("01 00 00"));
    EXPECT_EQ(complaints(), (Lines{complaint("channel variable \"X-Call\" is not set; ignoring")}));
}

TEST_F(ChannelVariables, EmptyReferenceNameIsAVariableThatIsNotSet) {
    load();
    const Bytes packet = start({{"quorvane_call_id_ref", ""}});
    EXPECT_EQ(field(packet, 80, 3), hex("01 00 00"));
    EXPECT_EQ(complaints(), (Lines{complaint("channel variable \"\" is not set; ignoring")}));
}

TEST_F(ChannelVariables, EmptyCallReferenceIsSet) {
    load();
    const Bytes packet = start({{"sip_call_id", ""}});
    EXPECT_EQ(packet.size(), 83U);
    EXPECT_TRUE(complaints().empty());
}

TEST_F(ChannelVariables, PercentSignsInAValueAreReportedAsTheyStand) {
    load();
    start({{"quorvane_report_node", "%s%n"}});
    EXPECT_EQ(complaints(), (Lines{parse_complaint("quorvane_report_node", "%s%n; ignored!")}));
}

// ---- direction and times ----------------------------------------------------------

TEST_F(ChannelVariables, InboundCallReadsTheOriginator) {
    load();
    host::CallOptions options;
    const auto call = start_call_as(options);
    call->execute("quorvane");
    EXPECT_EQ(field(node.receive(), 6, 2), hex("00 00"));
    const Bytes frame(320);
    call->feed(host::Direction::READ, frame.data(), frame.size());
    EXPECT_EQ(field(node.receive(), 6, 2), hex("00 00"));
    call->feed(host::Direction::WRITE, frame.data(), frame.size());
    EXPECT_EQ(field(node.receive(), 6, 2), hex("01 80"));
}

TEST_F(ChannelVariables, OutboundCallReadsTheTerminator) {
    load();
    host::CallOptions options;
    options.direction = SWITCH_CALL_DIRECTION_OUTBOUND;
    const auto call = start_call_as(options);
    call->execute("quorvane");
    EXPECT_EQ(field(node.receive(), 6, 2), hex("01 00"));
    const Bytes frame(320);
    call->feed(host::Direction::READ, frame.data(), frame.size());
    EXPECT_EQ(field(node.receive(), 6, 2), hex("01 00"));
    call->feed(host::Direction::WRITE, frame.data(), frame.size());
    EXPECT_EQ(field(node.receive(), 6, 2), hex("00 80"));
}

TEST_F(ChannelVariables, FlagsOfTheCallAreJoined) {
    load();
    const Bytes packet = start({{"quorvane_rule_id", "1"}, {"quorvane_report_node", "192.0.2.1:1"}},
                               SWITCH_CALL_DIRECTION_OUTBOUND);
    EXPECT_EQ(field(packet, 6, 2), hex("01 c0"));
}

std::int64_t little_endian(const Bytes& packet, std::size_t offset) {
    std::uint64_t value = 0;
    for (std::size_t i = 8; i > 0; --i) {
        value = value << 8 | packet.at(offset + i - 1);
    }
    return static_cast<std::int64_t>(value);
}

// A call whose channel has no timetable can be configured twice.
TEST_F(ChannelVariables, SecondConfigurationWithoutRuleIdAndReportNodeClearsTheirFlags) {
    load();
    host.faults().set(host::Fault::NO_TIMETABLE);
    const auto call = start_call({{"sip_call_id", "x"},
                                  {"quorvane_rule_id", "7"},
                                  {"quorvane_report_node", "192.0.2.9:5000"}});
    call->execute("quorvane");
    EXPECT_EQ(field(node.receive(), 6, 2), hex("00 C0"));  // leg word
    call->set_variable("quorvane_rule_id", "none");
    call->set_variable("quorvane_report_node", "nowhere:none");
    call->execute("quorvane");
    const Bytes packet = node.receive();
    EXPECT_EQ(field(packet, 6, 2), hex("00 00"));
    EXPECT_EQ(field(packet, 64, 14), hex("00 00 00 00 00 00 00 00"  // rule id
                                         "00 00 00 00 00 00"));     // report node
}

TEST_F(ChannelVariables, TimesOfTheConfigurationAreOfThisMoment) {
    load();
    const std::int64_t wall = now_us<std::chrono::system_clock>();
    const std::int64_t steady = now_us<std::chrono::steady_clock>();
    const Bytes packet = start({});
    const std::int64_t configured_steady = little_endian(packet, 56);
    EXPECT_GE(little_endian(packet, 48), wall);
    EXPECT_LE(little_endian(packet, 48), now_us<std::chrono::system_clock>());
    EXPECT_GE(configured_steady, steady);
    EXPECT_LE(configured_steady, little_endian(packet, 32));  // the packet's send time
}

}  // namespace

}  // namespace qv::tests
