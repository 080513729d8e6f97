#include "host/events.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>

#include "tests/host/host_fixture.h"

namespace qv::host {
namespace {

using Texts = std::vector<std::string>;

// What the callbacks of the running test have recorded.
Texts g_seen;
std::thread::id g_thread;
std::atomic<bool> g_inside{false};

const char* header(switch_event_t* event, const char* name) {
    const char* value = switch_event_get_header_idx(event, name, -1);
    return value ? value : "(none)";
}

void note_name(switch_event_t* event) {
    g_thread = std::this_thread::get_id();
    g_seen.emplace_back(header(event, "Event-Name"));
}

void note_all_name(switch_event_t* event) {
    g_seen.push_back(std::string("all ") + header(event, "Event-Name"));
}

void note_serialized(switch_event_t* event) {
    char* text = nullptr;
    const auto encode = event->bind_user_data ? SWITCH_TRUE : SWITCH_FALSE;
    EXPECT_EQ(switch_event_serialize(event, &text, encode), SWITCH_STATUS_SUCCESS);
    g_seen.emplace_back(text);
    std::free(text);
}

void note_headers(switch_event_t* event) {
    g_seen = {header(event, "unique-id"), header(event, "Absent"), header(event, "_body")};
}

void linger(switch_event_t* /*event*/) {
    g_inside = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    g_inside = false;
}

class EventsTest : public HostTest {
  protected:
    EventsTest() { g_seen.clear(); }

    switch_event_node_t* bind(int id, switch_event_callback_t callback, void* data = nullptr) {
        switch_event_node_t* node = nullptr;
        EXPECT_EQ(switch_event_bind_removable("test", static_cast<switch_event_types_t>(id),
                                              nullptr, callback, data, &node),
                  SWITCH_STATUS_SUCCESS);
        return node;
    }

    void fire(Event event) {
        host_.events().fire(std::move(event));
        host_.events().wait_drained();
    }
};

TEST_F(EventsTest, ABindingGetsItsEventsOnAThreadOfTheHost) {
    bind(SWITCH_EVENT_CHANNEL_CREATE, note_name);
    fire({SWITCH_EVENT_CHANNEL_CREATE, {{"Event-Name", "CHANNEL_CREATE"}}, ""});
    fire({SWITCH_EVENT_CHANNEL_STATE, {{"Event-Name", "CHANNEL_STATE"}}, ""});
    EXPECT_EQ(g_seen, Texts{"CHANNEL_CREATE"});
    EXPECT_NE(g_thread, std::this_thread::get_id());
}

TEST_F(EventsTest, ABindingToAllComesAfterThoseToTheEvent) {
    bind(SWITCH_EVENT_ALL, note_all_name);
    bind(SWITCH_EVENT_API, note_name);
    fire({SWITCH_EVENT_API, {{"Event-Name", "API"}}, ""});
    fire({77, {{"Event-Name", "OTHER"}}, ""});
    EXPECT_EQ(g_seen, (Texts{"API", "all API", "all OTHER"}));
}

TEST_F(EventsTest, ACallIsReportedFromItsStartToItsEnd) {
    bind(SWITCH_EVENT_ALL, note_name);
    load_probe();
    const auto call = host_.start_call();
    call->execute("probe");
    call->hangup();
    host_.events().wait_drained();
    EXPECT_EQ(g_seen, (Texts{"CHANNEL_CREATE", "CHANNEL_ANSWER", "CHANNEL_EXECUTE",
                             "MEDIA_BUG_START", "CHANNEL_EXECUTE_COMPLETE", "CHANNEL_HANGUP",
                             "MEDIA_BUG_STOP", "CHANNEL_HANGUP_COMPLETE", "CHANNEL_DESTROY"}));
}

TEST_F(EventsTest, CloseComesBeforeTheDestroyEvent) {
    load_probe();
    const auto call = host_.start_call();
    call->execute("probe");
    call->hangup();
    host_.events().wait_drained();
    const Texts lines = said();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[lines.size() - 2], "closed after 0 read and 0 write frames on one thread");
    EXPECT_EQ(lines.back(), "destroy event of " + call->uuid());
}

TEST_F(EventsTest, SerializedEventsHaveALineForEachHeader) {
    bind(SWITCH_EVENT_CHANNEL_STATE, note_serialized);
    fire({SWITCH_EVENT_CHANNEL_STATE, {{"Event-Name", "X"}, {"Empty", ""}, {"A", "b c%"}}, ""});
    fire({SWITCH_EVENT_CHANNEL_STATE, {{"A", "b"}}, "text"});
    EXPECT_EQ(g_seen, (Texts{"Event-Name: [X]\nEmpty: []\nA: [b c%]\n\n",
                             "A: [b]\nContent-Length: 4\n\ntext"}));
}

TEST_F(EventsTest, EncodedEventsHaveTheirValuesEncoded) {
    bind(SWITCH_EVENT_CHANNEL_STATE, note_serialized, this);
    fire({SWITCH_EVENT_CHANNEL_STATE, {{"Empty", ""}, {"A", "b c%"}}, ""});
    EXPECT_EQ(g_seen, Texts{"Empty: _undef_\nA: b%20c%25\n\n"});
}

TEST_F(EventsTest, SerializingWithoutMemoryGivesNoText) {
    Event event;
    EventRecord record(event);
    host_.faults().set(Fault::OUT_OF_MEMORY);
    char* text = nullptr;
    EXPECT_EQ(switch_event_serialize(record.get(), &text, SWITCH_FALSE), SWITCH_STATUS_MEMERR);
    EXPECT_EQ(text, nullptr);
}

TEST_F(EventsTest, HeadersAreFoundWhateverTheirCase) {
    bind(SWITCH_EVENT_CUSTOM, note_headers);
    fire({SWITCH_EVENT_CUSTOM, {{"Unique-ID", "u"}}, "the body"});
    EXPECT_EQ(g_seen, (Texts{"u", "(none)", "the body"}));
}

TEST_F(EventsTest, AHeaderCanBeHidden) {
    host_.faults().hide_header("unique-id");
    bind(SWITCH_EVENT_CUSTOM, note_headers);
    fire({SWITCH_EVENT_CUSTOM, {{"Unique-ID", "u"}}, ""});
    EXPECT_EQ(g_seen[0], "(none)");
}

TEST_F(EventsTest, UnbindingEndsDeliveryAndClearsTheNode) {
    switch_event_node_t* node = bind(SWITCH_EVENT_API, note_name);
    EXPECT_EQ(switch_event_unbind(&node), SWITCH_STATUS_SUCCESS);
    EXPECT_EQ(node, nullptr);
    EXPECT_EQ(switch_event_unbind(&node), SWITCH_STATUS_FALSE);
    fire({SWITCH_EVENT_API, {}, ""});
    EXPECT_TRUE(g_seen.empty());
    EXPECT_EQ(host_.report().bindings_alive, 0u);
}

TEST_F(EventsTest, UnbindingWaitsForADeliveryUnderWay) {
    switch_event_node_t* node = bind(SWITCH_EVENT_API, linger);
    host_.events().fire({SWITCH_EVENT_API, {}, ""});
    while (!g_inside) {
        std::this_thread::yield();
    }
    switch_event_unbind(&node);
    EXPECT_FALSE(g_inside);
}

TEST_F(EventsTest, AnEventIdBeyondAllCannotBeBound) {
    switch_event_node_t* node = nullptr;
    EXPECT_EQ(
        switch_event_bind_removable("test", static_cast<switch_event_types_t>(SWITCH_EVENT_ALL + 1),
                                    nullptr, note_name, nullptr, &node),
        SWITCH_STATUS_MEMERR);
}

TEST_F(EventsTest, BindingsFailOneByOne) {
    switch_event_node_t* node = nullptr;
    const auto status_of = [&](switch_event_types_t id) {
        return switch_event_bind_removable("test", id, nullptr, note_name, nullptr, &node);
    };
    host_.faults().set(Fault::BIND_CHANNEL_DESTROY_FAILS);
    EXPECT_NE(status_of(SWITCH_EVENT_CHANNEL_DESTROY), SWITCH_STATUS_SUCCESS);
    EXPECT_EQ(node, nullptr);
    EXPECT_EQ(status_of(SWITCH_EVENT_ALL), SWITCH_STATUS_SUCCESS);
    host_.faults().clear();
    host_.faults().set(Fault::BIND_ALL_FAILS);
    EXPECT_EQ(status_of(SWITCH_EVENT_CHANNEL_DESTROY), SWITCH_STATUS_SUCCESS);
    EXPECT_NE(status_of(SWITCH_EVENT_ALL), SWITCH_STATUS_SUCCESS);
}

TEST_F(EventsTest, ChannelEventsAreNamedFromTwoToTwentyTwo) {
    EXPECT_EQ(event_name(2), "CHANNEL_CREATE");
    EXPECT_EQ(event_name(3), "CHANNEL_DESTROY");
    EXPECT_EQ(event_name(22), "CHANNEL_UUID");
    EXPECT_EQ(event_name(23), "API");
    EXPECT_EQ(event_name(60), "EVENT_60");
}

}  // namespace
}  // namespace qv::host
