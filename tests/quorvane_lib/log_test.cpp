#include "quorvane_lib/log.h"

#include <gtest/gtest.h>
#include <sys/time.h>

#include <cstdlib>
#include <ctime>
#include <sstream>
#include <type_traits>

#include "tests/support/log_recorder.h"

namespace {

timeval clock_reads{};

}  // namespace

// This program's clock always shows `clock_reads`.
extern "C" __attribute__((visibility("default"))) int gettimeofday(timeval* now, void*) noexcept {
    *now = clock_reads;
    return 0;
}

namespace qv::log {
namespace {

using tests::LogLine;
using tests::LogRecorder;

TEST(Level, ValuesAre32BitAndFallWithImportance) {
    EXPECT_EQ(sizeof(Level), 4u);
    EXPECT_EQ(SYSTEM, 0);
    EXPECT_EQ(ERROR, 1);
    EXPECT_EQ(WARNING, 2);
    EXPECT_EQ(INFO, 3);
    EXPECT_EQ(DEBUG, 4);
    EXPECT_EQ(TRACE, 5);
}

TEST(Level, NamesAndPaddingsFillSevenCharacters) {
    const char* const names[] = {"SYSTEM", "ERROR", "WARNING", "INFO", "DEBUG", "TRACE"};
    const char* const spaces[] = {" ", "  ", "", "   ", "  ", "  "};
    for (int level = SYSTEM; level <= TRACE; ++level) {
        EXPECT_EQ(level_to_string[level], names[level]);
        EXPECT_EQ(level_to_spaces[level], spaces[level]);
    }
}

TEST(LogConstants, DelimiterAndDirectory) {
    EXPECT_EQ(message_delimiter, " | ");
    EXPECT_EQ(default_directory, "/var/log/delmaren/quorvane");
}

TEST(ParseLevel, EveryNameStoresItsLevel) {
    const char* const names[] = {"SYSTEM", "ERROR", "WARNING", "INFO", "DEBUG", "TRACE"};
    for (int expected = SYSTEM; expected <= TRACE; ++expected) {
        Level level = expected == SYSTEM ? TRACE : SYSTEM;
        EXPECT_TRUE(try_parse_level(names[expected], level));
        EXPECT_EQ(level, expected);
    }
}

TEST(ParseLevel, AnythingElseFailsAndLeavesTheTargetAlone) {
    for (const std::string text :
         {"warning", "Warn", "WARN", "", "3", "WARNING ", " WARNING", "INFOX", "NOTICE"}) {
        Level level = DEBUG;
        EXPECT_FALSE(try_parse_level(text, level)) << text;
        EXPECT_EQ(level, DEBUG) << text;
    }
    Level level = DEBUG;
    EXPECT_FALSE(try_parse_level(std::string("INFO\0", 5), level));
    EXPECT_EQ(level, DEBUG);
}

TEST(Message, EachClassHasItsLevel) {
    EXPECT_EQ(SystemMessage().level, SYSTEM);
    EXPECT_EQ(ErrorMessage().level, ERROR);
    EXPECT_EQ(WarningMessage().level, WARNING);
    EXPECT_EQ(InfoMessage().level, INFO);
    EXPECT_EQ(DebugMessage().level, DEBUG);
    EXPECT_EQ(TraceMessage().level, TRACE);
    EXPECT_EQ(Message(TRACE).level, TRACE);
}

TEST(Message, TheSubclassesAddNothing) {
    EXPECT_TRUE((std::is_base_of_v<Message, SystemMessage>));
    EXPECT_EQ(sizeof(TraceMessage), sizeof(Message));
    EXPECT_TRUE(std::has_virtual_destructor_v<Message>);
}

TEST(Message, TheTextIsTheWholeContentOfTheStream) {
    InfoMessage message;
    message.stream << "frames [" << 12 << "]" << '\n' << "next";
    EXPECT_EQ(message.stream.str(), "frames [12]\nnext");
}

TEST(Message, DestroyingAMessageEmitsNothing) {
    const LogRecorder recorder;
    {
        ErrorMessage message;
        message.stream << "lost";
    }
    EXPECT_TRUE(recorder.lines.empty());
}

TEST(Logger, DefaultsDiscardEverythingAboveNothing) {
    EXPECT_EQ(Logger::m_instance.context, nullptr);
    EXPECT_EQ(Logger::m_instance.release, nullptr);
    EXPECT_EQ(Logger::m_instance.write, &LoggerImpl::dummy_write);
    EXPECT_EQ(Logger::m_instance.level, INFO);
}

TEST(Logger, ByDefaultAMessageIsSilentlyDropped) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    ErrorMessage message;
    message.stream << "lost";
    Logger::m_instance.write(Logger::m_instance.context, "a.cpp", 7, message);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(Logger, TheSinkGetsContextFileLineAndMessage) {
    struct Sink {
        std::string seen;
    } sink;
    LoggerImpl logger;
    logger.context = &sink;
    logger.write = [](void* context, const char* file, int line, const Message& message) {
        std::ostringstream out;
        format_message(out, file, line, message);
        static_cast<Sink*>(context)->seen = out.str();
    };
    DebugMessage message;
    message.stream << "x";
    logger.write(logger.context, "a.cpp", 7, message);
    EXPECT_EQ(sink.seen, "DEBUG   | a.cpp:7 | x");
}

TEST(Logger, TheDestructorReleasesTheContextOnce) {
    int released = 0;
    {
        LoggerImpl logger;
        logger.context = &released;
        logger.release = [](void* context) { ++*static_cast<int*>(context); };
    }
    EXPECT_EQ(released, 1);
}

TEST(Logger, WritingNamesTheSourceFileByItsBaseName) {
    LogRecorder recorder;
    InfoMessage message;
    message.stream << "x";
    QV_LOG_WRITE(message);
    EXPECT_EQ(recorder.lines, (std::vector<LogLine>{{INFO, "x"}}));
    EXPECT_EQ(recorder.files, (std::vector<std::string>{"log_test.cpp"}));
}

TEST(Logger, AdmitsLevelsUpToItsOwn) {
    EXPECT_TRUE(Logger::admits(SYSTEM));
    EXPECT_TRUE(Logger::admits(INFO));
    EXPECT_FALSE(Logger::admits(DEBUG));
    EXPECT_FALSE(Logger::admits(TRACE));
}

std::string formatted(Level level, const char* file, int line, const std::string& text) {
    Message message(level);
    message.stream << text;
    std::ostringstream out;
    format_message(out, file, line, message);
    return out.str();
}

TEST(FormatMessage, EveryLevelIsPaddedToTheWidthOfWarning) {
    EXPECT_EQ(formatted(SYSTEM, "a.cpp", 7, "x"), "SYSTEM  | a.cpp:7 | x");
    EXPECT_EQ(formatted(ERROR, "a.cpp", 7, "x"), "ERROR   | a.cpp:7 | x");
    EXPECT_EQ(formatted(WARNING, "a.cpp", 7, "x"), "WARNING | a.cpp:7 | x");
    EXPECT_EQ(formatted(INFO, "a.cpp", 7, "x"), "INFO    | a.cpp:7 | x");
    EXPECT_EQ(formatted(DEBUG, "a.cpp", 7, "x"), "DEBUG   | a.cpp:7 | x");
    EXPECT_EQ(formatted(TRACE, "a.cpp", 7, "x"), "TRACE   | a.cpp:7 | x");
}

TEST(FormatMessage, LayoutOfALineOfTheParser) {
    EXPECT_EQ(formatted(ERROR, "conf_configuration.cpp", 97, "text"),
              "ERROR   | conf_configuration.cpp:97 | text");
}

TEST(FormatMessage, AddsNoLineEndAndTakesTheTextAsItIs) {
    EXPECT_EQ(formatted(INFO, "a.cpp", 7, "50% |\n"), "INFO    | a.cpp:7 | 50% |\n");
    EXPECT_EQ(formatted(INFO, "a.cpp", 7, ""), "INFO    | a.cpp:7 | ");
}

TEST(FormatMessage, ReturnsItsStream) {
    std::ostringstream out;
    EXPECT_EQ(&format_message(out, "a.cpp", 7, InfoMessage()), &out);
}

TEST(FormatMessage, ANullFileNameSpoilsTheStreamAndLosesTheRest) {
    InfoMessage message;
    message.stream << "x";
    std::ostringstream out;
    format_message(out, nullptr, 7, message);
    EXPECT_TRUE(out.bad());
    EXPECT_EQ(out.str(), "INFO    | ");
}

TEST(FormatMessage, TheLineIsDecimalWhateverTheStreamWrites) {
    std::ostringstream out;
    out << std::hex << std::showbase;
    format_message(out, "a.cpp", 97, InfoMessage());
    EXPECT_EQ(out.str(), "INFO    | a.cpp:97 | ");
}

// Sets the clock to a fixed time, in a time zone of the test's choice.
class FormatTime : public testing::Test {
  protected:
    static std::string at(const char* zone, long seconds, long microseconds) {
        ::setenv("TZ", zone, 1);  // NOLINT(concurrency-mt-unsafe): one thread.
        clock_reads = {seconds, microseconds};
        return format_time();
    }
    ~FormatTime() override {
        ::unsetenv("TZ");  // NOLINT(concurrency-mt-unsafe): one thread.
        ::tzset();
    }
};

TEST_F(FormatTime, DateClockAndSixDigitsOfMicroseconds) {
    EXPECT_EQ(at("UTC0", 1633954556, 4211), "2021.10.11 12:15:56.004211");
    EXPECT_EQ(at("UTC0", 1633954556, 0), "2021.10.11 12:15:56.000000");
    EXPECT_EQ(at("UTC0", 1633954556, 999999), "2021.10.11 12:15:56.999999");
}

TEST_F(FormatTime, FieldsAreLocalTime) {
    EXPECT_EQ(at("XYZ-03:30", 1633954556, 4211), "2021.10.11 15:45:56.004211");
    EXPECT_EQ(at("XYZ+13", 1633954556, 4211), "2021.10.10 23:15:56.004211");
}

TEST_F(FormatTime, FieldsHaveLeadingZeros) {
    EXPECT_EQ(at("UTC0", 0, 1), "1970.01.01 00:00:00.000001");
}

}  // namespace
}  // namespace qv::log
