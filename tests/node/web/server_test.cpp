#include "node/web/server.h"

#include <gtest/gtest.h>

#include <asio/ip/tcp.hpp>
#include <atomic>
#include <iterator>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "node/web/file_folder.h"
#include "tools/address.h"

namespace qv::node::web {

namespace {

constexpr int PAGES = 24;  // So many can be open.

const std::string PLAIN = "GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
const std::string WEBSOCKET =
    "GET /api/live HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: Upgrade\r\nUpgrade: websocket\r\n"
    "Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: AAAAAAAAAAAAAAAAAAAAAA==\r\n\r\n";

class ServerTest : public testing::Test {
  protected:
    Server::Handlers handlers() {
        Server::Handlers handlers;
        handlers.answer = [this](const Request&) {
            fail_if_wanted();
            return plain(200, "here");
        };
        handlers.refuse_live = [](const Request&) { return std::optional<Response>(); };
        handlers.may_stay = [](const Request&) { return true; };
        handlers.open_page = [this](const Request&) {
            fail_if_wanted();
            return std::make_unique<LivePage>(board_, rows_, false, [](const ListenNotice&) {});
        };
        return handlers;
    }

    void set_failing(bool failing) { failing_ = failing; }
    void fail_if_wanted() const {
        if (failing_) {
            throw std::runtime_error("no memory, no thread");
        }
    }

    // All that the server sends until it ends the connection.
    std::string answer_to(const std::string& request) const {
        asio::ip::tcp::iostream connection("127.0.0.1", std::to_string(server_.port()));
        connection << request << std::flush;
        return {std::istreambuf_iterator<char>(connection), {}};
    }

    // What a page is sent first.
    std::string first_of_page() const {
        asio::ip::tcp::iostream connection("127.0.0.1", std::to_string(server_.port()));
        connection << WEBSOCKET << std::flush;
        std::string text;
        while (connection && text.find("hello") == std::string::npos) {
            text += static_cast<char>(connection.get());
        }
        return text;
    }

  private:
    std::atomic<bool> failing_{false};
    CallBoard board_;
    FileFolder folder_{"/nonexistent"};
    LiveRows rows_{board_, folder_};
    Server server_{tools::parse_address("127.0.0.1:0").value(), handlers()};
};

TEST_F(ServerTest, ARequestThatFailsEndsItsConnectionOnly) {
    set_failing(true);
    EXPECT_EQ(answer_to(PLAIN), "");
    set_failing(false);
    EXPECT_NE(answer_to(PLAIN).find("here"), std::string::npos);
}

TEST_F(ServerTest, APageThatFailsEndsItsConnectionAndTakesNoPlace) {
    set_failing(true);
    for (int i = 0; i <= PAGES; ++i) {
        EXPECT_EQ(answer_to(WEBSOCKET).substr(0, 12), "HTTP/1.1 101");
    }
    set_failing(false);
    EXPECT_NE(first_of_page().find("hello"), std::string::npos);
}

}  // namespace

}  // namespace qv::node::web
