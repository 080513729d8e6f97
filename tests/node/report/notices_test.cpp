#include "node/report/notices.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <sstream>

#include "tests/node/report/outline.h"

namespace qv::node {

namespace {

using media::DecodeResult;
using tests::Lines;

class NoticesTest : public testing::Test {
  protected:
    // What was written since the last call of one of these functions.
    std::string text() {
        const std::string written = out_.str();
        out_.str("");
        return written;
    }
    Lines lines() { return tests::outlines(text()); }
    std::size_t events() {
        log_.flush();
        return static_cast<std::size_t>(std::count(events_.begin(), events_.end(), '\n'));
    }
    void malformed(Notices& notices, std::uint64_t count) {
        static constexpr unsigned char BYTES[] = {0xf0, 0x00, 0x1a, 4, 5, 6, 7, 8, 9};
        notices.malformed({BYTES, sizeof BYTES, {}}, DecodeResult::TOO_SHORT, count);
    }

    std::ostringstream out_;
    std::string events_;
    LineReport report_{out_};
    EventLog log_{[this](const char* lines, std::size_t size) {
                      events_.append(lines, size);
                      return size;
                  },
                  false};
    Notices notices_{report_, &log_, false};
};

TEST_F(NoticesTest, MalformedDatagramIsShownByItsBeginning) {
    malformed(notices_, 1);
    EXPECT_EQ(lines(), Lines{"malformed packet: 9 0.0.0.0:0 f0 00 1a 04 05 06 07 08"});
    EXPECT_EQ(events(), 1u);
}

TEST_F(NoticesTest, EmptyDatagramHasNoBeginning) {
    notices_.malformed({nullptr, 0, {}}, DecodeResult::TOO_SHORT, 1);
    EXPECT_EQ(lines(), Lines{"malformed packet: 0 0.0.0.0:0"});
}

TEST_F(NoticesTest, AfterThreeOfAReasonMalformedDatagramsAreOnlyCounted) {
    malformed(notices_, 1);
    malformed(notices_, 2);
    const std::string second = tests::plain_lines(text()).at(1);
    malformed(notices_, 3);
    const std::string third = tests::plain_lines(text()).at(0);
    EXPECT_EQ(third.substr(0, second.size()), second);
    EXPECT_GT(third.size(), second.size()) << "it should say that more are only counted";
    malformed(notices_, 4);
    EXPECT_EQ(lines(), Lines{});
    EXPECT_EQ(events(), 3u);
}

TEST_F(NoticesTest, TheThreeAreThoseOfAllThreadsTogether) {
    malformed(notices_, 1);
    malformed(notices_, 1);
    malformed(notices_, 2);
    EXPECT_EQ(events(), 3u);
    malformed(notices_, 2);
    malformed(notices_, 3);
    EXPECT_EQ(events(), 3u);
}

TEST_F(NoticesTest, OnlyFreshLossIsReported) {
    notices_.overflowed(0);
    notices_.overflowed(3);
    notices_.overflowed(3);
    notices_.overflowed(4);
    EXPECT_EQ(lines(), (Lines{"receive buffer full: 3", "receive buffer full: 1"}));
    EXPECT_EQ(events(), 2u);
}

TEST_F(NoticesTest, PacketsOfTooManyCallsAreLinesOnly) {
    notices_.too_many_calls(2);
    notices_.too_many_calls(2);
    EXPECT_EQ(lines(), Lines{"too many calls: 2"});
    EXPECT_EQ(events(), 0u);
}

TEST_F(NoticesTest, SendersThatAreNotAllowedAreReportedByTheLatestOfThem) {
    sockaddr_in source{};
    source.sin_addr.s_addr = htonl(0xC0000242);
    source.sin_port = htons(40001);
    notices_.not_allowed(0, {});
    notices_.not_allowed(3, source);
    notices_.not_allowed(3, source);
    EXPECT_EQ(lines(), Lines{"sender not allowed: 3 192.0.2.66:40001"});
    EXPECT_EQ(events(), 1u);
}

TEST_F(NoticesTest, BesideALiveViewThereAreEventsButNoLines) {
    Notices quiet(report_, &log_, true);
    malformed(quiet, 1);
    quiet.overflowed(1);
    quiet.too_many_calls(1);
    EXPECT_EQ(lines(), Lines{});
    EXPECT_EQ(events(), 2u);
}

TEST_F(NoticesTest, WithoutAnEventLogThereAreLines) {
    Notices plain(report_, nullptr, false);
    plain.listening("127.0.0.1:40000");
    malformed(plain, 1);
    plain.overflowed(1);
    EXPECT_EQ(events(), 0u);
    EXPECT_NE(lines(), Lines{});
}

TEST_F(NoticesTest, ReportNodeThatIsNotAllowedIsNamedOnceForAllThatIsNew) {
    ReportFigures figures;
    notices_.reports_not_allowed(figures);
    EXPECT_EQ(lines(), Lines{});
    figures.not_allowed = 3;
    inet_pton(AF_INET, "192.0.2.7", &figures.latest_not_allowed.sin_addr);
    figures.latest_not_allowed.sin_port = htons(9);
    notices_.reports_not_allowed(figures);
    notices_.reports_not_allowed(figures);
    EXPECT_EQ(lines(), Lines{"report node not allowed: 3 192.0.2.7:9"});
}

}  // namespace

}  // namespace qv::node
