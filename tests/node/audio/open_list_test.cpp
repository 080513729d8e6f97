#include "node/audio/open_list.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sndfile.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "node/audio/audio_files.h"

namespace qv::node {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t BLOCK = 700;

// Returns the sample at that place, the same for every file.
std::int16_t sample_at(std::size_t place) {
    return static_cast<std::int16_t>(place * 31 + 7);
}

class OpenListTest : public testing::Test {
  protected:
    OpenListTest() {
        std::string pattern = fs::temp_directory_path() / "quorvane-node-XXXXXX";
        folder_ = mkdtemp(pattern.data());
    }
    ~OpenListTest() override { fs::remove_all(folder_); }

    std::string path(const std::string& name) const { return folder_ + '/' + name; }

    void put(const std::string& name, const std::string& bytes) const {
        std::ofstream(path(name), std::ios::binary) << bytes;
    }
    // Leaves the file as a killed run would.
    void put_list(const std::string& lines) const { put(".quorvane-node-open-abcdef", lines); }

    static std::string header_text(const WavFormat& format, std::uint64_t data_size) {
        const WavHeader header = wav_header(format, data_size);
        return {header.begin(), header.end()};
    }

    std::size_t hidden_files() const {
        std::size_t count = 0;
        for (const auto& entry : fs::directory_iterator(folder_)) {
            count += entry.path().filename().string()[0] == '.' ? 1 : 0;
        }
        return count;
    }

    // Returns the number of frames that an independent reader finds. It must accept the file.
    static std::vector<std::int16_t> read(const std::string& path) {
        SF_INFO info{};
        SNDFILE* const file = sf_open(path.c_str(), SFM_READ, &info);
        EXPECT_NE(file, nullptr) << path << ": " << sf_strerror(nullptr);
        if (file == nullptr) {
            return {};
        }
        EXPECT_EQ(info.samplerate, 16000);
        std::vector<std::int16_t> samples(static_cast<std::size_t>(info.frames * info.channels));
        EXPECT_EQ(sf_read_short(file, samples.data(), static_cast<sf_count_t>(samples.size())),
                  static_cast<sf_count_t>(samples.size()));
        sf_close(file);
        return samples;
    }

    std::string folder_;
};

TEST_F(OpenListTest, ListIsThereOnlyWhileFilesAre) {
    {
        WavFolder folder(folder_, 8, false);
        const auto one = folder.create("one.wav", 8000, 1);
        const auto two = folder.create("two.wav", 8000, 1);
        EXPECT_EQ(hidden_files(), 1u);
        one->close();
        EXPECT_EQ(hidden_files(), 1u);
        two->close();
        EXPECT_EQ(hidden_files(), 0u);
        folder.create("three.wav", 8000, 1);
    }
    EXPECT_EQ(hidden_files(), 0u);
}

TEST_F(OpenListTest, ListStaysShortWhenFilesComeAndGo) {
    OpenList list(folder_);
    list.add("stays.wav", {8000, 1});
    for (int i = 0; i < 20'000; ++i) {
        list.add("goes.wav", {8000, 1});
        list.remove("goes.wav");
    }
    std::uintmax_t size = 0;
    for (const auto& entry : fs::directory_iterator(folder_)) {
        size += entry.file_size();
    }
    EXPECT_LE(size, 100'000u);
    EXPECT_GE(size, std::string("8000 1 stays.wav\n").size());
    EXPECT_EQ(hidden_files(), 1u);
}

TEST_F(OpenListTest, AudioThatTheHeaderDoesNotCountIsRecovered) {
    put("a.wav", header_text({8000, 1}, 4) + "12345678");
    put_list("8000 1 a.wav\n");
    const auto files = recover_leftovers(folder_);
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(files[0].path, path("a.wav"));
    EXPECT_EQ(files[0].frames, 4u);
    EXPECT_EQ(files[0].recovered, 2u);
    EXPECT_EQ(files[0].error, "");
    std::ifstream file(path("a.wav"), std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(file)), {});
    EXPECT_EQ(bytes, header_text({8000, 1}, 8) + "12345678");
    EXPECT_EQ(hidden_files(), 0u);
}

TEST_F(OpenListTest, RepairedFileStaysAsOldAsItsAudio) {
    put("a.wav", header_text({8000, 1}, 4) + "12345678");
    put_list("8000 1 a.wav\n");
    // 2026-01-31T12:00:00Z
    const timespec time{1'769'860'800, 123'456'789};
    const timespec times[] = {time, time};
    ASSERT_EQ(::utimensat(AT_FDCWD, path("a.wav").c_str(), times, 0), 0);
    EXPECT_EQ(recover_leftovers(folder_).at(0).recovered, 2u);
    struct stat status {};
    ASSERT_EQ(::stat(path("a.wav").c_str(), &status), 0);
    EXPECT_EQ(status.st_mtim.tv_sec, 1'769'860'800);
    EXPECT_EQ(status.st_mtim.tv_nsec, 123'456'789);
}

TEST_F(OpenListTest, HalfAFrameIsCutOff) {
    put("a.wav", header_text({8000, 2}, 0) + "1234567");
    put_list("8000 2 a.wav\n");
    EXPECT_EQ(recover_leftovers(folder_).at(0).frames, 1u);
    EXPECT_EQ(fs::file_size(path("a.wav")), 48u);
}

// A power cut may lose what the system had not written to the disk.
TEST_F(OpenListTest, FileWithoutHeaderGetsThatOfTheList) {
    put("empty.wav", "");
    put("zeros.wav", std::string(50, '\0'));
    put("short.wav", header_text({16000, 1}, 1000) + "12");
    put_list("16000 1 empty.wav\n16000 1 zeros.wav\n16000 1 short.wav\n");
    EXPECT_EQ(recover_leftovers(folder_).size(), 3u);
    EXPECT_EQ(read(path("empty.wav")).size(), 0u);
    EXPECT_EQ(read(path("zeros.wav")).size(), 3u);
    EXPECT_EQ(read(path("short.wav")).size(), 1u);
}

// To open one would block until somebody writes to it.
TEST_F(OpenListTest, FifosAreNotRead) {
    ASSERT_EQ(::mkfifo(path(".quorvane-node-open-fifo").c_str(), 0600), 0);
    ASSERT_EQ(::mkfifo(path("a.wav").c_str(), 0600), 0);
    put_list("8000 1 a.wav\n");
    EXPECT_TRUE(listed_names(path(".quorvane-node-open-fifo")).empty());
    const auto files = recover_leftovers(folder_);
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(files[0].error, "it is no WAV file of this program any more");
    EXPECT_EQ(hidden_files(), 1u);
}

TEST_F(OpenListTest, FileThatIsNoneOfOursIsLeftAlone) {
    const std::string other = "fLaC" + std::string(100, 'x');
    put("a.wav", other);
    put_list("8000 1 a.wav\n");
    EXPECT_NE(recover_leftovers(folder_).at(0).error, "");
    EXPECT_EQ(fs::file_size(path("a.wav")), other.size());
}

TEST_F(OpenListTest, LinesThatNameNoFileOfTheFolderAreIgnored) {
    put("a.wav", header_text({8000, 1}, 0) + "12");
    put_list("8000 1 ../" + fs::path(folder_).filename().string() +
             "/a.wav\nnonsense\n8000 9 a.wav\n0 1 a.wav\n8000 1 gone.wav\n8000 1");
    EXPECT_TRUE(recover_leftovers(folder_).empty());
    EXPECT_EQ(fs::file_size(path("a.wav")), 46u);
}

TEST_F(OpenListTest, LongLinesArePassedOverAndOneWithoutEndEndsTheList) {
    const std::string name = "8000 1 " + std::string(504, 'n');
    put_list(name + '\n' + name + "n\n8000 1 one.wav\n" + std::string(1'000'000, 'x') +
             "\n8000 2 two.wav\n" + std::string(3'000'000, 'x') + "\n8000 1 three.wav\n");
    EXPECT_EQ(listed_names(path(".quorvane-node-open-abcdef")),
              (std::vector<std::string>{std::string(504, 'n'), "one.wav", "two.wav"}));
}

TEST_F(OpenListTest, FilesOfARunThatLivesAreLeftAlone) {
    WavFolder living(folder_, 8, false);
    const auto file = living.create("a.wav", 8000, 1);
    EXPECT_TRUE(recover_leftovers(folder_).empty());
    EXPECT_EQ(hidden_files(), 1u);
}

// The writer is another process. It is killed while it creates and writes files.
class KilledWriter : public OpenListTest {
  protected:
    static constexpr std::size_t FILES = 4;

    [[noreturn]] void write_until_killed() const {
        // Two open files at most, so that files are also closed and opened again.
        WavFolder folder(folder_, 2, false);
        std::vector<std::unique_ptr<AudioFile>> files;
        for (std::size_t i = 0; i < FILES; ++i) {
            files.push_back(folder.create("call-" + std::to_string(i) + ".wav", 16000,
                                          static_cast<int>(1 + i % 2)));
        }
        std::vector<std::int16_t> block(BLOCK);
        for (std::size_t done = 0;; done += BLOCK) {
            for (std::size_t i = 0; i < BLOCK; ++i) {
                block[i] = sample_at(done + i);
            }
            for (const auto& file : files) {
                file->write(block.data(), block.size());
            }
        }
    }

    void kill_one_after(std::chrono::microseconds moment) const {
        const pid_t writer = fork();
        if (writer == 0) {
            write_until_killed();
        }
        std::this_thread::sleep_for(moment);
        kill(writer, SIGKILL);
        waitpid(writer, nullptr, 0);
    }

    std::size_t check_files(std::uintmax_t most_uncounted) const {
        std::size_t samples = 0;
        for (const auto& entry : fs::directory_iterator(folder_)) {
            if (entry.path().filename().string()[0] == '.') {
                continue;
            }
            const std::vector<std::int16_t> audio = read(entry.path());
            for (std::size_t i = 0; i < audio.size(); ++i) {
                if (audio[i] != sample_at(i)) {
                    ADD_FAILURE() << entry.path() << " differs at " << i;
                    break;
                }
            }
            EXPECT_LE(entry.file_size() - 44 - 2 * audio.size(), most_uncounted) << entry.path();
            samples += audio.size();
        }
        return samples;
    }
};

TEST_F(KilledWriter, LeavesFilesThatLackABlockAtMostAtAnyOf200Moments) {
    std::mt19937 choice(4711);
    std::size_t samples = 0;
    std::size_t leftovers = 0;
    for (int kill = 0; kill < 200; ++kill) {
        kill_one_after(std::chrono::microseconds(choice() % 4000));
        check_files(2 * BLOCK);
        leftovers += recover_leftovers(folder_).size();
        samples += check_files(0);
        EXPECT_EQ(hidden_files(), 0u);
        fs::remove_all(folder_);
        fs::create_directory(folder_);
    }
    EXPECT_GT(samples, 0u) << "every writer was killed before it wrote";
    EXPECT_GT(leftovers, 0u);
}

}  // namespace

}  // namespace qv::node
