#include "node/audio/call_file_names.h"

#include <gtest/gtest.h>

namespace qv::node {

namespace {

const std::string UUID = "3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37";

// "stem", with "*" if it is a file of one side; "-" for a name of no call.
std::string parsed(const std::string& name, const std::string& pattern = "{uuid}") {
    const auto found = CallFileNames(pattern).parse(name);
    return found.has_value() ? found->stem + (found->of_side ? "*" : "") : "-";
}

TEST(CallFileNamesTest, EveryFileOfACallHasItsStem) {
    for (const char* end :
         {"-originator.wav", "-terminator.flac", "-originator.opus", "-originator-part2.wav",
          "-split-terminator.wav", "-split-originator-part12.flac", "-originator-2.wav"}) {
        EXPECT_EQ(parsed(UUID + end), UUID + "*") << end;
        EXPECT_EQ(parsed(UUID + "-7" + end), UUID + "-7*") << end;
    }
    for (const char* end : {".wav", ".flac", ".opus", ".svg", ".json"}) {
        EXPECT_EQ(parsed(UUID + end), UUID) << end;
        EXPECT_EQ(parsed(UUID + "-12" + end), UUID + "-12") << end;
    }
}

TEST(CallFileNamesTest, OtherNamesAreOfNoCall) {
    for (const std::string& name :
         {std::string(),
          std::string("."),
          std::string(".."),
          std::string("notes.wav"),
          std::string("originator.wav"),
          std::string("-originator.wav"),
          UUID,
          UUID + ".mp3",
          UUID + ".wav.bak",
          UUID + ".WAV",
          UUID + "-customer.wav",
          UUID + "-originator.svg",
          UUID + "-originator.json",
          UUID + "-originator.wav~",
          "my " + UUID + ".wav",
          "old-" + UUID + "-originator.wav",
          UUID + "-originator-kept.wav",
          UUID + "-originator (1).wav",
          "." + UUID + "-originator.wav.new",
          std::string("3B9F6A52-7C1E-4D80-9F2B-E4A1C05D8E37-originator.wav"),
          std::string(".quorvane-node-open-abcdef"),
          "x/" + UUID + ".wav"}) {
        EXPECT_EQ(parsed(name), "-") << name;
    }
}

TEST(CallFileNamesTest, NameOfAnyLengthIsRead) {
    EXPECT_EQ(parsed(std::string(10'000'000, 'a') + "-originator.wav"), "-");
}

TEST(CallFileNamesTest, WordsOfThePatternAreRecognised) {
    const std::string pattern = "{date}_{time}.{reference}_{uuid}";
    const std::string stem = "2026-01-31_235959.a@b_" + UUID;
    EXPECT_EQ(parsed(stem + "-originator.wav", pattern), stem + "*");
    EXPECT_EQ(parsed(stem + "-2.json", pattern), stem + "-2");
    EXPECT_EQ(parsed("2026-01-31_235959xa@b_" + UUID + ".json", pattern), "-");
    EXPECT_EQ(parsed(UUID + "-originator.wav", pattern), "-");
    EXPECT_EQ(parsed("_" + UUID + ".svg", "-{uuid}"), "_" + UUID);
    EXPECT_EQ(parsed(UUID + "-originator_-terminator.wav", "{uuid}-{reference}"),
              UUID + "-originator_*");
}

TEST(CallFileNamesTest, OnlyAPatternWithTheUuidCanTell) {
    EXPECT_TRUE(CallFileNames::can_tell("{uuid}"));
    EXPECT_FALSE(CallFileNames::can_tell("{reference}-{date}"));
}

}  // namespace

}  // namespace qv::node
