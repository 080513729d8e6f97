#include "node/service_manager.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace qv::node {

namespace {

// A service manager's socket. In a name, '@' stands for the zero byte of an abstract socket.
class ServiceManagerTest : public testing::Test {
  protected:
    ~ServiceManagerTest() override {
        unsetenv("NOTIFY_SOCKET");
        close(socket_);
    }

    void listen_at(const std::string& path) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path.data(), path.size());
        if (path[0] == '@') {
            address.sun_path[0] = 0;
        }
        const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
        ASSERT_EQ(bind(socket_, reinterpret_cast<const sockaddr*>(&address), size), 0);
        setenv("NOTIFY_SOCKET", path.c_str(), 1);
    }
    std::string heard() const {
        std::array<char, 100> text{};
        const ssize_t size = recv(socket_, text.data(), text.size(), MSG_DONTWAIT);
        return size < 0 ? "nothing" : std::string(text.data(), static_cast<std::size_t>(size));
    }

    const int socket_ = socket(AF_UNIX, SOCK_DGRAM, 0);
};

TEST_F(ServiceManagerTest, HearsOfASocketInTheFileSystem) {
    std::string pattern = std::filesystem::temp_directory_path() / "quorvane-notify-XXXXXX";
    const std::string folder = mkdtemp(pattern.data());
    listen_at(folder + "/socket");
    EXPECT_EQ(notify_service_manager("READY=1"), "");
    EXPECT_EQ(heard(), "READY=1");
    std::filesystem::remove_all(folder);
}

TEST_F(ServiceManagerTest, HearsOfAnAbstractSocket) {
    listen_at("@quorvane-notify-" + std::to_string(getpid()));
    EXPECT_EQ(notify_service_manager("STOPPING=1"), "");
    EXPECT_EQ(heard(), "STOPPING=1");
}

TEST_F(ServiceManagerTest, WithoutTheVariableThereIsNoneToTell) {
    EXPECT_EQ(notify_service_manager("READY=1"), "");
}

TEST_F(ServiceManagerTest, AManagerThatCannotBeReachedIsReported) {
    setenv("NOTIFY_SOCKET", "/nowhere/socket", 1);
    EXPECT_EQ(notify_service_manager("READY=1"), "/nowhere/socket: No such file or directory");
    setenv("NOTIFY_SOCKET", std::string(200, 'x').c_str(), 1);
    EXPECT_EQ(notify_service_manager("READY=1"), "NOTIFY_SOCKET: the path is too long");
}

}  // namespace

}  // namespace qv::node
