#include "node/audio/file_finisher.h"

#include <chrono>

#include "node/audio/digest.h"
#include "tests/node/audio/folder_test.h"

namespace qv::node {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using Samples = std::vector<std::int16_t>;

class FileFinisherTest : public tests::FolderTest {
  protected:
    // Writes a file of these samples and finishes it.
    std::unique_ptr<AudioFile> write(AudioStore& store, const std::string& name,
                                     const Samples& samples, int channels = 1) {
        std::unique_ptr<AudioFile> file = store.create(name, 8000, channels);
        file->write(samples.data(), samples.size());
        file->close();
        return file;
    }
    bool wait() { return tasks_.wait(Clock::now() + 30s); }

    WavFolder folder_store_{folder_, 10, false};
    TaskThread tasks_;
    FileFinisher finisher_{folder_store_, tasks_, {true}};
};

TEST_F(FileFinisherTest, DigestIsThatOfTheFileOnTheDisk) {
    const auto file = write(finisher_, "a.wav", {1, -2});
    ASSERT_TRUE(wait());
    EXPECT_FALSE(file->completing());
    EXPECT_EQ(file->error(), "");
    // Of the 44 bytes of the header, 01 00 and fe ff, as sha256sum(1) prints it.
    EXPECT_EQ(file->facts().sha256,
              "fa6cea524ba398d1460d27e3d9913cf6bb156785cc46e047be48ca83b328659e");
}

TEST_F(FileFinisherTest, FactsCountTheSamplesOfEachChannel) {
    const auto file = finisher_.create("a.wav", 16000, 2);
    Samples samples = {1, 2, 3, 4};
    file->write(samples.data(), samples.size());
    file->take(samples);
    file->write_silence(6);
    file->close();
    ASSERT_TRUE(wait());
    EXPECT_EQ(file->facts().sample_rate, 16000);
    EXPECT_EQ(file->facts().channels, 2);
    EXPECT_EQ(file->facts().samples, 7u);
}

TEST_F(FileFinisherTest, FileIsNotCompleteBeforeItsTaskHasRun) {
    tasks_.add([] { std::this_thread::sleep_for(20ms); });
    const auto file = write(finisher_, "a.wav", {1});
    EXPECT_TRUE(file->completing());
    ASSERT_TRUE(wait());
    EXPECT_FALSE(file->completing());
}

TEST_F(FileFinisherTest, WithoutDigestsAFileIsCompleteAtOnce) {
    FileFinisher finisher(folder_store_, tasks_, {false});
    const auto file = write(finisher, "a.wav", {1});
    EXPECT_FALSE(file->completing());
    EXPECT_EQ(file->facts().sha256, "");
}

TEST_F(FileFinisherTest, FailedFileHasItsErrorAndNoDigest) {
    const auto file = write(finisher_, "missing/a.wav", {1});
    ASSERT_TRUE(wait());
    EXPECT_FALSE(file->completing());
    EXPECT_EQ(file->error(), "No such file or directory");
    EXPECT_EQ(file->facts().sha256, "");
}

TEST_F(FileFinisherTest, FileThatIsGivenUpStaysAsItWasWritten) {
    tasks_.add([] { std::this_thread::sleep_for(20ms); });
    const auto file = write(finisher_, "a.wav", {1});
    tasks_.abandon();
    EXPECT_FALSE(file->completing());
    EXPECT_EQ(file->error(), "");
    EXPECT_EQ(file->facts().sha256, "");
    EXPECT_EQ(bytes_of("a.wav").size(), 46u);
}

// A store whose files are closed later, as by a thread of its own.
class SlowStore : public AudioStore {
  public:
    explicit SlowStore(AudioStore& store) : store_(store) {}
    bool exists(const std::string& name) const override { return store_.exists(name); }
    std::unique_ptr<AudioFile> create(const std::string& name, int sample_rate,
                                      int channels) override {
        return std::make_unique<File>(*this, store_.create(name, sample_rate, channels));
    }
    std::shared_ptr<const PendingFile> write_text(const std::string& name,
                                                  std::string text) override {
        return store_.write_text(name, std::move(text));
    }
    std::size_t open_files() const override { return store_.open_files(); }

    bool busy = true;

  private:
    class File : public AudioFile {
      public:
        File(SlowStore& store, std::unique_ptr<AudioFile> file)
            : store_(store), file_(std::move(file)) {}
        bool write(const std::int16_t* samples, std::size_t count) override {
            return file_->write(samples, count);
        }
        bool write_silence(std::uint64_t count) override { return file_->write_silence(count); }
        bool close() override { return file_->close(); }
        bool completing() const override { return store_.busy; }
        const std::string& path() const override { return file_->path(); }
        const std::string& error() const override { return file_->error(); }

      private:
        SlowStore& store_;
        std::unique_ptr<AudioFile> file_;
    };

    AudioStore& store_;
};

TEST_F(FileFinisherTest, WorkBeginsWhenTheStoreHasWrittenTheFile) {
    SlowStore slow(folder_store_);
    FileFinisher finisher(slow, tasks_, {true});
    const auto file = write(finisher, "a.wav", {1});
    finisher.update();
    ASSERT_TRUE(wait());
    EXPECT_TRUE(file->completing());
    slow.busy = false;
    finisher.update();
    ASSERT_TRUE(wait());
    EXPECT_FALSE(file->completing());
    EXPECT_EQ(file->facts().sha256.size(), 64u);
}

class ConversionTest : public FileFinisherTest {
  protected:
    FileFinisher flac(std::size_t most_waiting = 10) {
        return {folder_store_,
                tasks_,
                {true, AudioFormat::FLAC, false, most_waiting},
                [this](const std::string& path, const std::string& why) {
                    complaints_ += path.substr(folder_.size() + 1) + ": " + why + '\n';
                }};
    }

    std::string complaints_;
};

TEST_F(ConversionTest, FileHasItsNewNameAndTheDigestOfTheNewFile) {
    FileFinisher finisher = flac();
    const auto file = write(finisher, "a.wav", {1, 2, 3});
    ASSERT_TRUE(wait());
    finisher.update();
    EXPECT_FALSE(file->completing());
    EXPECT_EQ(file->error(), "");
    EXPECT_EQ(file->path(), path("a.flac"));
    std::string error;
    EXPECT_EQ(file->facts().sha256, sha256_of_file(path("a.flac"), error));
    EXPECT_EQ(file->facts().samples, 3u);
    EXPECT_EQ(file->facts().not_converted, "");
    EXPECT_EQ(names(), std::set<std::string>{"a.flac"});
    EXPECT_EQ(complaints_, "");
}

TEST_F(ConversionTest, FileThatCannotBeConvertedIsACompleteWavFile) {
    FileFinisher finisher = flac();
    const auto file = write(finisher, "a.wav", {});
    ASSERT_TRUE(wait());
    finisher.update();
    EXPECT_EQ(file->error(), "");
    EXPECT_EQ(file->path(), path("a.wav"));
    EXPECT_EQ(file->facts().not_converted, "the new file does not have the audio");
    EXPECT_EQ(file->facts().sha256.size(), 64u);
    EXPECT_EQ(complaints_, "a.wav: the new file does not have the audio\n");
}

TEST_F(ConversionTest, FileWhoseNewNameIsTakenGetsANumber) {
    put("a.flac", "somebody else's");
    FileFinisher finisher = flac();
    const auto file = write(finisher, "a.wav", {1, 2, 3});
    ASSERT_TRUE(wait());
    EXPECT_EQ(file->path(), path("a-2.flac"));
    EXPECT_EQ(names(), (std::set<std::string>{"a.flac", "a-2.flac"}));
    EXPECT_EQ(bytes_of("a.flac"), "somebody else's");
}

TEST_F(ConversionTest, FilesBeyondThoseThatMayWaitStayWavFiles) {
    FileFinisher finisher = flac(1);
    tasks_.add([] { std::this_thread::sleep_for(50ms); });
    tasks_.add([] {});
    const auto file = write(finisher, "a.wav", {1, 2, 3});
    ASSERT_TRUE(wait());
    finisher.update();
    EXPECT_EQ(file->path(), path("a.wav"));
    EXPECT_EQ(complaints_, "a.wav: too many files wait for it\n");
}

TEST_F(ConversionTest, FileThatIsGivenUpIsReported) {
    FileFinisher finisher = flac();
    tasks_.add([] { std::this_thread::sleep_for(50ms); });
    const auto file = write(finisher, "a.wav", {1, 2, 3});
    tasks_.abandon();
    finisher.update();
    EXPECT_FALSE(file->completing());
    EXPECT_EQ(file->facts().not_converted, "the program ended first");
    EXPECT_EQ(complaints_, "a.wav: the program ended first\n");
    EXPECT_EQ(names(), std::set<std::string>{"a.wav"});
}

TEST_F(ConversionTest, ConversionThatGoesOnAfterItWasGivenUpChangesNothing) {
    FileFinisher finisher = flac();
    const auto file = finisher.create("a.wav", 8000, 1);
    file->write_silence(10'000'000);  // Takes a while to convert.
    file->close();
    const auto converts = [this] { return names().size() == 2; };  // Its hidden file is there.
    while (!converts()) {
        std::this_thread::yield();
    }
    tasks_.abandon();
    finisher.update();
    EXPECT_FALSE(file->completing());
    while (converts()) {
        std::this_thread::sleep_for(1ms);
    }
    EXPECT_EQ(file->path(), path("a.wav"));
    EXPECT_EQ(file->facts().not_converted, "the program ended first");
    EXPECT_EQ(complaints_, "a.wav: the program ended first\n");
    EXPECT_EQ(names(), std::set<std::string>{"a.wav"});
}

}  // namespace

}  // namespace qv::node
