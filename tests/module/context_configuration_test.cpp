// The effect of every variable on the start packet is tested in channel_variables_test.cpp; here,
// what ends in the context.
#include "module/context_configuration.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>

#include "host/embedded_host.h"
#include "module/host_log.h"
#include "quorvane_lib/net_socket.h"

namespace qv::freeswitch {

namespace {

class ContextConfiguration : public ::testing::Test {
  protected:
    using Variables = std::map<std::string, std::string>;

    ContextConfiguration() {
        log::Logger::install(Logger::write, nullptr, nullptr);
        net::parse_addr("192.0.2.1:4000", nullptr, defaults_.media_node_addr);
    }

    bool configure(const Variables& variables, switch_call_direction_t direction) {
        host::CallOptions options;
        options.variables = variables;
        options.direction = direction;
        const auto call = host_.start_call(options);
        return configure_context(context_, call->session(), defaults_);
    }
    bool configure(const Variables& variables) {
        return configure(variables, SWITCH_CALL_DIRECTION_INBOUND);
    }

    std::string media_node() const {
        return std::string(::inet_ntoa(context_.media_node.sin_addr)) + ":" +
               std::to_string(ntohs(context_.media_node.sin_port));
    }

    // How many lines report a fault, as opposed to a variable that is not set.
    std::size_t faults() const { return host_.log().count("failed to parse"); }

    mutable host::EmbeddedHost host_;
    Configuration defaults_;
    AppContext context_;
};

TEST_F(ContextConfiguration, MediaNodeOfTheCallWinsOverTheDefault) {
    EXPECT_TRUE(configure({}));
    EXPECT_EQ(media_node(), "192.0.2.1:4000");
    EXPECT_TRUE(configure({{"quorvane_media_node", "192.0.2.2:5000"}}));
    EXPECT_EQ(media_node(), "192.0.2.2:5000");
}

TEST_F(ContextConfiguration, NothingIsReadAfterAMediaNodeThatCannotBeParsed) {
    EXPECT_FALSE(configure({{"quorvane_media_node", "nowhere"}, {"quorvane_rule_id", "7"}}));
    EXPECT_EQ(faults(), 1U);
    EXPECT_EQ(context_.rule_id, 0U);
    EXPECT_EQ(context_.configured_time, 0U);
}

TEST_F(ContextConfiguration, OtherFaultyVariablesAreReportedAndIgnored) {
    EXPECT_TRUE(configure({{"quorvane_rule_id", "x"}, {"quorvane_report_node", "nowhere"}}));
    EXPECT_EQ(faults(), 2U);
    EXPECT_EQ(context_.flags, 0);
}

TEST_F(ContextConfiguration, RuleIdAndReportNodeSetTheirFlags) {
    EXPECT_TRUE(configure({{"quorvane_rule_id", "7"}, {"quorvane_report_node", "1.2.3.4:258"}}));
    EXPECT_EQ(context_.flags, media::FLAG_RULE_ID | media::FLAG_REPORT_NODE);
    EXPECT_EQ(context_.rule_id, 7U);
    EXPECT_EQ(context_.report_node_addr, htonl(0x01020304));
    EXPECT_EQ(context_.report_node_port, htons(0x0102));
}

// An API command may have created the context, and the application may run twice.
TEST_F(ContextConfiguration, FlagsOfAnEarlierRunAreCleared) {
    EXPECT_TRUE(configure({{"quorvane_rule_id", "7"}, {"quorvane_report_node", "1.2.3.4:258"}},
                          SWITCH_CALL_DIRECTION_OUTBOUND));
    EXPECT_TRUE(configure({}));
    EXPECT_EQ(context_.flags, 0);
    EXPECT_EQ(context_.rule_id, 0U);
    EXPECT_EQ(context_.report_node_addr, 0U);
    EXPECT_EQ(context_.report_node_port, 0);
}

TEST_F(ContextConfiguration, DirectionOfTheCallDecidesWhichLegIsTheTerminators) {
    EXPECT_TRUE(configure({}, SWITCH_CALL_DIRECTION_INBOUND));
    EXPECT_EQ(context_.flags & media::FLAG_OUTBOUND, 0);
    EXPECT_EQ(context_.legs[media::READ_LEG].leg_flags, 0);
    EXPECT_EQ(context_.legs[media::WRITE_LEG].leg_flags,
              media::LEG_WRITE | media::LEG_TERMINATOR_SIDE);
    EXPECT_TRUE(configure({}, SWITCH_CALL_DIRECTION_OUTBOUND));
    EXPECT_EQ(context_.flags & media::FLAG_OUTBOUND, media::FLAG_OUTBOUND);
    EXPECT_EQ(context_.legs[media::READ_LEG].leg_flags, media::LEG_TERMINATOR_SIDE);
    EXPECT_EQ(context_.legs[media::WRITE_LEG].leg_flags, media::LEG_WRITE);
}

TEST_F(ContextConfiguration, CallIdIsThatOfTheNamedVariable) {
    EXPECT_TRUE(configure({{"sip_call_id", "usual"}, {"other", "its own"}}));
    EXPECT_EQ(context_.call_id, "usual");
    EXPECT_TRUE(configure(
        {{"sip_call_id", "usual"}, {"other", "its own"}, {"quorvane_call_id_ref", "other"}}));
    EXPECT_EQ(context_.call_id, "its own");
}

TEST_F(ContextConfiguration, FeaturesNeedARuleId) {
    defaults_.default_audio_activity = "true";
    EXPECT_TRUE(configure({{"quorvane_detection", "true"}}));
    const ContextGuard guard(context_.context_lock);
    EXPECT_EQ(context_.features.supported, 0);
}

TEST_F(ContextConfiguration, DefaultsApplyToFeaturesWithoutAVariable) {
    defaults_.default_audio_activity = "true";
    defaults_.default_detection = "true";
    EXPECT_TRUE(configure({{"quorvane_rule_id", "1"}, {"quorvane_detection", "orig::false"}}));
    const ContextGuard guard(context_.context_lock);
    EXPECT_EQ(context_.features.supported, 0x1C) << "activity of both legs, detection of one";
    EXPECT_EQ(context_.features.active, 0x0C) << "detection is off";
}

}  // namespace

}  // namespace qv::freeswitch
