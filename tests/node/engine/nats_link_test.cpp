#include "node/engine/nats_link.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace qv::node::nats {

namespace {

constexpr std::chrono::seconds PATIENCE{30};

// Greets each connection. Says `farewell` to the first one, as soon as it is complete. If there is
// nothing to say, hangs up at once.
class Server {
  public:
    explicit Server(std::string farewell) : farewell_(std::move(farewell)) {
        address_.sin_family = AF_INET;
        address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address_;
        EXPECT_EQ(bind(listener_, reinterpret_cast<const sockaddr*>(&address_), size), 0);
        listen(listener_, 10);
        getsockname(listener_, reinterpret_cast<sockaddr*>(&address_), &size);
        thread_ = std::thread([this] { run(); });
    }
    ~Server() {
        shutdown(listener_, SHUT_RDWR);
        thread_.join();
        for (const int each : connections_) {
            ::close(each);
        }
        ::close(listener_);
    }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    std::string url() const {
        return "nats://127.0.0.1:" + std::to_string(ntohs(address_.sin_port));
    }

  private:
    void run() {
        for (int connection = 0; (connection = accept(listener_, nullptr, nullptr)) >= 0;) {
            connections_.push_back(connection);
            say(R"(INFO {"version":"2.9.10","proto":1,"headers":true,"max_payload":1048576})"
                "\r\n");
            await("PING\r\n");
            say("PONG\r\n");
            if (connections_.size() == 1) {
                end_first();
            }
        }
    }

    void end_first() const {
        if (farewell_.empty()) {
            shutdown(connections_[0], SHUT_RDWR);
        } else {
            await("SUB ");
            say(farewell_);
        }
    }

    void say(const std::string& text) const {
        send(connections_.back(), text.data(), text.size(), MSG_NOSIGNAL);
    }

    void await(const char* text) const {
        std::string heard;
        std::array<char, 4096> piece{};
        while (heard.find(text) == std::string::npos) {
            const ssize_t got = recv(connections_.back(), piece.data(), piece.size(), 0);
            if (got <= 0) {
                return;
            }
            heard.append(piece.data(), static_cast<std::size_t>(got));
        }
    }

    const std::string farewell_;
    const int listener_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address_{};
    std::vector<int> connections_;
    std::thread thread_;
};

// Notes whether there is a connection. The thread that reports the first trouble waits until it is
// released.
class HeldListener : public Link::Listener {
  public:
    void connected(const std::string& /*url*/) override { note(true); }
    void disconnected() override { note(false); }
    void answered(Answer /*answer*/) override {}
    void trouble(const std::string& text) override {
        const LockGuard lock(mutex_);
        troubles_.push_back(text);
        changed_.notify_all();
        const auto end = std::chrono::steady_clock::now() + PATIENCE;
        while (!released_ && changed_.wait_until(mutex_, end)) {
        }
    }
    void stream_created(const std::string& /*name*/) override {}

    void release() {
        const LockGuard lock(mutex_);
        released_ = true;
        changed_.notify_all();
    }
    bool is_connected() const {
        const LockGuard lock(mutex_);
        return connected_;
    }
    int connections() const {
        const LockGuard lock(mutex_);
        return connections_;
    }
    bool await_troubles(std::size_t count) {
        const LockGuard lock(mutex_);
        const auto end = std::chrono::steady_clock::now() + PATIENCE;
        while (troubles_.size() < count && changed_.wait_until(mutex_, end)) {
        }
        return troubles_.size() >= count;
    }

  private:
    void note(bool connected) {
        const LockGuard lock(mutex_);
        connected_ = connected;
        connections_ += connected ? 1 : 0;
    }

    mutable Mutex mutex_;
    Condition changed_;
    bool connected_ QV_GUARDED_BY(mutex_) = false;
    int connections_ QV_GUARDED_BY(mutex_) = 0;
    bool released_ QV_GUARDED_BY(mutex_) = false;
    std::vector<std::string> troubles_ QV_GUARDED_BY(mutex_);
};

TEST(NatsLinkTest, LateReportOfAFormerConnectionDoesNotEndThePresentOne) {
    // The library reports the first as trouble. The second makes it close the connection.
    Server server("-ERR 'Permissions Violation'\r\n-ERR 'over'\r\n");
    EngineSettings settings;
    settings.urls = {server.url()};
    settings.reconnect_ms = 1;
    HeldListener listener;
    Link link(settings, listener);
    ASSERT_EQ(link.open(), "");
    ASSERT_TRUE(link.keep());
    ASSERT_TRUE(listener.await_troubles(1));
    const auto end = std::chrono::steady_clock::now() + PATIENCE;
    while (listener.connections() < 2 && std::chrono::steady_clock::now() < end) {
        link.keep();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_EQ(listener.connections(), 2);
    listener.release();
    // First the library reports that the former connection was lost, and then why it was closed.
    EXPECT_TRUE(listener.await_troubles(2));
    EXPECT_TRUE(listener.is_connected());
    link.close();
    EXPECT_FALSE(listener.is_connected());
}

// Takes its time to note that there is a connection.
class SlowListener : public Link::Listener {
  public:
    void connected(const std::string& /*url*/) override {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        connected_ = true;
    }
    void disconnected() override { connected_ = false; }
    void answered(Answer /*answer*/) override {}
    void trouble(const std::string& /*text*/) override {}
    void stream_created(const std::string& /*name*/) override {}

    bool is_connected() const { return connected_; }

  private:
    std::atomic<bool> connected_{false};
};

TEST(NatsLinkTest, LossOfAConnectionIsNotReportedBeforeTheConnection) {
    const Server server("");
    EngineSettings settings;
    settings.urls = {server.url()};
    settings.reconnect_ms = 60'000;  // The server would greet another connection.
    SlowListener listener;
    Link link(settings, listener);
    ASSERT_EQ(link.open(), "");
    ASSERT_TRUE(link.keep());
    const auto end = std::chrono::steady_clock::now() + PATIENCE;
    while (listener.is_connected() && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_FALSE(listener.is_connected());
    link.close();
}

}  // namespace

}  // namespace qv::node::nats
