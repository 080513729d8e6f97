// What the module does when the host reports the end of a channel.
#include <gtest/gtest.h>

#include <string>

#include "tests/support/module_test.h"

namespace qv::tests {

namespace {

using host::Fault;

class ChannelDestroy : public ModuleTest {
  protected:
    void SetUp() override { load(); }

    using Headers = std::vector<std::pair<std::string, std::string>>;

    void fire(const Headers& headers) {
        host.events().fire({SWITCH_EVENT_CHANNEL_DESTROY, headers, ""});
        host.events().wait_drained();
    }

    static std::string destroy_line(const std::string& level, const std::string& text) {
        return level + " log mod_quorvane.cpp:channel_destroy_handler " + text;
    }

    const std::string configured_context_found = destroy_line(
        "WARNING", std::string(UUID) +
                       ": found configured app context on channel destroy: possible memory leak "
                       "or logic error!");
    const std::string unconfigured_context_found = destroy_line(
        "NOTICE", std::string(UUID) +
                      ": found app context on channel destroy however no app has been executed");
};

TEST_F(ChannelDestroy, CallThatTheModuleNeverSawWritesNothing) {
    const auto call = start_call();
    hangup(*call);
    EXPECT_TRUE(take_log().empty());
}

TEST_F(ChannelDestroy, TappedCallThatEndedNormallyWritesNothing) {
    const auto call = start_tapped_call();
    hangup(*call);
    EXPECT_FALSE(host.log().contains("channel destroy"));
}

TEST_F(ChannelDestroy, CallThatOnlyTheApiTouchedIsFreedWithANotice) {
    const auto call = start_call();
    call_api("audio_activity start");
    take_log();
    hangup(*call);
    EXPECT_EQ(take_log(), (Lines{unconfigured_context_found}));
    fire({{"Unique-ID", UUID}});
    EXPECT_TRUE(take_log().empty());
}

TEST_F(ChannelDestroy, CallWhoseBugWasRefusedIsFreedWithAWarning) {
    const auto call = start_call();
    host.faults().set(Fault::BUG_REFUSED);
    call->execute("quorvane");
    take_log();
    hangup(*call);
    EXPECT_EQ(take_log(), (Lines{configured_context_found}));
    fire({{"Unique-ID", UUID}});
    EXPECT_TRUE(take_log().empty());
}

TEST_F(ChannelDestroy, CallWhoseConfigurationFailedIsFreedWithAWarning) {
    const auto call = start_call({{"quorvane_media_node", "bad"}});
    call->execute("quorvane");
    take_log();
    hangup(*call);
    EXPECT_EQ(take_log(), (Lines{configured_context_found}));
}

TEST_F(ChannelDestroy, NothingIsSentToTheMediaNode) {
    const auto call = start_call();
    host.faults().set(Fault::BUG_REFUSED);
    call->execute("quorvane");
    hangup(*call);
    EXPECT_TRUE(node.receive_all().empty());
}

TEST_F(ChannelDestroy, EventWithoutAUniqueIdIsAnError) {
    fire({{"Event-Name", "CHANNEL_DESTROY"}});
    EXPECT_EQ(take_log(),
              (Lines{destroy_line(
                  "ERROR", "MAGIC: unable to extract \"Unique-ID\" from channel destroy event")}));
}

TEST_F(ChannelDestroy, UniqueIdThatIsNoUuidIsReportedAsItStands) {
    fire({{"Unique-ID", "no-uuid %s"}});
    EXPECT_EQ(take_log(),
              (Lines{destroy_line("ERROR", "MAGIC: failed to parse session uuid: no-uuid %s")}));
}

TEST_F(ChannelDestroy, EmptyUniqueIdIsNoUuid) {
    fire({{"Unique-ID", ""}});
    EXPECT_EQ(take_log(), (Lines{destroy_line("ERROR", "MAGIC: failed to parse session uuid: ")}));
}

// The log line shows the UUID as the event spells it.
TEST_F(ChannelDestroy, UuidInUpperCaseIsTheSameCall) {
    const auto call = start_call();
    call_api("detection stop");
    take_log();
    fire({{"Unique-ID", "3B9F6A52-7C1E-4D80-9F2B-E4A1C05D8E37"}});
    EXPECT_EQ(take_log(),
              (Lines{destroy_line("NOTICE",
                                  "3B9F6A52-7C1E-4D80-9F2B-E4A1C05D8E37: found app context on "
                                  "channel destroy however no app has been executed")}));
}

TEST_F(ChannelDestroy, ContextThatWasFreedIsUnknownToTheApi) {
    const auto call = start_call();
    call_api("audio_activity start");
    fire({{"Unique-ID", UUID}});
    EXPECT_EQ(call_api("features"), std::string("-ERR, features: session context not found, "
                                                "uuid/id: ") +
                                        UUID + "/" + KEY);
}

// The API also finds a session by its external id; the event names only its UUID.
TEST_F(ChannelDestroy, ContextUnderAnExternalIdEndsWithItsSession) {
    const std::string external_id = "0123456789abcdef0123456789abcdef";
    host::CallOptions options;
    options.external_id = external_id;
    const auto call = start_call_as(std::move(options));
    EXPECT_EQ(api(external_id + " audio_activity start").rfind("audio_activity: app context", 0),
              0U);
    EXPECT_EQ(api(external_id + " features"), "----AA\n");
    take_log();
    hangup(*call);
    EXPECT_TRUE(take_log().empty());

    options = {};
    options.uuid = external_id;
    const auto next = start_call_as(std::move(options));
    EXPECT_EQ(api(external_id + " features").rfind("-ERR, features: session context not found", 0),
              0U);
}

// A tapped call has another call's external id as its UUID.
TEST_F(ChannelDestroy, ContextUnderAnExternalIdStaysWithTheCallThatHasItAsUuid) {
    host::CallOptions options;
    options.uuid = "c2d8e1f4-7a06-45b3-a190-9c3d5e7f2b68";
    options.external_id = UUID;
    const auto other = start_call_as(std::move(options));
    call_api("audio_activity start");
    const auto call = start_tapped_call();
    hangup(*other);
    EXPECT_EQ(call_api("features"), "----AA\n");
    host.log().clear();
    hangup(*call);
    EXPECT_FALSE(host.log().contains("MAGIC"));
}

// A command once used the external id, but the context under it was made for another call since.
TEST_F(ChannelDestroy, ContextOfACallStaysThoughAnotherCallHadItsUuidAsExternalId) {
    host::CallOptions options;
    options.uuid = "c2d8e1f4-7a06-45b3-a190-9c3d5e7f2b68";
    options.external_id = UUID;
    const auto other = start_call_as(std::move(options));
    call_api("audio_activity start");
    fire({{"Unique-ID", UUID}});
    const auto call = start_call();
    call_api("audio_activity start orig");
    hangup(*other);
    EXPECT_EQ(call_api("features"), "-----A\n");
}

}  // namespace

}  // namespace qv::tests
