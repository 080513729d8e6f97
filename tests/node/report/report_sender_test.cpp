#include "node/report/report_sender.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <nlohmann/json.hpp>

#include "node/report/event_json.h"
#include "tests/node/calls/node_call.h"
#include "tools/address.h"

namespace qv::node {

namespace {

using namespace std::chrono_literals;
using Json = nlohmann::json;

// A report node on the loopback interface.
class ReportNode {
  public:
    ReportNode() : socket_(::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0)) {
        sockaddr_in address = tools::parse_address("127.0.0.1:0").value();
        EXPECT_EQ(::bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        socklen_t size = sizeof address;
        ::getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &size);
        port_ = ntohs(address.sin_port);
    }
    ~ReportNode() { ::close(socket_); }
    ReportNode(const ReportNode&) = delete;
    ReportNode& operator=(const ReportNode&) = delete;

    std::uint16_t port() const { return port_; }

    // On the loopback interface, a datagram can be read as soon as it was sent.
    std::vector<Json> reports() {
        std::vector<Json> all;
        char datagram[65536];
        ssize_t size = 0;
        while ((size = ::recv(socket_, datagram, sizeof datagram, 0)) >= 0) {
            EXPECT_LE(size, 1200);
            all.push_back(Json::parse(std::string(datagram, static_cast<std::size_t>(size))));
        }
        return all;
    }

  private:
    int socket_;
    std::uint16_t port_ = 0;
};

class ReportSenderTest : public tests::NodeCallTest {
  protected:
    ReportSenderTest() { watch({&sender_}); }

    // The golden start packet with that report node.
    void start_reported_to(const std::string& address, std::uint16_t port) {
        tests::Bytes datagram = tests::golden("call_1_start");
        const in_addr host = tools::parse_address(address + ":1").value().sin_addr;
        std::memcpy(&datagram[72], &host, sizeof host);
        datagram[7] |= 0x40;  // Sets the flag for a report node.
        datagram[76] = static_cast<unsigned char>(port >> 8);
        datagram[77] = static_cast<unsigned char>(port & 0xFF);
        send(datagram);
    }
    // In the form in which an analysis reports it.
    void find(const std::string& sample) {
        call().report_sample(Side::TERMINATOR, {sample, -80, 9000, 0.75});
    }
    void hear(bool active) { call().report_activity(Side::ORIGINATOR, {active, 1600, 2400}); }
    Call& call() { return *catcher_.call; }

    void watch(const std::vector<CallListener*>& listeners) {
        std::vector<CallListener*> all = listeners;
        all.push_back(&catcher_);
        NodeCallTest::watch(all);
    }

    struct Catcher : CallListener {
        std::unique_ptr<CallListener> begin_call(Call& begun) override {
            call = &begun;
            return nullptr;
        }
        Call* call = nullptr;
    };

    ReportNode node_;
    Micros time_{1'000'000'000};
    ReportSender sender_{{tools::parse_network("127.0.0.0/8").value()}, [this] { return time_; }};
    Catcher catcher_;
};

TEST_F(ReportSenderTest, StartActivitySampleAndEndOfACallAreReported) {
    start_reported_to("127.0.0.1", node_.port());
    send("call_2_read");
    hear(true);
    find("greeting");
    send("call_7_terminate");
    pass(1s);
    const std::vector<Json> reports = node_.reports();
    ASSERT_EQ(reports.size(), 4u);
    EXPECT_EQ(reports[0]["event"], "start");
    EXPECT_EQ(reports[0]["call_reference"], "a84b4c76e66710@192.0.2.7");
    EXPECT_EQ(reports[1]["event"], "activity");
    EXPECT_EQ(reports[1]["active"], true);
    EXPECT_EQ(reports[1]["position"], 1600);
    EXPECT_EQ(reports[2]["event"], "sample");
    EXPECT_EQ(reports[2]["sample"], "greeting");
    EXPECT_EQ(reports[2]["call_side"], "terminator");
    EXPECT_EQ(reports[2]["position"], -80);
    EXPECT_EQ(reports[3]["event"], "end");
    EXPECT_EQ(reports[3]["reason"], "terminated");
    for (const Json& report : reports) {
        EXPECT_EQ(report["call_uuid"], "3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37");
    }
    EXPECT_EQ(sender_.figures().sent, 4u);
}

TEST_F(ReportSenderTest, FloodOfDetectionsIsLimitedAndTheEndOfTheCallSaysByHowMuch) {
    start_reported_to("127.0.0.1", node_.port());
    send("call_2_read");
    for (int i = 0; i < 100; ++i) {
        find("beep");
    }
    EXPECT_EQ(node_.reports().size(), 51u);  // The start, and 50 at once.
    time_ += 2s;
    for (int i = 0; i < 100; ++i) {
        hear(i % 2 == 0);
    }
    EXPECT_EQ(node_.reports().size(), 20u);  // 10 a second.
    send("call_7_terminate");
    pass(1s);
    const std::vector<Json> reports = node_.reports();
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0]["event"], "end");
    EXPECT_EQ(reports[0]["left_out"], 130);
    EXPECT_EQ(sender_.figures().too_many, 130u);
}

TEST(RateLimitTest, SoManyAreAllowedAtOnceAndThenSoManyASecond) {
    RateLimit limit(2, 4);
    const auto allowed = [&limit](Micros now, double kept = 0) {
        int count = 0;
        while (limit.allows(now, kept)) {
            limit.count();
            ++count;
        }
        return count;
    };
    EXPECT_EQ(allowed(100s, 2), 2);  // Two are kept for others,
    EXPECT_EQ(allowed(100s), 2);     // who take them.
    EXPECT_EQ(allowed(101s), 2);
    EXPECT_EQ(allowed(101s + 400ms), 0);
    EXPECT_EQ(allowed(200s), 4);
}

TEST_F(ReportSenderTest, CallWithoutAReportNodeIsNotReported) {
    send("call_1_start");
    send("call_2_read");
    hear(true);
    find("greeting");
    send("call_7_terminate");
    pass(1s);
    EXPECT_EQ(sender_.figures().sent + sender_.figures().failed + sender_.figures().not_allowed,
              0u);
}

TEST_F(ReportSenderTest, NothingIsSentToAnAddressOutsideTheNetworks) {
    start_reported_to("192.0.2.77", 9);
    send("call_2_read");
    hear(true);
    EXPECT_EQ(sender_.figures().sent + sender_.figures().failed, 0u);
    EXPECT_EQ(sender_.figures().not_allowed, 2u);
    EXPECT_EQ(tools::address_text(sender_.figures().latest_not_allowed), "192.0.2.77:9");
}

TEST_F(ReportSenderTest, AnyAddressOfTheMachineIsOutsideToo) {
    start_reported_to("0.0.0.0", node_.port());
    EXPECT_EQ(node_.reports().size(), 0u);
    EXPECT_EQ(sender_.figures().not_allowed, 1u);
}

TEST_F(ReportSenderTest, ReportThatTheSystemDoesNotTakeIsCounted) {
    start_reported_to("127.0.0.1", 0);
    EXPECT_EQ(sender_.figures().failed, 1u);
}

TEST_F(ReportSenderTest, ReportNodeThatIsNotThereChangesNothing) {
    std::uint16_t port = 0;
    {
        const ReportNode gone;
        port = gone.port();
    }
    start_reported_to("127.0.0.1", port);
    send("call_2_read");
    hear(true);
    hear(false);
    EXPECT_EQ(sender_.figures().sent, 3u);
}

Json fields_of(const std::string& reference) {
    return {{"call_uuid", "u"}, {"call_reference", reference}, {"sample_rate", 8000}};
}

TEST(ReportTextTest, ShortEventIsLeftAsItIs) {
    const Json report = Json::parse(report_text("start", fields_of("a\"b\n")));
    EXPECT_EQ(report["call_reference"], "a\"b\n");
    EXPECT_FALSE(report.contains("shortened"));
}

TEST(ReportTextTest, LongReferenceIsCutWhereTheReportIsFull) {
    const std::string text = report_text("start", fields_of(std::string(1290, 'x')));
    EXPECT_EQ(text.size(), 1200u);
    const Json report = Json::parse(text);
    EXPECT_EQ(report["shortened"], Json::array({"call_reference"}));
    EXPECT_GT(report["call_reference"].get<std::string>().size(), 1000u);
    EXPECT_EQ(report["sample_rate"], 8000);
}

TEST(ReportTextTest, CharactersAreCutWhole) {
    std::string reference;
    for (int i = 0; i < 430; ++i) {
        reference += "\u20ac";
    }
    const std::string text = report_text("start", fields_of(reference));
    EXPECT_LE(text.size(), 1200u);
    EXPECT_GE(text.size(), 1198u);
    const std::string cut = Json::parse(text)["call_reference"];
    EXPECT_EQ(cut, reference.substr(0, cut.size()));
    EXPECT_EQ(cut.size() % 3, 0u);
}

TEST(ReportTextTest, ControlCharactersAndBytesThatAreNoUtf8CountAsTheyAreWritten) {
    for (const char byte : {'\x01', '\xff', '"', '\\'}) {
        const std::string text = report_text("start", fields_of(std::string(1290, byte)));
        EXPECT_LE(text.size(), 1200u);
        EXPECT_GE(text.size(), 1190u);
        EXPECT_TRUE(Json::accept(text));
    }
}

TEST(ReportTextTest, FilesGoBeforeSidesAndSidesBeforeText) {
    Json fields = {{"reason", "terminated"},
                   {"sides", {{"originator", std::string(900, 's')}}},
                   {"files", Json::array({std::string(900, 'f')})}};
    Json report = Json::parse(report_text("end", fields));
    EXPECT_EQ(report["shortened"], Json::array({"files"}));
    EXPECT_TRUE(report.contains("sides"));
    fields["sides"]["terminator"] = std::string(900, 's');
    report = Json::parse(report_text("end", fields));
    EXPECT_EQ(report["shortened"], Json::array({"files", "sides"}));
    EXPECT_FALSE(report.contains("sides"));
    EXPECT_EQ(report["reason"], "terminated");
}

TEST(ReportTextTest, LongNameOfASampleIsCut) {
    const Json report =
        Json::parse(report_text("sample", {{"sample", std::string(251, '\x02')}, {"score", 1}}));
    EXPECT_EQ(report["shortened"], Json::array({"sample"}));
    EXPECT_EQ(report["score"], 1);
}

}  // namespace

}  // namespace qv::node
