#include "module/event_text.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "host/embedded_host.h"

namespace qv::freeswitch {

namespace {

using host::Event;
using host::EventRecord;

std::string short_line(Event event) {
    EventRecord record(event);
    return short_event_line(record.get());
}

bool is_channel_event(int id) {
    const Event event{id, {}, ""};
    EventRecord record(event);
    return freeswitch::is_channel_event(record.get());
}

class EventText : public ::testing::Test {
  protected:
    host::EmbeddedHost host_;  // Finds the headers.
};

TEST_F(EventText, HeaderIsFoundByItsName) {
    const Event event{SWITCH_EVENT_API, {{"Unique-ID", "u"}, {"Event-Name", "API"}}, ""};
    EventRecord record(event);
    EXPECT_STREQ(event_header(record.get(), "Event-Name"), "API");
    EXPECT_EQ(event_header(record.get(), "Channel-State"), nullptr);
}

TEST_F(EventText, ChannelEventsReachFromCreateToUuid) {
    EXPECT_FALSE(is_channel_event(SWITCH_EVENT_CLONE));
    EXPECT_TRUE(is_channel_event(SWITCH_EVENT_CHANNEL_CREATE));
    EXPECT_TRUE(is_channel_event(SWITCH_EVENT_CHANNEL_DESTROY));
    EXPECT_TRUE(is_channel_event(SWITCH_EVENT_CHANNEL_UUID));
    EXPECT_FALSE(is_channel_event(SWITCH_EVENT_API));
}

TEST_F(EventText, ShortLineHasTheCallItsEventAndItsStates) {
    EXPECT_EQ(short_line({SWITCH_EVENT_CHANNEL_CREATE,
                          {{"Event-Name", "CHANNEL_CREATE"},
                           {"Unique-ID", "3b9f6a52"},
                           {"Channel-State", "CS_INIT"},
                           {"Channel-Call-State", "DOWN"}},
                          ""}),
              "[quorvane]: 3b9f6a52 CHANNEL_CREATE: state=CS_INIT, call-state=DOWN\n");
}

TEST_F(EventText, ShortLineLeavesOutMissingValues) {
    EXPECT_EQ(short_line({SWITCH_EVENT_CHANNEL_CREATE, {{"Event-Name", "CHANNEL_CREATE"}}, ""}),
              "[quorvane]:  CHANNEL_CREATE: state=, call-state=\n");
}

TEST_F(EventText, ShortLineOfAnEventWithoutANameEndsAfterTheCall) {
    EXPECT_EQ(short_line({SWITCH_EVENT_CHANNEL_CREATE,
                          {{"Unique-ID", "3b9f6a52"}, {"Channel-State", "CS_INIT"}},
                          ""}),
              "[quorvane]: 3b9f6a52 ");
}

}  // namespace

}  // namespace qv::freeswitch
