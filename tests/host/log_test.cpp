#include "host/log.h"

#include "tests/host/host_fixture.h"

namespace qv::host {
namespace {

class LogTest : public HostTest {};

TEST_F(LogTest, ALineIsKeptWithEverythingItCameWith) {
    switch_log_printf(SWITCH_CHANNEL_ID_LOG, "file.cpp", "func", 7, nullptr, SWITCH_LOG_DEBUG1,
                      "[x]: %s %d\n", "text", 5);
    ASSERT_EQ(host_.log().lines().size(), 1u);
    const LogLine line = host_.log().lines()[0];
    EXPECT_EQ(line.channel, SWITCH_CHANNEL_ID_LOG);
    EXPECT_EQ(line.level, SWITCH_LOG_DEBUG1);
    EXPECT_EQ(line.file, "file.cpp");
    EXPECT_EQ(line.function, "func");
    EXPECT_EQ(line.line, 7);
    EXPECT_EQ(line.userdata, std::nullopt);
    EXPECT_EQ(line.format, "[x]: %s %d\n");
    EXPECT_EQ(line.text, "[x]: text 5\n");
    EXPECT_FALSE(line.by_host);
}

TEST_F(LogTest, NullNamesStayAbsent) {
    switch_log_printf(SWITCH_CHANNEL_ID_LOG, nullptr, nullptr, 0, nullptr, SWITCH_LOG_INFO, "x");
    EXPECT_EQ(host_.log().lines()[0].file, std::nullopt);
    EXPECT_EQ(host_.log().lines()[0].function, std::nullopt);
}

TEST_F(LogTest, ASessionAsUserDataIsKeptAsItsUuid) {
    const auto call = host_.start_call();
    const auto* session = reinterpret_cast<const char*>(call->session());
    switch_log_printf(SWITCH_CHANNEL_ID_SESSION, "f", "g", 1, session, SWITCH_LOG_INFO, "x\n");
    switch_log_printf(SWITCH_CHANNEL_ID_SESSION, "f", "g", 1, nullptr, SWITCH_LOG_INFO, "x\n");
    EXPECT_EQ(host_.log().lines()[0].userdata, call->uuid());
    EXPECT_EQ(host_.log().lines()[1].userdata, std::nullopt);
}

TEST_F(LogTest, TheHostsOwnLinesStandApart) {
    load_probe();
    EXPECT_EQ(host_.log().lines().size(), 2u);
    EXPECT_EQ(host_.log().all_lines().size(), 3u);
    EXPECT_TRUE(host_.log().all_lines()[2].by_host);
}

TEST_F(LogTest, AListenerHearsLinesThatAreNotKept) {
    std::string heard;
    host_.log().set_listener([&heard](const LogLine& line) { heard += line.text; });
    host_.log().set_recording(false);
    switch_log_printf(SWITCH_CHANNEL_ID_LOG, "f", "g", 1, nullptr, SWITCH_LOG_INFO, "%s", "one");
    host_.log().set_listener(nullptr);
    switch_log_printf(SWITCH_CHANNEL_ID_LOG, "f", "g", 1, nullptr, SWITCH_LOG_INFO, "%s", "two");
    EXPECT_EQ(heard, "one");
    EXPECT_TRUE(host_.log().lines().empty());
}

TEST_F(LogTest, WaitingForALineEndsWithIt) {
    switch_log_printf(SWITCH_CHANNEL_ID_LOG, "f", "g", 1, nullptr, SWITCH_LOG_INFO, "it is so\n");
    EXPECT_TRUE(host_.log().wait_for("is so", std::chrono::seconds(5)));
    EXPECT_FALSE(host_.log().wait_for("is not so", std::chrono::milliseconds(10)));
}

}  // namespace
}  // namespace qv::host
