// The module is unloaded and loaded while live calls are sending, and other parts of the process
// keep opening files and connections. No byte of a call's audio may reach one of those.
//
// The test holds a send between reading the descriptor's number and the system call. Run it
// under the thread sanitizer, too.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <deque>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/media_listener.h"
#include "tests/support/module_test.h"
#include "tests/support/system_calls.h"

namespace qv::tests {

namespace {

using namespace std::chrono_literals;

// Opens TCP connections and files, as any part of the switch does, and checks what they receive.
class Bystander {
  public:
    Bystander() : listener_(::socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in local{};
        local.sin_family = AF_INET;
        local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof(local);
        auto* const address = reinterpret_cast<sockaddr*>(&local);
        EXPECT_EQ(::bind(listener_, address, size), 0);
        EXPECT_EQ(::listen(listener_, 64), 0);
        EXPECT_EQ(::getsockname(listener_, address, &size), 0);
        local_ = local;
        thread_ = std::thread([this] { run(); });
    }
    Bystander(const Bystander&) = delete;
    Bystander& operator=(const Bystander&) = delete;
    ~Bystander() {
        finish();
        ::close(listener_);
    }

    void finish() {
        stop_ = true;
        if (thread_.joinable()) {
            thread_.join();
        }
    }

    // Valid once it has finished.
    unsigned opened() const { return opened_; }
    long foreign_bytes() const { return foreign_bytes_; }

  private:
    struct Connection {
        int near = -1;
        int far = -1;
        FILE* file = nullptr;
    };

    void run() {
        std::deque<Connection> open;
        while (!stop_ || !open.empty()) {
            if (!stop_) {
                open.push_back(connect());
            }
            if (stop_ || open.size() > 8) {
                close(open.front());
                open.pop_front();
            }
            std::this_thread::sleep_for(200us);
        }
    }

    Connection connect() {
        Connection connection;
        connection.near = ::socket(AF_INET, SOCK_STREAM, 0);
        EXPECT_EQ(::connect(connection.near, reinterpret_cast<sockaddr*>(&local_), sizeof(local_)),
                  0);
        connection.far = ::accept(listener_, nullptr, nullptr);
        connection.file = std::tmpfile();
        ++opened_;
        return connection;
    }

    void close(const Connection& connection) {
        foreign_bytes_ += waiting(connection.near) + waiting(connection.far);
        struct stat status {};
        ::fstat(fileno(connection.file), &status);
        foreign_bytes_ += status.st_size;
        ::close(connection.near);
        ::close(connection.far);
        std::fclose(connection.file);
    }

    static int waiting(int descriptor) {
        int bytes = 0;
        EXPECT_EQ(::ioctl(descriptor, FIONREAD, &bytes), 0);
        return bytes;
    }

    int listener_;
    sockaddr_in local_{};
    unsigned opened_ = 0;
    long foreign_bytes_ = 0;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

class HeldSend : public ModuleTest {
  protected:
    static constexpr unsigned CALLS = 6;
    static constexpr unsigned RELOADS = 25;

    std::vector<std::unique_ptr<host::Call>> start_calls() {
        std::vector<std::unique_ptr<host::Call>> calls;
        for (unsigned i = 0; i < CALLS; ++i) {
            host::CallOptions options;
            options.uuid = "c0ffee00-0000-4000-8000-00000000000" + std::to_string(i);
            options.frame_time = 5ms;
            calls.push_back(start_call_as(std::move(options)));
            EXPECT_TRUE(calls.back()->execute("quorvane"));
            host::MediaPlan plan;
            plan.read = host::play_silence(100000, 160);
            plan.write = host::play_silence(100000, 160);
            plan.threads = host::MediaThreads::OWN;
            calls.back()->start_media(std::move(plan));
        }
        return calls;
    }

    void reload_again_and_again() {
        for (unsigned i = 0; i < RELOADS; ++i) {
            EXPECT_TRUE(unload().unloaded);
            std::this_thread::sleep_for(3ms);
            ASSERT_TRUE(try_load().loaded);
            std::this_thread::sleep_for(10ms);
        }
    }
};

TEST_F(HeldSend, NoByteOfItReachesAnotherConnectionOrFileOfTheProcess) {
    load();
    host.log().set_recording(false);
    MediaListener listener(node);
    SystemCalls system_calls;
    system_calls.before("sendto", [] { std::this_thread::sleep_for(2ms); });
    auto calls = start_calls();
    {
        Bystander bystander;
        reload_again_and_again();
        bystander.finish();
        EXPECT_GT(bystander.opened(), 100U);
        EXPECT_EQ(bystander.foreign_bytes(), 0);
    }
    for (const auto& call : calls) {
        call->hangup();
    }

    // Every send either failed or reached the media node.
    long sent = 0;
    std::size_t failed = 0;
    for (const SeenCall& call : system_calls.seen("sendto")) {
        sent += call.result >= 0 ? call.result : 0;
        failed += call.result < 0 ? 1 : 0;
    }
    long received = 0;
    for (const auto& [uuid, packets] : listener.finish()) {
        for (const Bytes& packet : packets) {
            received += static_cast<long>(packet.size());
        }
    }
    EXPECT_EQ(received, sent);
    EXPECT_GT(failed, 0U) << "no send met an unloaded module";
    EXPECT_EQ(node.dropped(), 0U);
}

TEST_F(HeldSend, NumberOfTheSocketIsGivenBackWithTheLastCall) {
    load();
    const auto count_open = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                             std::filesystem::directory_iterator());
    };
    const auto with_socket = count_open();
    const auto call = start_tapped_call();
    for (int i = 0; i < 3; ++i) {
        unload();
        EXPECT_EQ(count_open(), with_socket);
        load();
        EXPECT_EQ(count_open(), with_socket);
    }
    unload();
    hangup(*call);
    EXPECT_EQ(count_open(), with_socket - 1);
    load();
    EXPECT_EQ(count_open(), with_socket);
    EXPECT_TRUE(unload().left_memory);
    EXPECT_EQ(count_open(), with_socket - 1);
}

}  // namespace

}  // namespace qv::tests
