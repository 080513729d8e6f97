#include "node/audio/retention.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>

#include "node/audio/audio_files.h"
#include "tests/node/audio/folder_test.h"

namespace qv::node {

namespace {

using namespace std::chrono_literals;
using Names = std::set<std::string>;
using Clock = std::chrono::steady_clock;

const std::string OLD = "11111111-0000-4000-8000-000000000001";
const std::string OLDER = "22222222-0000-4000-8000-000000000002";
const std::string NEW = "33333333-0000-4000-8000-000000000003";

constexpr auto DAY = std::chrono::hours(24);
// 2026-01-31T12:00:00Z
constexpr Micros NOW{1'769'860'800'000'000};

class RetentionTest : public tests::FolderTest {
  protected:
    // Puts a file there that was changed so long before NOW.
    void put_file(const std::string& name, Micros age, std::size_t size = 100) const {
        put(name, std::string(size, 'x'));
        set_age(name, age);
    }
    void set_age(const std::string& name, Micros age) const {
        const Micros changed = NOW - age;
        const timespec time{changed.count() / 1'000'000, changed.count() % 1'000'000 * 1000};
        const timespec times[] = {time, time};
        ASSERT_EQ(::utimensat(AT_FDCWD, path(name).c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
    }
    // A call of today, which shows that the clock is right.
    void put_new_call() const { put_file(NEW + "-originator.wav", 1h); }

    Retention::Options options(const std::string& one, const std::string& another = {}) {
        Retention::Options options;
        options.folder = folder_;
        read_keep_limit(one, options.limits);
        if (!another.empty()) {
            read_keep_limit(another, options.limits);
        }
        options.wall_clock = [this] { return now_; };
        options.uptime = [this] { return uptime_; };
        return options;
    }

    // The system refuses to remove files of that call, even for root, until `kept_` is empty.
    Retention::Options keeping(const std::string& stem, const std::string& limit) {
        kept_ = stem;
        Retention::Options keeping = options(limit);
        keeping.remove = [this](int folder, const char* name) {
            const bool kept = !kept_.empty() && std::string(name).rfind(kept_, 0) == 0;
            return kept ? EPERM : remove_from_folder(folder, name);
        };
        return keeping;
    }

    RetentionResult look(Retention& retention, const std::vector<std::string>& present = {}) {
        retention.begin(present);
        EXPECT_TRUE(retention.wait(Clock::now() + 30s));
        return retention.take();
    }
    RetentionResult look(const std::string& limit, const std::vector<std::string>& present = {}) {
        Retention retention(options(limit));
        return look(retention, present);
    }

    void pass(Micros time) {
        now_ += time;
        uptime_ += time;
    }

    Micros now_ = NOW;
    Micros uptime_{5'000'000};
    std::string kept_;
};

TEST_F(RetentionTest, WholeCallThatIsTooOldIsRemoved) {
    put_new_call();
    put_file(OLD + "-originator.wav", 31 * DAY);
    put_file(OLD + "-terminator-part2.flac", 31 * DAY);
    put(OLD + ".json", "{\n \"sidecar_version\": 1,\n \"program\": \"quorvane-node\",\n");
    set_age(OLD + ".json", 31 * DAY);
    put(OLD + ".svg", "<svg xmlns=\"http://www.w3.org/2000/svg\"><pattern id=\"pause\"/>");
    set_age(OLD + ".svg", 31 * DAY);
    const RetentionResult result = look("30d");
    EXPECT_EQ(names(), Names{NEW + "-originator.wav"});
    ASSERT_EQ(result.removed.size(), 1u);
    EXPECT_EQ(result.removed[0].stem, OLD);
    EXPECT_EQ(result.removed[0].files,
              (std::vector<std::string>{OLD + "-originator.wav", OLD + "-terminator-part2.flac",
                                        OLD + ".json", OLD + ".svg"}));
    EXPECT_TRUE(result.removed[0].by_age);
    EXPECT_EQ(result.removed[0].error, "");
    EXPECT_EQ(result.distrust, "");
}

TEST_F(RetentionTest, CallIsAsOldAsItsLatestFile) {
    put_new_call();
    put_file(OLD + "-originator.wav", 40 * DAY);
    put_file(OLD + "-terminator.wav", 29 * DAY);
    EXPECT_TRUE(look("30d").removed.empty());
    EXPECT_EQ(names().size(), 3u);
}

TEST_F(RetentionTest, OldestCallsGoUntilTheRestIsSmallEnough) {
    put_file(OLDER + "-originator.wav", 3 * DAY, 300'000);
    put_file(OLD + "-originator.wav", 2 * DAY, 300'000);
    put_file(NEW + "-originator.wav", 1h, 300'000);
    const RetentionResult result = look("700K");
    EXPECT_EQ(names(), (Names{OLD + "-originator.wav", NEW + "-originator.wav"}));
    ASSERT_EQ(result.removed.size(), 1u);
    EXPECT_FALSE(result.removed[0].by_age);
    EXPECT_GE(result.removed[0].bytes, 300'000u);
}

TEST_F(RetentionTest, BothLimitsHold) {
    put_file(OLDER + "-originator.wav", 31 * DAY, 1000);
    put_file(OLD + "-originator.wav", 2 * DAY, 300'000);
    put_file(NEW + "-originator.wav", 1h, 300'000);
    Retention retention(options("30d", "400K"));
    const RetentionResult result = look(retention);
    EXPECT_EQ(names(), Names{NEW + "-originator.wav"});
    EXPECT_EQ(result.removed.size(), 2u);
}

TEST_F(RetentionTest, NothingElseIsRemoved) {
    put_new_call();
    const Names others = {"notes.wav", "important.json", OLD + "-customer.wav",
                          OLD + "-originator.wav.bak", OLD + ".txt", OLD,
                          "kept-" + OLD + "-originator.wav", ".quorvane-node-new-" + OLD + ".json",
                          // Named after the call by another program.
                          OLD + ".json", OLD + ".svg", OLD + ".wav", OLD + ".flac", OLD + ".opus"};
    for (const std::string& name : others) {
        put_file(name, 400 * DAY);
    }
    std::filesystem::create_directory(path(OLDER + "-originator.wav"));
    set_age(OLDER + "-originator.wav", 400 * DAY);
    EXPECT_TRUE(look("1d").removed.empty());
    EXPECT_EQ(look("1K").removed.size(), 1u);  // The new call.
    EXPECT_EQ(names().size(), others.size() + 1);
}

TEST_F(RetentionTest, MonoFileNamedAfterTheCallIsAnotherPrograms) {
    put_new_call();
    for (const int channels : {1, 2}) {
        WavFolder store(folder_, 10, true);
        const auto file = store.create((channels == 1 ? OLD : OLDER) + ".wav", 8000, channels);
        file->write_silence(100);
        file->close();
    }
    set_age(OLD + ".wav", 400 * DAY);
    set_age(OLDER + ".wav", 400 * DAY);
    look("30d");
    EXPECT_EQ(names(), (Names{OLD + ".wav", NEW + "-originator.wav"}));
}

TEST_F(RetentionTest, LinksAreNeitherFollowedNorRemoved) {
    put_new_call();
    std::filesystem::create_directory(path("elsewhere"));
    put_file("elsewhere/" + OLD + "-originator.wav", 400 * DAY);
    ASSERT_EQ(::symlink(path("elsewhere/" + OLD + "-originator.wav").c_str(),
                        path(OLD + "-originator.wav").c_str()),
              0);
    set_age(OLD + "-originator.wav", 400 * DAY);
    EXPECT_TRUE(look("30d").removed.empty());
    EXPECT_EQ(names().size(), 3u);
    EXPECT_EQ(bytes_of("elsewhere/" + OLD + "-originator.wav").size(), 100u);
}

TEST_F(RetentionTest, CallsThatGoOnStay) {
    put_new_call();
    put_file(OLD + "-originator.wav", 31 * DAY);
    put_file(OLD + "-2-originator.wav", 31 * DAY);
    look("30d", {OLD});
    EXPECT_EQ(names(), (Names{OLD + "-originator.wav", NEW + "-originator.wav"}));
}

TEST_F(RetentionTest, CallsThatAnotherProgramWritesStay) {
    put_new_call();
    WavFolder another(folder_, 10, false);
    const auto file = another.create(OLD + "-originator.wav", 8000, 1);
    put_file(OLD + "-terminator.wav", 31 * DAY);
    set_age(OLD + "-originator.wav", 31 * DAY);
    EXPECT_TRUE(look("30d").removed.empty());
    file->close();
    set_age(OLD + "-originator.wav", 31 * DAY);
    EXPECT_EQ(look("30d").removed.size(), 1u);
}

TEST_F(RetentionTest, FilesOfTheLastMinutesAndOfTheFutureStay) {
    put_file(OLD + "-originator.wav", 9min, 300'000);
    put_file(OLDER + "-originator.wav", -400 * DAY, 300'000);
    EXPECT_TRUE(look("1K").removed.empty());
    EXPECT_EQ(names().size(), 2u);
    pass(2min);
    EXPECT_EQ(look("1K").removed.size(), 1u);
    EXPECT_EQ(names(), Names{OLDER + "-originator.wav"});
}

TEST_F(RetentionTest, WithoutACallOfTheLastDayTheClockIsWatchedForADay) {
    put_file(OLD + "-originator.wav", 31 * DAY);
    put_file(OLDER + "-originator.wav", 400 * DAY);
    Retention retention(options("30d"));
    const RetentionResult first = look(retention);
    EXPECT_TRUE(first.removed.empty());
    EXPECT_EQ(first.distrust, "no call of the last day is in the folder: the clock may be wrong");
    pass(23h);
    const RetentionResult later = look(retention);
    EXPECT_TRUE(later.removed.empty());
    EXPECT_EQ(later.distrust, "");
    pass(1h);
    EXPECT_EQ(look(retention).removed.size(), 2u);
}

TEST_F(RetentionTest, ClockThatJumpsYearsAheadRemovesNothing) {
    put_new_call();
    put_file(OLD + "-originator.wav", 2 * DAY);
    Retention retention(options("30d"));
    EXPECT_TRUE(look(retention).removed.empty());
    now_ += 1000 * DAY;
    EXPECT_EQ(look(retention).distrust, "the clock has jumped by more than an hour");
    pass(20h);
    EXPECT_TRUE(look(retention).removed.empty());
    now_ -= 1000 * DAY;
    EXPECT_EQ(look(retention).distrust, "the clock has jumped by more than an hour");
    EXPECT_EQ(names().size(), 2u);
}

TEST_F(RetentionTest, FileThatCannotBeRemovedIsReportedOnceAndTriedAgain) {
    put_new_call();
    put_file(OLD + "-originator.wav", 31 * DAY);
    Retention retention(keeping(OLD, "30d"));
    const RetentionResult result = look(retention);
    ASSERT_EQ(result.removed.size(), 1u);
    EXPECT_EQ(result.removed[0].error, OLD + "-originator.wav: Operation not permitted");
    EXPECT_TRUE(look(retention).removed.empty());
    kept_.clear();
    const RetentionResult later = look(retention);
    ASSERT_EQ(later.removed.size(), 1u);
    EXPECT_EQ(later.removed[0].error, "");
    EXPECT_EQ(names(), Names{NEW + "-originator.wav"});
}

TEST_F(RetentionTest, NewerCallDoesNotMakeTheRoomOfOneThatCannotBeRemoved) {
    put_file(OLDER + "-originator.wav", 3 * DAY, 300'000);
    put_file(OLD + "-originator.wav", 2 * DAY, 300'000);
    put_file(NEW + "-originator.wav", 1h, 300'000);
    Retention retention(keeping(OLDER, "400K"));
    look(retention);
    look(retention);
    EXPECT_EQ(names().size(), 3u);
    kept_.clear();
    look(retention);
    EXPECT_EQ(names(), Names{NEW + "-originator.wav"});
}

TEST_F(RetentionTest, CallThatCannotBeRemovedDoesNotKeepOtherOldOnes) {
    put_new_call();
    put_file(OLDER + "-originator.wav", 40 * DAY);
    put_file(OLD + "-originator.wav", 31 * DAY);
    Retention retention(keeping(OLDER, "30d"));
    look(retention);
    EXPECT_EQ(names(), (Names{OLDER + "-originator.wav", NEW + "-originator.wav"}));
}

TEST_F(RetentionTest, CallThatAnotherProgramRemovesMeanwhileMakesRoom) {
    put_file(OLDER + "-originator.wav", 3 * DAY, 300'000);
    put_file(OLD + "-originator.wav", 2 * DAY, 300'000);
    put_file(NEW + "-originator.wav", 1h, 300'000);
    Retention::Options sharing = options("700K");
    sharing.wall_clock = [this] {  // Called when the folder has been read.
        std::filesystem::remove(path(OLDER + "-originator.wav"));
        return now_;
    };
    Retention retention(sharing);
    EXPECT_TRUE(look(retention).removed.empty());
    EXPECT_EQ(names(), (Names{OLD + "-originator.wav", NEW + "-originator.wav"}));
}

TEST_F(RetentionTest, FolderThatCannotBeReadDoesNotShowThatTheClockIsRight) {
    Retention::Options late = options("30d");
    late.folder = path("late");
    Retention retention(late);
    look(retention);
    std::filesystem::create_directory(late.folder);
    put_file("late/" + OLD + "-originator.wav", 31 * DAY);
    const RetentionResult result = look(retention);
    EXPECT_TRUE(result.removed.empty());
    EXPECT_NE(result.distrust, "");
}

TEST_F(RetentionTest, MissingFolderIsNoError) {
    Retention::Options missing = options("30d");
    missing.folder = path("missing");
    Retention retention(missing);
    EXPECT_TRUE(look(retention).removed.empty());
}

}  // namespace

}  // namespace qv::node
