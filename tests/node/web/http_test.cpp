#include "node/web/http.h"

#include <gtest/gtest.h>

#include <string>

namespace qv::node::web {

namespace {

TEST(HttpTest, PathsAreDecoded) {
    EXPECT_EQ(decoded_path("/a%20b/%c3%A4"), "/a b/\xc3\xa4");
    EXPECT_EQ(decoded_path("/a+b"), "/a+b");
    EXPECT_EQ(decoded_path("/%2e%2e%2F"), "/../");
    EXPECT_EQ(decoded_path("/%252e"), "/%2e");
}

TEST(HttpTest, PathsThatCannotBeDecodedAreNone) {
    for (const char* raw : {"/%", "/%2", "/%zz", "/%g0", "/%0g", "/a%00b", "/%0a", "/%7f", "/\t"}) {
        EXPECT_EQ(decoded_path(raw), "") << raw;
    }
}

TEST(HttpTest, EveryResponseKeepsOtherSitesOut) {
    Response response;
    response.body = "text";
    const std::string head = head_of(response, "OK");
    EXPECT_EQ(head.find("HTTP/1.1 200 OK\r\nConnection: close\r\n"), 0U);
    EXPECT_NE(head.find("\r\nContent-Length: 4\r\n"), std::string::npos);
    EXPECT_NE(head.find("\r\nX-Content-Type-Options: nosniff\r\n"), std::string::npos);
    EXPECT_NE(head.find("\r\nContent-Security-Policy: default-src 'none'; "), std::string::npos);
    EXPECT_EQ(head.substr(head.size() - 4), "\r\n\r\n");
}

TEST(HttpTest, AHeaderOfTheResponseReplacesTheCommonOne) {
    Response response;
    response.headers = {{"Content-Security-Policy", "sandbox"}};
    const std::string head = head_of(response, "OK");
    EXPECT_NE(head.find("\r\nContent-Security-Policy: sandbox\r\n"), std::string::npos);
    EXPECT_EQ(head.find("default-src"), std::string::npos);
}

}  // namespace

}  // namespace qv::node::web
