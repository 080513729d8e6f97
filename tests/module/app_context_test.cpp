#include "module/app_context.h"

#include <gtest/gtest.h>

#include <string>

#include "host/embedded_host.h"
#include "module/host_log.h"
#include "tests/support/log_text.h"
#include "tests/support/packet_text.h"

namespace qv::freeswitch {

namespace {

using media::features16_t;
using tests::hex;

// The result of a parser for `text`: the two bytes of the features, or "refused". A refused text
// must not change the features.
template <typename Parse>
std::string parsed(Parse parse, const char* text, features16_t features) {
    const features16_t before = features;
    if (parse(text, features)) {
        return tests::to_text({features.supported, features.active});
    }
    const bool same = features.supported == before.supported && features.active == before.active;
    return same ? "refused" : "refused, but changed";
}

std::string activity(const char* text, features16_t features = {0, 0}) {
    return parsed(AppContext::parse_audio_activity, text, features);
}

std::string detection(const char* text, features16_t features = {0, 0}) {
    return parsed(AppContext::parse_sample_detection, text, features);
}

TEST(FeatureParser, TrueAndEnabledStartBothLegs) {
    EXPECT_EQ(activity("true"), hex("0c 0c"));
    EXPECT_EQ(activity("enabled"), hex("0c 0c"));
    EXPECT_EQ(detection("true"), hex("30 30"));
    EXPECT_EQ(detection("enabled"), hex("30 30"));
}

TEST(FeatureParser, InactiveSupportsBothLegsAndStartsNone) {
    EXPECT_EQ(activity("inactive"), hex("0c 00"));
    EXPECT_EQ(detection("inactive"), hex("30 00"));
}

// For each named leg, the text decides whether the feature runs, so it can stop a running one.
TEST(FeatureParser, InactiveStopsLegsThatWereActive) {
    EXPECT_EQ(activity("inactive", {0x0C, 0x0C}), hex("0c 00"));
}

TEST(FeatureParser, InactiveLeavesTheOtherFeaturesAlone) {
    EXPECT_EQ(activity("inactive", {0xF0, 0xF0}), hex("fc f0"));
    EXPECT_EQ(detection("inactive", {0xCC, 0xCC}), hex("fc cc"));
}

TEST(FeatureParser, LegWithoutValueIsStarted) {
    EXPECT_EQ(activity("orig"), hex("04 04"));
    EXPECT_EQ(activity("originator"), hex("04 04"));
    EXPECT_EQ(activity("term"), hex("08 08"));
    EXPECT_EQ(activity("terminator"), hex("08 08"));
    EXPECT_EQ(detection("orig"), hex("10 10"));
    EXPECT_EQ(detection("term"), hex("20 20"));
}

TEST(FeatureParser, LegWithTrueEnabledOrActiveIsStarted) {
    EXPECT_EQ(activity("orig::true"), hex("04 04"));
    EXPECT_EQ(activity("orig::enabled"), hex("04 04"));
    EXPECT_EQ(activity("term::active"), hex("08 08"));
    EXPECT_EQ(detection("terminator::active"), hex("20 20"));
}

TEST(FeatureParser, LegWithAnyOtherValueIsNotStarted) {
    for (const char* text : {"term::false", "term::inactive", "term::no", "term::", "term::tru",
                             "term::True", "term::activ", "term::enable", "term:: true"}) {
        EXPECT_EQ(activity(text), hex("08 00")) << text;
    }
}

TEST(FeatureParser, WordsCountByTheirBeginning) {
    EXPECT_EQ(activity("trueish"), hex("0c 0c"));
    EXPECT_EQ(activity("enabledness"), hex("0c 0c"));
    EXPECT_EQ(activity("inactively"), hex("0c 00"));
    EXPECT_EQ(activity("originate"), hex("04 04"));
    EXPECT_EQ(activity("term::trueish"), hex("08 08"));
    EXPECT_EQ(activity("term::actively"), hex("08 08"));
    EXPECT_EQ(activity("term::enabledness"), hex("08 08"));
}

TEST(FeatureParser, TerminationWithYesNamesTheTerminatorAndDoesNotStartIt) {
    EXPECT_EQ(activity("termination::yes"), hex("08 00"));
}

TEST(FeatureParser, NameOfLessThanFourCharactersIsRefused) {
    for (const char* text : {"", "t", "tru", "ori", "on", "yes", "1", "::true", "ori::true"}) {
        EXPECT_EQ(activity(text, {0x11, 0x22}), "refused") << text;
    }
}

TEST(FeatureParser, UnknownNameIsRefused) {
    for (const char* text : {"both", "enable", "inactiv", "active", "TRUE", "Orig", " true",
                             "false", "disabled", "false::true", "bogus"}) {
        EXPECT_EQ(activity(text, {0x11, 0x22}), "refused") << text;
        EXPECT_EQ(detection(text, {0x11, 0x22}), "refused") << text;
    }
}

TEST(FeatureParser, NullTextIsRefused) {
    EXPECT_EQ(activity(nullptr, {0x11, 0x22}), "refused");
    EXPECT_EQ(detection(nullptr, {0x11, 0x22}), "refused");
}

TEST(FeatureParser, ValueAfterTrueIsNotRead) {
    EXPECT_EQ(activity("true::false"), hex("0c 0c"));
    EXPECT_EQ(activity("inactive::true"), hex("0c 00"));
}

TEST(FeatureParser, SecondWordIsPartOfTheValueAndNotReadOnItsOwn) {
    EXPECT_EQ(activity("orig::true term::true"), hex("04 04"));
    EXPECT_EQ(activity("orig term"), hex("04 04"));
    EXPECT_EQ(activity("orig term::false"), hex("04 00"));
    EXPECT_EQ(activity("orig::false term::true"), hex("04 00"));
    EXPECT_EQ(activity("true inactive more"), hex("0c 0c"));
}

TEST(FeatureParser, ValueEndsAtTheNextDoubleColon) {
    EXPECT_EQ(activity("orig::true::false"), hex("04 04"));
    EXPECT_EQ(activity("orig::::true"), hex("04 00"));
}

TEST(FeatureParser, LegThatIsNotNamedKeepsItsBits) {
    EXPECT_EQ(activity("orig::false", {0x08, 0x08}), hex("0c 08"));
    EXPECT_EQ(activity("orig::false", {0x0C, 0x0C}), hex("0c 08"));
    EXPECT_EQ(activity("term", {0x04, 0x00}), hex("0c 08"));
    EXPECT_EQ(detection("orig::false", {0x20, 0x20}), hex("30 20"));
}

TEST(AppContextRecord, NewContextIsZeroExceptTheMarkOfTheWriteLeg) {
    const AppContext context;
    EXPECT_EQ(tests::to_text({std::begin(context.uuid), std::end(context.uuid)}),
              hex("00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00"));
    EXPECT_EQ(context.id, 0U);
    EXPECT_EQ(context.created_time, 0U);
    EXPECT_EQ(context.configured_time, 0U);
    EXPECT_EQ(context.configured_clock_us, 0U);
    EXPECT_EQ(context.rule_id, 0U);
    EXPECT_EQ(context.report_node_addr, 0U);
    EXPECT_EQ(context.report_node_port, 0);
    EXPECT_EQ(context.flags, 0);
    EXPECT_EQ(context.features.supported + context.features.active, 0);
    EXPECT_EQ(context.call_id, "");
    EXPECT_EQ(context.media_node.sin_family + context.media_node.sin_port, 0);
    EXPECT_EQ(context.media_node.sin_addr.s_addr, 0U);
    EXPECT_EQ(context.legs[0].leg_flags, 0x0000);
    EXPECT_EQ(context.legs[1].leg_flags, 0x8000);
    EXPECT_FALSE(context.start_sent);
    EXPECT_EQ(context.requested_features.supported + context.requested_features.active, 0);
}

TEST(AppContextRecord, NewLegsHaveSentNothing) {
    const AppContext context;
    for (const LegStream& leg : context.legs) {
        EXPECT_EQ(leg.bytes_sent, 0U);
        EXPECT_EQ(leg.odd_frames, 0U);
        EXPECT_EQ(leg.sequence_number, 0U);
        EXPECT_EQ(leg.sample_offset, 0U);
    }
}

TEST(CallKey, IsTheCrcOfTheSixteenBytes) {
    EXPECT_EQ(call_key(tests::from_text("3b9f6a527c1e4d809f2be4a1c05d8e37").data()),
              0x34EC6CA7460833A0U);
    EXPECT_EQ(call_key(tests::from_text("c2d8e1f47a0645b3a1909c3d5e7f2b68").data()),
              0x54C9051D9DB29633U);
    EXPECT_EQ(call_key(tests::from_text("00000000000000000000000000000000").data()), 0U);
    EXPECT_EQ(call_key(tests::from_text("00000000000000000000000000000001").data()),
              0x42F0E1EBA9EA3693U);
}

TEST(ContextRegistryRules, AnAddedContextIsFound) {
    Mutex contexts_lock;
    const RegistryGuard guard(contexts_lock);
    ContextRegistry contexts;
    AppContext* const added = add_context(contexts, 7);
    ASSERT_NE(added, nullptr);
    EXPECT_EQ(find_context(contexts, 7), added);
    EXPECT_EQ(find_context(contexts, 8), nullptr);
    delete added;
}

// The module's entry points never create a null entry. The code handles one nevertheless, and
// only this test reaches that code.
TEST(ContextRegistryRules, NullEntryIsReplacedInItsPlace) {
    Mutex contexts_lock;
    const RegistryGuard guard(contexts_lock);
    ContextRegistry contexts;
    contexts[7] = nullptr;
    EXPECT_EQ(find_context(contexts, 7), nullptr);
    AppContext* const added = add_context(contexts, 7);
    EXPECT_EQ(contexts.size(), 1U);
    EXPECT_EQ(contexts.at(7), added);
    delete added;
}

class MarkConfigured : public ::testing::Test {
  protected:
    MarkConfigured() {
        log::Logger::install(Logger::write, nullptr, nullptr);
        host::CallOptions options;
        options.created = 1767225600123456;
        call = host.start_call(options);
    }

    host::EmbeddedHost host;
    std::unique_ptr<host::Call> call;
    Mutex contexts_lock;
    AppContext context;
};

TEST_F(MarkConfigured, TakesTheCreationTimeOfTheChannel) {
    const RegistryGuard guard(contexts_lock);
    EXPECT_TRUE(context.mark_configured(call->session()));
    EXPECT_EQ(context.created_time, 1767225600123456U);
    EXPECT_TRUE(host.log().lines().empty());
}

TEST_F(MarkConfigured, SessionWithoutATimetableLeavesTheContextUnconfigured) {
    const RegistryGuard guard(contexts_lock);
    host.faults().set(host::Fault::NO_TIMETABLE);
    EXPECT_FALSE(context.mark_configured(call->session()));
    EXPECT_EQ(context.created_time, 0U);
    ASSERT_EQ(host.log().lines().size(), 1U);
    EXPECT_EQ(tests::to_text(host.log().lines().front()),
              "ERROR session " + call->uuid() +
                  " app_context.cpp:mark_configured MAGIC: failed to get channel timetable");
}

}  // namespace

}  // namespace qv::freeswitch
