#include "tools/sound_file.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

namespace qv::tools {

namespace {

using namespace std::chrono_literals;

SNDFILE* open_file(const char* path) {
    SF_INFO info{};
    return sf_open(path, SFM_READ, &info);
}

TEST(SoundFileTest, EachThreadGetsItsOwnReason) {
    std::atomic<bool> failed{false};
    std::string missing;
    std::thread another([&] {
        open_sound_file(
            [&failed] {
                SNDFILE* const file = open_file("/missing.wav");
                failed = true;
                std::this_thread::sleep_for(50ms);
                return file;
            },
            missing);
    });
    while (!failed) {
        std::this_thread::yield();
    }
    std::string error;
    EXPECT_EQ(open_sound_file([] { return open_file("/proc/self/exe"); }, error), nullptr);
    EXPECT_NE(error.find("Format not recognised"), std::string::npos) << error;
    another.join();
    EXPECT_NE(missing.find("No such file"), std::string::npos) << missing;
}

}  // namespace

}  // namespace qv::tools
