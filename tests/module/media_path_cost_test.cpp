// The cost limits of a frame: no allocation, no lock, no wait, and one copy and one system call
// per datagram. The tests count the calls of the module that would exceed them.

// Fortified headers define these functions inline, which would conflict with the ones below.
#undef _FORTIFY_SOURCE
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <time.h>

#include <array>
#include <memory>
#include <new>
#include <string>

#include "module/app_context.h"
#include "module/media_transfer.h"
#include "quorvane_lib/log.h"
#include "quorvane_lib/net_socket.h"
#include "tests/support/media_node.h"

namespace {

struct Counts {
    int allocations = 0;
    int locks = 0;
    int waits = 0;
    int sends = 0;
};

thread_local bool counting = false;
thread_local Counts counts;

template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

#define REPLACEMENT extern "C" __attribute__((visibility("default")))

extern "C" void* __libc_malloc(size_t size);

REPLACEMENT void* malloc(size_t size) {
    counts.allocations += counting ? 1 : 0;
    return __libc_malloc(size);
}

REPLACEMENT int pthread_mutex_lock(pthread_mutex_t* mutex) {
    counts.locks += counting ? 1 : 0;
    static auto* const real = next<int(pthread_mutex_t*)>("pthread_mutex_lock");
    return real(mutex);
}

REPLACEMENT int pthread_rwlock_rdlock(pthread_rwlock_t* lock) {
    counts.locks += counting ? 1 : 0;
    static auto* const real = next<int(pthread_rwlock_t*)>("pthread_rwlock_rdlock");
    return real(lock);
}

REPLACEMENT int poll(pollfd* descriptors, nfds_t count, int timeout) {
    counts.waits += counting ? 1 : 0;
    static auto* const real = next<int(pollfd*, nfds_t, int)>("poll");
    return real(descriptors, count, timeout);
}

REPLACEMENT int nanosleep(const timespec* time, timespec* left) {
    counts.waits += counting ? 1 : 0;
    static auto* const real = next<int(const timespec*, timespec*)>("nanosleep");
    return real(time, left);
}

REPLACEMENT ssize_t sendto(int descriptor, const void* data, size_t size, int flags,
                           const sockaddr* to, socklen_t to_size) {
    counts.sends += counting ? 1 : 0;
    static auto* const real =
        next<ssize_t(int, const void*, size_t, int, const sockaddr*, socklen_t)>("sendto");
    return real(descriptor, data, size, flags, to, to_size);
}

namespace qv::tests {

namespace {

class MediaPathCostTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(socket.open(0, 0));
        context.media_node.sin_family = AF_INET;
        context.media_node.sin_port = htons(node.port());
        context.media_node.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        send(320);  // The first use also does one-time work, which is not to be counted.
    }

    Counts send(std::uint32_t size) {
        frame.data = audio.data();
        frame.datalen = size;
        counts = {};
        counting = true;
        const bool sent = transfer.media_data(nullptr, context, media::READ_LEG, &frame);
        counting = false;
        EXPECT_TRUE(sent);
        return counts;
    }

    MediaNode node;
    net::Socket socket;
    freeswitch::MediaTransfer transfer{&socket};
    freeswitch::AppContext context;
    std::array<unsigned char, 4000> audio{};
    switch_frame_t frame{};
};

TEST_F(MediaPathCostTest, TheCountersCount) {
    counts = {};
    counting = true;
    ::operator delete(::operator new(64));
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_lock(&mutex);
    pthread_mutex_unlock(&mutex);
    poll(nullptr, 0, 0);
    counting = false;
    EXPECT_EQ(counts.allocations, 1);
    EXPECT_EQ(counts.locks, 1);
    EXPECT_EQ(counts.waits, 1);
}

TEST_F(MediaPathCostTest, AFrameIsOneSendAndNothingElse) {
    for (int i = 0; i < 100; ++i) {
        const Counts cost = send(320);
        EXPECT_EQ(cost.sends, 1);
        EXPECT_EQ(cost.allocations, 0);
        EXPECT_EQ(cost.locks, 0);
        EXPECT_EQ(cost.waits, 0);
    }
}

TEST_F(MediaPathCostTest, ASplitFrameIsOneSendAChunk) {
    // The warning about the split would allocate memory, so warnings are switched off.
    const log::Level before = log::Logger::m_instance.level;
    log::Logger::set_level(log::ERROR);
    const Counts cost = send(3000);
    log::Logger::set_level(before);
    EXPECT_EQ(cost.sends, 3);
    EXPECT_EQ(cost.allocations, 0);
    EXPECT_EQ(cost.locks, 0);
}

TEST_F(MediaPathCostTest, AnEmptyFrameIsOneSend) {
    const Counts cost = send(0);
    EXPECT_EQ(cost.sends, 1);
    EXPECT_EQ(cost.allocations, 0);
    EXPECT_EQ(cost.locks, 0);
}

}  // namespace

}  // namespace qv::tests
