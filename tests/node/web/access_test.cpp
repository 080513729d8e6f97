#include "node/web/access.h"

#include <gtest/gtest.h>

#include <string>

namespace qv::node::web {

namespace {

using Verdict = Access::Verdict;

const std::string TOKEN = "correct-horse-battery";

class AccessTest : public testing::Test {
  protected:
    static Request from(const std::string& address) {
        Request request;
        request.method = "GET";
        request.path = "/";
        request.from = address + ":1000";
        return request;
    }
    static Request with_header(const std::string& name, const std::string& value) {
        Request request = from("192.0.2.1");
        request.headers[name] = value;
        return request;
    }
    static Request bearer(const std::string& token) {
        return with_header("authorization", "Bearer " + token);
    }

    Response log_in(const std::string& token, const std::string& address = "192.0.2.1") {
        Request request = from(address);
        request.body = "token=" + token;
        return access_.log_in(request, now_);
    }
    // Returns the id of the new session.
    std::string session() {
        const Response response = log_in(TOKEN);
        for (const auto& [name, value] : response.headers) {
            if (name == "Set-Cookie") {
                return value.substr(0, value.find(';'));
            }
        }
        return {};
    }
    Verdict check(const Request& request) { return access_.check(request, now_); }
    Verdict check_session(const std::string& cookie) {
        return check(with_header("cookie", cookie));
    }

    Access access_{TOKEN};
    Micros now_{std::chrono::hours(1000)};
};

TEST_F(AccessTest, WithoutATokenEverybodyHasAccess) {
    Access open{""};
    EXPECT_FALSE(open.demands_token());
    EXPECT_EQ(open.check(from("192.0.2.1"), now_), Verdict::ALLOWED);
    EXPECT_EQ(open.log_in(from("192.0.2.1"), now_).status, 303);
}

TEST_F(AccessTest, TheTokenGivesAccess) {
    EXPECT_EQ(check(bearer(TOKEN)), Verdict::ALLOWED);
    EXPECT_EQ(check(from("192.0.2.1")), Verdict::DENIED);
    EXPECT_EQ(check(bearer(TOKEN + "x")), Verdict::DENIED);
    EXPECT_EQ(check(bearer("")), Verdict::DENIED);
    EXPECT_EQ(check(with_header("authorization", "Basic " + TOKEN)), Verdict::DENIED);
    EXPECT_EQ(check(with_header("authorization", TOKEN)), Verdict::DENIED);
}

TEST_F(AccessTest, ALoginGivesASession) {
    const std::string cookie = session();
    EXPECT_EQ(check_session(cookie), Verdict::ALLOWED);
    EXPECT_EQ(check_session("a=1; " + cookie + "; b=2"), Verdict::ALLOWED);
    EXPECT_EQ(check_session(cookie + "0"), Verdict::DENIED);
    EXPECT_EQ(check_session("quorvane_session="), Verdict::DENIED);
    EXPECT_EQ(check_session("quorvane_session=" + TOKEN), Verdict::DENIED);
}

TEST_F(AccessTest, TheFormIsDecoded) {
    EXPECT_EQ(log_in("correct%2Dhorse-batter%79").headers[0].second, "/");
    EXPECT_EQ(log_in("correct%2-horse").headers[0].second, "/login#wrong");
    EXPECT_EQ(form_field("a=1&token=x%20y+z&b=2", "token"), "x y z");
    EXPECT_EQ(form_field("tokens=1", "token"), "");
}

TEST_F(AccessTest, ASessionThatNobodyUsesEnds) {
    const std::string cookie = session();
    now_ += Access::SESSION - Micros{1};
    EXPECT_EQ(check_session(cookie), Verdict::ALLOWED);
    now_ += Access::SESSION - Micros{1};
    EXPECT_EQ(check_session(cookie), Verdict::ALLOWED);
    now_ += Access::SESSION;
    EXPECT_EQ(check_session(cookie), Verdict::DENIED);
}

TEST_F(AccessTest, ALogoutEndsTheSession) {
    const std::string cookie = session();
    EXPECT_EQ(access_.log_out(with_header("cookie", cookie)).status, 303);
    EXPECT_EQ(check_session(cookie), Verdict::DENIED);
}

TEST_F(AccessTest, AnOpenPageStaysAsLongAsItsSession) {
    const Request page = with_header("cookie", session());
    for (int hour = 0; hour < 24; ++hour) {
        now_ += std::chrono::hours(1);
        EXPECT_TRUE(access_.may_stay(page, now_));
    }
    access_.log_out(page);
    EXPECT_FALSE(access_.may_stay(page, now_));
}

TEST_F(AccessTest, AnOpenPageWithTheTokenStaysWhateverItsAddressTries) {
    while (check(bearer("wrong")) != Verdict::TOO_MANY_WRONG) {
    }
    EXPECT_TRUE(access_.may_stay(bearer(TOKEN), now_));
    EXPECT_FALSE(access_.may_stay(bearer("wrong"), now_));
    EXPECT_FALSE(access_.may_stay(from("192.0.2.1"), now_));
    EXPECT_TRUE(Access{""}.may_stay(from("192.0.2.1"), now_));
}

TEST_F(AccessTest, TheSessionThatWasUsedLongestAgoMakesRoom) {
    const std::string first = session();
    const std::string second = session();
    for (std::size_t i = 2; i < Access::MOST_SESSIONS; ++i) {
        now_ += Micros{1};
        session();
    }
    EXPECT_EQ(check_session(first), Verdict::ALLOWED);
    now_ += Micros{1};
    session();
    EXPECT_EQ(check_session(first), Verdict::ALLOWED);
    EXPECT_EQ(check_session(second), Verdict::DENIED);
}

TEST_F(AccessTest, AnAddressWithTooManyWrongTokensIsNotHeard) {
    for (int i = 0; i < Access::WRONG_AT_ONCE; ++i) {
        EXPECT_EQ(check(bearer("wrong")), Verdict::DENIED);
    }
    EXPECT_EQ(check(bearer(TOKEN)), Verdict::TOO_MANY_WRONG);
    EXPECT_EQ(log_in(TOKEN).status, 429);
    EXPECT_EQ(log_in(TOKEN, "192.0.2.2").status, 303);  // Others are.
    now_ += std::chrono::seconds(6);
    EXPECT_EQ(check(bearer(TOKEN)), Verdict::ALLOWED);
}

TEST_F(AccessTest, WhoHasASessionIsHeardWhateverOthersGuess) {
    const std::string cookie = session();
    for (int i = 0; i < 10; ++i) {
        check(bearer("wrong"));
    }
    EXPECT_EQ(check_session(cookie), Verdict::ALLOWED);
}

TEST_F(AccessTest, ManyAddressesTakeLittleMemory) {
    for (int i = 0; i < 3000; ++i) {
        log_in("wrong", "10.0." + std::to_string(i / 256) + "." + std::to_string(i % 256));
    }
    EXPECT_EQ(log_in(TOKEN).headers[0].second, "/");
}

Request to(const std::string& host, const std::string& origin = {}, bool is_secure = false) {
    Request request;
    request.headers["host"] = host;
    if (!origin.empty()) {
        request.headers["origin"] = origin;
    }
    request.is_secure = is_secure;
    return request;
}

TEST(ForeignSiteTest, OnlyNamesThatNobodyElseCanHaveAreThisServer) {
    for (const char* host : {"127.0.0.1:8080", "127.0.0.1", "localhost:8080", "192.0.2.1:80"}) {
        EXPECT_EQ(foreign_site(to(host), false), "") << host;
    }
    for (const char* host : {"", "elsewhere.example:8080", "127.0.0.1.elsewhere.example",
                             "localhost.elsewhere.example:8080", ":8080", "127.0.0.1@x:8080"}) {
        EXPECT_NE(foreign_site(to(host), false), "") << host;
    }
}

TEST(ForeignSiteTest, WithATokenTheServerMayHaveAnyName) {
    EXPECT_EQ(foreign_site(to("node7.example:8080"), true), "");
    EXPECT_EQ(foreign_site(to("node7.example", "https://node7.example", true), true), "");
}

TEST(ForeignSiteTest, TheOriginIsTheServerItself) {
    EXPECT_EQ(foreign_site(to("127.0.0.1:80", "http://127.0.0.1:80"), false), "");
    for (const char* origin : {"http://127.0.0.1:81", "https://127.0.0.1:80", "null",
                               "http://127.0.0.1:80.example", "http://127.0.0.1", "x"}) {
        EXPECT_NE(foreign_site(to("127.0.0.1:80", origin), false), "") << origin;
        EXPECT_NE(foreign_site(to("127.0.0.1:80", origin), true), "") << origin;
    }
}

}  // namespace

}  // namespace qv::node::web
