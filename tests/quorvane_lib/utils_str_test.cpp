#include "quorvane_lib/utils_str.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <iomanip>
#include <sstream>

namespace {

// The value to which strtoul sets errno in addition to its work. 0: errno stays unchanged.
int injected_error = 0;

}  // namespace

extern "C" __attribute__((visibility("default"))) unsigned long strtoul(const char* text,
                                                                        char** end,
                                                                        int base) noexcept {
    using Function = unsigned long(const char*, char**, int);
    static auto* const next = reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, "strtoul"));
    const unsigned long number = next(text, end, base);
    if (injected_error != 0) {
        errno = injected_error;
    }
    return number;
}

namespace qv::utils::str {
namespace {

using Pieces = std::vector<std::string>;

Pieces split_at(const std::string& s, char delimiter, bool keep_empty) {
    Pieces out;
    split(s, delimiter, out, keep_empty);
    return out;
}

// Checks that both overloads with a text as delimiter agree.
Pieces split_at(const std::string& s, const std::string& delimiter, bool keep_empty) {
    Pieces out;
    split(s, delimiter, out, keep_empty);
    Pieces same;
    split(s, delimiter.c_str(), same, keep_empty);
    EXPECT_EQ(out, same);
    return out;
}

Pieces split_at_any(const std::string& s, const std::string& delimiters, bool keep_empty) {
    Pieces out;
    split_any(s, delimiters, out, keep_empty);
    return out;
}

TEST(Trim, RemovesBlankTabLineFeedAndCarriageReturn) {
    EXPECT_EQ(trim_left(" \t\n\rx y \t\n\r"), "x y \t\n\r");
    EXPECT_EQ(trim_right(" \t\n\rx y \t\n\r"), " \t\n\rx y");
}

TEST(Trim, TextOfWhitespaceOnlyBecomesEmpty) {
    EXPECT_EQ(trim_left(" \t\n\r"), "");
    EXPECT_EQ(trim_right(" \t\n\r"), "");
    EXPECT_EQ(trim_left(""), "");
    EXPECT_EQ(trim_right(""), "");
}

TEST(Trim, VerticalTabFormFeedAndZeroByteStay) {
    EXPECT_EQ(trim_left("\v x"), "\v x");
    EXPECT_EQ(trim_right("x \v"), "x \v");
    EXPECT_EQ(trim_left("\fx"), "\fx");
    EXPECT_EQ(trim_right("x\f"), "x\f");
    EXPECT_EQ(trim_left(std::string("\0x", 2)), std::string("\0x", 2));
}

TEST(Trim, AGivenSetReplacesTheDefaultOne) {
    EXPECT_EQ(trim_left("ab xab", "ba"), " xab");
    EXPECT_EQ(trim_right("abx ab", "ba"), "abx ");
    EXPECT_EQ(trim_left("aaa", "a"), "");
    EXPECT_EQ(trim_right("aaa", "a"), "");
}

TEST(Trim, AnEmptySetTrimsNothing) {
    EXPECT_EQ(trim_left(" x", ""), " x");
    EXPECT_EQ(trim_right("x ", ""), "x ");
}

TEST(Replace, GoesFromLeftToRightWithoutOverlap) {
    EXPECT_EQ(replace(std::string(",,,"), ",,", "_;"), "_;,");
    EXPECT_EQ(replace(std::string("aaaa"), "aa", "b"), "bb");
}

TEST(Replace, ReplacedTextIsNotSearchedAgain) {
    EXPECT_EQ(replace(std::string("aa"), "a", "aa"), "aaaa");
    EXPECT_EQ(replace(std::string("aabb"), "ab", ""), "ab");
}

TEST(Replace, WithoutAnOccurrenceTheTextStays) {
    EXPECT_EQ(replace(std::string("abc"), "x", "y"), "abc");
    EXPECT_EQ(replace(std::string(), "x", "y"), "");
}

TEST(Replace, InPlaceChangesAndReturnsTheTextItself) {
    std::string text = "a-b-c";
    EXPECT_EQ(&replace(text, "-", "+"), &text);
    EXPECT_EQ(text, "a+b+c");
}

TEST(Replace, TheCopyingFormLeavesItsInputAlone) {
    const std::string text = "a-b";
    EXPECT_EQ(replace(text, "-", "+"), "a+b");
    EXPECT_EQ(text, "a-b");
}

TEST(Replace, AnEmptyTextToFindReplacesNothing) {
    EXPECT_EQ(replace(std::string("abc"), "", "x"), "abc");
}

TEST(SplitAtCharacter, ADelimiterAtTheEndMakesNoEmptyPiece) {
    EXPECT_EQ(split_at("a=b=", '=', true), (Pieces{"a", "b"}));
    EXPECT_EQ(split_at("a=b==", '=', true), (Pieces{"a", "b", ""}));
    EXPECT_EQ(split_at("=", '=', true), (Pieces{""}));
    EXPECT_EQ(split_at("=", '=', false), Pieces{});
}

TEST(SplitAtCharacter, EmptyPiecesAreKeptOnlyOnRequest) {
    EXPECT_EQ(split_at("=b", '=', false), (Pieces{"b"}));
    EXPECT_EQ(split_at("=b", '=', true), (Pieces{"", "b"}));
    EXPECT_EQ(split_at("a==b", '=', false), (Pieces{"a", "b"}));
    EXPECT_EQ(split_at("a==b", '=', true), (Pieces{"a", "", "b"}));
}

TEST(SplitAtCharacter, AnEmptyTextHasNoPiece) {
    EXPECT_EQ(split_at("", '=', true), Pieces{});
    EXPECT_EQ(split_at("", '=', false), Pieces{});
}

TEST(SplitAtCharacter, ATextWithoutDelimiterIsOnePiece) {
    EXPECT_EQ(split_at("abc", '=', false), (Pieces{"abc"}));
}

TEST(SplitAtCharacter, LineFeedsAndZeroBytesAreOrdinaryCharacters) {
    EXPECT_EQ(split_at(std::string("a\n\0,b", 5), ',', false),
              (Pieces{std::string("a\n\0", 3), "b"}));
}

TEST(SplitAtText, ADelimiterAtTheEndMakesAnEmptyPiece) {
    EXPECT_EQ(split_at("a::b::", "::", true), (Pieces{"a", "b", ""}));
    EXPECT_EQ(split_at("a::b::", "::", false), (Pieces{"a", "b"}));
}

TEST(SplitAtText, AnEmptyTextIsOneEmptyPieceWhenTheseAreKept) {
    EXPECT_EQ(split_at("", "::", true), (Pieces{""}));
    EXPECT_EQ(split_at("", "::", false), Pieces{});
}

TEST(SplitAtText, EmptyPiecesAreKeptOnlyOnRequest) {
    EXPECT_EQ(split_at("::a::::b", "::", true), (Pieces{"", "a", "", "b"}));
    EXPECT_EQ(split_at("::a::::b", "::", false), (Pieces{"a", "b"}));
    EXPECT_EQ(split_at("::", "::", false), Pieces{});
}

TEST(SplitAtText, PartOfADelimiterIsText) {
    EXPECT_EQ(split_at("a:b:::c", "::", false), (Pieces{"a:b", ":c"}));
}

TEST(SplitAtText, AnEmptyDelimiterSplitsNothing) {
    EXPECT_EQ(split_at("abc", "", false), (Pieces{"abc"}));
}

TEST(SplitAny, EveryCharacterOfTheSetIsADelimiter) {
    EXPECT_EQ(split_at_any("a, b", ", ", false), (Pieces{"a", "b"}));
    EXPECT_EQ(split_at_any("a, b", ", ", true), (Pieces{"a", "", "b"}));
}

TEST(SplitAny, ADelimiterAtTheEndMakesAnEmptyPieceWhenTheseAreKept) {
    EXPECT_EQ(split_at_any("a,", ",", true), (Pieces{"a", ""}));
    EXPECT_EQ(split_at_any("a,", ",", false), (Pieces{"a"}));
    EXPECT_EQ(split_at_any(",", ",", true), (Pieces{"", ""}));
    EXPECT_EQ(split_at_any(",", ",", false), Pieces{});
}

TEST(SplitAny, AnEmptyTextHasNoPiece) {
    EXPECT_EQ(split_at_any("", ",", true), Pieces{});
    EXPECT_EQ(split_at_any("", ",", false), Pieces{});
}

TEST(SplitAny, AnEmptySetSplitsNothing) {
    EXPECT_EQ(split_at_any("a,b", "", false), (Pieces{"a,b"}));
}

TEST(Split, EveryFormAppends) {
    Pieces out{"before"};
    split("a", ',', out, false);
    split("b", ",", out, false);
    split("c", std::string(","), out, false);
    split_any("d", ",", out, false);
    EXPECT_EQ(out, (Pieces{"before", "a", "b", "c", "d"}));
}

// The parsed variable starts as 7777, so that tests see whether it stays unchanged.
template <typename T>
struct Parsed {
    explicit Parsed(const char* text) : status(try_parse_value<T, 10>(text, value).status) {}

    T value = 7777;
    try_parse_status status;
};

constexpr unsigned long UNTOUCHED = 7777;

class ParseNumber : public testing::Test {
  protected:
    template <typename T>
    void expect(const char* text, try_parse_status status, unsigned long value) {
        const Parsed<T> parsed(text);
        EXPECT_EQ(parsed.status, status) << text;
        EXPECT_EQ(parsed.value, value) << text;
    }
    void expect_short(const char* text, try_parse_status status, unsigned long value) {
        expect<unsigned short>(text, status, value);
    }
    void expect_long(const char* text, try_parse_status status, unsigned long value) {
        expect<unsigned long>(text, status, value);
    }
    void TearDown() override { injected_error = 0; }
};

TEST_F(ParseNumber, StatusesAreNumberedAsDocumented) {
    EXPECT_EQ(static_cast<int>(try_parse_status::ok), 0);
    EXPECT_EQ(static_cast<int>(try_parse_status::null_input), 1);
    EXPECT_EQ(static_cast<int>(try_parse_status::invalid_format), 2);
    EXPECT_EQ(static_cast<int>(try_parse_status::out_of_range), 3);
    EXPECT_EQ(static_cast<int>(try_parse_status::conversion_error), 4);
    EXPECT_EQ(sizeof(try_parse_status), 4u);
}

TEST_F(ParseNumber, AResultIsASuccessOnlyWhenItIsOk) {
    unsigned short value = 0;
    EXPECT_TRUE((try_parse_value<unsigned short, 10>("1", value)));
    EXPECT_FALSE((try_parse_value<unsigned short, 10>("x", value)));
    EXPECT_FALSE((try_parse_value<unsigned short, 10>(nullptr, value)));
}

TEST_F(ParseNumber, TheWholeTextIsANumber) {
    expect_short("0", try_parse_status::ok, 0);
    expect_short("65535", try_parse_status::ok, 65535);
    expect_short("000065535", try_parse_status::ok, 65535);
    expect_long("65536", try_parse_status::ok, 65536);
    expect_long("18446744073709551615", try_parse_status::ok, ULONG_MAX);
}

TEST_F(ParseNumber, TooLargeANumberIsOutOfRangeAndNotStored) {
    expect_short("65536", try_parse_status::out_of_range, UNTOUCHED);
    expect_short("99999999999999999999", try_parse_status::out_of_range, UNTOUCHED);
    expect_long("18446744073709551616", try_parse_status::out_of_range, UNTOUCHED);
    expect_long("-18446744073709551616", try_parse_status::out_of_range, UNTOUCHED);
}

TEST_F(ParseNumber, RangeIsLookedAtBeforeTheRestOfTheText) {
    expect_short("65536x", try_parse_status::out_of_range, UNTOUCHED);
}

TEST_F(ParseNumber, CharactersBehindTheNumberAreReportedButTheNumberIsStored) {
    expect_short("12x", try_parse_status::invalid_format, 12);
    expect_short("12 ", try_parse_status::invalid_format, 12);
    expect_short("0x10", try_parse_status::invalid_format, 0);
    expect_long("5000000000.5", try_parse_status::invalid_format, 5000000000);
}

TEST_F(ParseNumber, WithoutADigitNothingIsStored) {
    for (const char* text : {"", "x", " ", "-", "+", "- 1", "x12"}) {
        expect_short(text, try_parse_status::invalid_format, UNTOUCHED);
        expect_long(text, try_parse_status::invalid_format, UNTOUCHED);
    }
}

TEST_F(ParseNumber, ANullTextIsNullInput) {
    const Parsed<unsigned short> narrow(nullptr);
    EXPECT_EQ(narrow.status, try_parse_status::null_input);
    EXPECT_EQ(narrow.value, UNTOUCHED);
    EXPECT_EQ(Parsed<unsigned long>(nullptr).status, try_parse_status::null_input);
}

TEST_F(ParseNumber, LeadingWhitespaceAndASignAreAccepted) {
    expect_short(" 7", try_parse_status::ok, 7);
    expect_short("\t\n\v\f\r +7", try_parse_status::ok, 7);
    expect_long(" +7", try_parse_status::ok, 7);
}

TEST_F(ParseNumber, AMinusSignWrapsAround) {
    expect_long("-1", try_parse_status::ok, ULONG_MAX);
    expect_short("-1", try_parse_status::out_of_range, UNTOUCHED);
    expect_short("-18446744073709551615", try_parse_status::ok, 1);
    expect_short("-0", try_parse_status::ok, 0);
}

TEST_F(ParseNumber, AnErrorOfBeforeDoesNotMatterAndNoneIsLeft) {
    errno = ERANGE;
    expect_short("7", try_parse_status::ok, 7);
    expect_short("65536", try_parse_status::out_of_range, UNTOUCHED);
    expect_long("18446744073709551616", try_parse_status::out_of_range, UNTOUCHED);
    EXPECT_EQ(errno, 0);
}

TEST_F(ParseNumber, AnyOtherErrorOfTheConversionIsAConversionError) {
    injected_error = EINVAL;
    expect_short("7", try_parse_status::conversion_error, UNTOUCHED);
    expect_long("x", try_parse_status::conversion_error, UNTOUCHED);
}

TEST_F(ParseNumber, TooLargeIsOutOfRangeWhateverTheConversionReports) {
    injected_error = EINVAL;
    expect_short("65536", try_parse_status::out_of_range, UNTOUCHED);
}

constexpr unsigned char COUNTING[16] = {0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07,
                                        0x08, 0x09, 0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F};
constexpr unsigned char HIGH[16] = {0xF4, 0x7A, 0xC1, 0x0B, 0x58, 0xCC, 0x43, 0x72,
                                    0xA5, 0x67, 0x0E, 0x02, 0xB2, 0xC3, 0xD4, 0x79};

TEST(PrintUuid, CanonicalTextInLowerCase) {
    EXPECT_EQ(print_uuid(COUNTING), "00010203-0405-0607-0809-0a0b0c0d0e0f");
    EXPECT_EQ(print_uuid(HIGH), "f47ac10b-58cc-4372-a567-0e02b2c3d479");
}

TEST(PrintUuid, TheStreamFormWritesTheSameText) {
    std::ostringstream out;
    print_uuid(out, HIGH);
    EXPECT_EQ(out.str(), "f47ac10b-58cc-4372-a567-0e02b2c3d479");
}

TEST(PrintUuid, FormatFlagsAndFillOfTheStreamNeitherMatterNorChange) {
    std::ostringstream out;
    out << std::uppercase << std::showbase << std::left << std::oct << std::setfill('*');
    const auto flags = out.flags();
    print_uuid(out, HIGH);
    EXPECT_EQ(out.str(), "f47ac10b-58cc-4372-a567-0e02b2c3d479");
    EXPECT_EQ(out.flags(), flags);
    EXPECT_EQ(out.fill(), '*');
}

}  // namespace
}  // namespace qv::utils::str
