#include "node/audio/call_file_names.h"

#include <gtest/gtest.h>

namespace qv::node {

namespace {

const std::string STEM_UUID = "3b9f6a52-7c1e-4d80-9f2b-e4a1c05d8e37";

// "stem", with "*" if it is a file of one side; "-" for a name of no call.
std::string parsed(const std::string& name, const std::string& pattern = "{uuid}") {
    const auto found = CallFileNames(pattern).parse(name);
    return found.has_value() ? found->stem + (found->of_side ? "*" : "") : "-";
}

TEST(CallFileNamesTest, EveryFileOfACallHasItsStem) {
    for (const char* end :
         {"-originator.wav", "-terminator.flac", "-originator.opus", "-originator-part2.wav",
          "-split-terminator.wav", "-split-originator-part12.flac", "-originator-2.wav"}) {
        EXPECT_EQ(parsed(STEM_UUID + end), STEM_UUID + "*") << end;
        EXPECT_EQ(parsed(STEM_UUID + "-7" + end), STEM_UUID + "-7*") << end;
    }
    for (const char* end : {".wav", ".flac", ".opus", ".svg", ".json"}) {
        EXPECT_EQ(parsed(STEM_UUID + end), STEM_UUID) << end;
        EXPECT_EQ(parsed(STEM_UUID + "-12" + end), STEM_UUID + "-12") << end;
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
          STEM_UUID,
          STEM_UUID + ".mp3",
          STEM_UUID + ".wav.bak",
          STEM_UUID + ".WAV",
          STEM_UUID + "-customer.wav",
          STEM_UUID + "-originator.svg",
          STEM_UUID + "-originator.json",
          STEM_UUID + "-originator.wav~",
          "my " + STEM_UUID + ".wav",
          "old-" + STEM_UUID + "-originator.wav",
          STEM_UUID + "-originator-kept.wav",
          STEM_UUID + "-originator (1).wav",
          "." + STEM_UUID + "-originator.wav.new",
          std::string("3B9F6A52-7C1E-4D80-9F2B-E4A1C05D8E37-originator.wav"),
          std::string(".quorvane-node-open-abcdef"),
          "x/" + STEM_UUID + ".wav"}) {
        EXPECT_EQ(parsed(name), "-") << name;
    }
}

TEST(CallFileNamesTest, NameOfAnyLengthIsRead) {
    EXPECT_EQ(parsed(std::string(10'000'000, 'a') + "-originator.wav"), "-");
}

TEST(CallFileNamesTest, WordsOfThePatternAreRecognised) {
    const std::string pattern = "{date}_{time}.{reference}_{uuid}";
    const std::string stem = "2026-01-31_235959.a@b_" + STEM_UUID;
    EXPECT_EQ(parsed(stem + "-originator.wav", pattern), stem + "*");
    EXPECT_EQ(parsed(stem + "-2.json", pattern), stem + "-2");
    EXPECT_EQ(parsed("2026-01-31_235959xa@b_" + STEM_UUID + ".json", pattern), "-");
    EXPECT_EQ(parsed(STEM_UUID + "-originator.wav", pattern), "-");
    EXPECT_EQ(parsed("_" + STEM_UUID + ".svg", "-{uuid}"), "_" + STEM_UUID);
    EXPECT_EQ(parsed(STEM_UUID + "-originator_-terminator.wav", "{uuid}-{reference}"),
              STEM_UUID + "-originator_*");
}

TEST(CallFileNamesTest, OnlyAPatternWithTheUuidCanTell) {
    EXPECT_TRUE(CallFileNames::can_tell("{uuid}"));
    EXPECT_FALSE(CallFileNames::can_tell("{reference}-{date}"));
}

}  // namespace

}  // namespace qv::node
