#include "module/host_log.h"

#include <gtest/gtest.h>

#include <string>

#include "host/embedded_host.h"
#include "tests/support/log_text.h"

namespace qv::freeswitch {

namespace {

class HostLog : public ::testing::Test {
  protected:
    HostLog() {
        log::Logger::install(Logger::write, nullptr, nullptr);
        log::Logger::set_level(log::INFO);
    }

    template <typename MessageOfLevel>
    void write(const std::string& text) {
        MessageOfLevel message;
        message.stream << text;
        log::Logger::m_instance.write(nullptr, "somewhere.cpp", 42, message);
    }

    tests::Lines lines() const {
        tests::Lines texts;
        for (const host::LogLine& line : host.log().lines()) {
            texts.push_back(tests::to_text(line));
        }
        return texts;
    }

    mutable host::EmbeddedHost host;
};

TEST_F(HostLog, LevelsGoToTheHostsLevels) {
    log::Logger::set_level(log::TRACE);
    write<log::SystemMessage>("a");
    write<log::ErrorMessage>("b");
    write<log::WarningMessage>("c");
    write<log::InfoMessage>("d");
    write<log::DebugMessage>("e");
    write<log::TraceMessage>("f");
    EXPECT_EQ(lines(),
              (tests::Lines{"NOTICE log somewhere.cpp:- a", "ERROR log somewhere.cpp:- b",
                            "WARNING log somewhere.cpp:- c", "INFO log somewhere.cpp:- d",
                            "DEBUG log somewhere.cpp:- e", "DEBUG1 log somewhere.cpp:- f"}));
}

TEST_F(HostLog, TraceGoesOutAtLevel101) {
    log::Logger::set_level(log::TRACE);
    write<log::TraceMessage>("x");
    ASSERT_EQ(host.log().lines().size(), 1U);
    EXPECT_EQ(static_cast<int>(host.log().lines().front().level), 101);
}

TEST_F(HostLog, LineOfTheCallSiteIsKept) {
    write<log::InfoMessage>("x");
    ASSERT_EQ(host.log().lines().size(), 1U);
    EXPECT_EQ(host.log().lines().front().line, 42);
}

TEST_F(HostLog, ThresholdErrorDropsAWarningAndPassesSystem) {
    log::Logger::set_level(log::ERROR);
    write<log::WarningMessage>("dropped");
    write<log::InfoMessage>("dropped");
    write<log::SystemMessage>("kept");
    write<log::ErrorMessage>("kept, too");
    EXPECT_EQ(lines(), (tests::Lines{"NOTICE log somewhere.cpp:- kept",
                                     "ERROR log somewhere.cpp:- kept, too"}));
}

TEST_F(HostLog, PercentSignsInATextMeanNothing) {
    write<log::InfoMessage>("100%s %n %d");
    ASSERT_EQ(host.log().lines().size(), 1U);
    EXPECT_EQ(host.log().lines().front().format, "[quorvane]: %s\n");
    EXPECT_EQ(host.log().lines().front().text, "[quorvane]: 100%s %n %d\n");
}

TEST_F(HostLog, EmptyTextIsThePrefixAlone) {
    write<log::InfoMessage>("");
    ASSERT_EQ(host.log().lines().size(), 1U);
    EXPECT_EQ(host.log().lines().front().text, "[quorvane]: \n");
}

TEST_F(HostLog, TextThatANullTextEndsIsWrittenUpToThere) {
    for (const std::string& text : {std::string("so far"), std::string(), std::string(600, 'x')}) {
        host.log().clear();
        log::ErrorMessage message;
        message.stream << text << static_cast<const char*>(nullptr) << " and no further";
        log::Logger::m_instance.write(nullptr, "somewhere.cpp", 42, message);
        ASSERT_EQ(host.log().lines().size(), 1U);
        EXPECT_EQ(host.log().lines().front().text, "[quorvane]: " + text + "\n");
    }
}

TEST_F(HostLog, SessionLineIsFiledUnderTheCall) {
    const auto call = host.start_call();
    log_session_line<log::WARNING>(call->session(), QV_PLACE_IN("some_function"), "x ", 1);
    EXPECT_EQ(lines(), (tests::Lines{"WARNING session " + call->uuid() +
                                     " host_log_test.cpp:some_function x 1"}));
}

TEST_F(HostLog, LineOfTheGlueNamesItsFunction) {
    log_line<log::SYSTEM>(QV_PLACE_IN("some_function"), "x");
    EXPECT_EQ(lines(), (tests::Lines{"NOTICE log host_log_test.cpp:some_function x"}));
}

// Records that it was inserted into a line.
struct Piece {
    bool& composed;
};

std::ostream& operator<<(std::ostream& out, const Piece& piece) {
    piece.composed = true;
    return out;
}

TEST_F(HostLog, LineOfALevelThatIsNotAdmittedIsNotComposed) {
    bool composed = false;
    log_line<log::DEBUG>(QV_PLACE, Piece{composed});
    EXPECT_FALSE(composed);
    log_line<log::INFO>(QV_PLACE, Piece{composed});
    EXPECT_TRUE(composed);
}

}  // namespace

}  // namespace qv::freeswitch
