// Format directives: alignment, numbers, strings, dumps, indentation and the broken formats
// that must raise "Bad format" and leave the sink usable.
#include <kel/kelbase.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <string>

using namespace KEL;
using Exceptions::CKelException;
using Output_Streams::CChrStreamBuffer;
using Strings::CStringVar;
using Strings::CSubStringRef;

namespace {

constexpr unsigned int kBadFormat = 0x20010010u;

std::string Text(const CStringVar& s) { return std::string(s.data(), s.Length()); }

// The status a piece of formatting raised, 0 when it raised none.
template <class F>
unsigned int StatusOf(F&& body) {
    try {
        body();
    } catch (const CKelException& e) {
        return e.GetCode();
    }
    return 0;
}

// A format with its arguments and the exact text it must write into an empty string.
struct FormatCase {
    const char* name;
    void (*write)(CStringVar&);
    const char* expected;
};

class FormatWrites : public ::testing::TestWithParam<FormatCase> {};

std::string CaseName(const ::testing::TestParamInfo<FormatCase>& info) { return info.param.name; }

} // namespace

TEST_P(FormatWrites, ExactText) {
    CStringVar s;
    GetParam().write(s);
    EXPECT_EQ(GetParam().expected, Text(s));
}

// ---------------------------------------------------------------------------------------------
// Alignment

const FormatCase kAlignment[] = {
    {"LeftAlignmentCutsATextLongerThanTheWidth", [](CStringVar& s) { s.Format("%- 3s|") << "abcdef"; }, "abc|"},
    {"LeftAlignmentFillsBehindAShortText", [](CStringVar& s) { s.Format("%-.5s|") << "ab"; }, "ab...|"},
    {"RightAlignmentNeverCuts", [](CStringVar& s) { s.Format("%+ 5s|%+ 5s|") << "abcdef" << "ab"; }, "abcdef|   ab|"},
    {"CentreSplitsTheFillWithTheSmallerHalfInFront",
     [](CStringVar& s) { s.Format("%=.6s|%=*7s|%=-3s|") << "ab" << "ab" << "abcdef"; },
     "..ab..|**ab***|abc|"},
    {"WidthZeroOrNoFlagMeansNoAlignment",
     [](CStringVar& s) { s.Format("%-x0s|%5d|%5s|") << "abc" << 42 << "ab"; },
     "abc|42|ab|"},
    {"FillCharacterMayBeAnyCharacterIncludingDigitsAndPercent",
     [](CStringVar& s) { s.Format("%+%4d|%-04s|") << 7 << "a"; },
     "%%%7|a000|"},
    {"StarTakesWidthAndPrecisionFromIntegerArguments",
     [](CStringVar& s) {
         s.Format("%-.*s|%0*X|%.*s|%-.*.*s|") << 5 << "ab" << 8 << 0xBEEFu << 2 << "abcdef" << 4 << 1 << "xyz";
     },
     "ab...|0000BEEF|ab|x...|"},
    {"StarWidthZeroTurnsAlignmentOff", [](CStringVar& s) { s.Format("%-.*s|") << 0 << "abc"; }, "abc|"},
};
INSTANTIATE_TEST_SUITE_P(FormatAlignment, FormatWrites, ::testing::ValuesIn(kAlignment), CaseName);

// ---------------------------------------------------------------------------------------------
// Integers

const FormatCase kIntegers[] = {
    {"ZeroFlagPadsAndDAlwaysShowsTheSign",
     [](CStringVar& s) { s.Format("%05d %D %D %D %d") << 42 << 42 << -42 << 0 << -7; },
     "00042 +42 -42 +0 -7"},
    {"SignGoesBeforeZeroFill",
     [](CStringVar& s) { s.Format("%05d|%06D|%+ 5d|%02d") << -42 << 42 << -42 << -42; },
     "-0042|+00042|  -42|-42"},
    {"ExtremeValuesKeepAllTheirDigits",
     [](CStringVar& s) { s.Format("%d %D %d %d") << INT64_MIN << INT64_MIN << UINT64_MAX << INT64_MAX; },
     "-9223372036854775808 -9223372036854775808 18446744073709551615 9223372036854775807"},
    {"NegativeValuesInARadixShowTheBitsOfTheirType",
     [](CStringVar& s) {
         s.Format("%X %X %X %x %o") << -1 << static_cast<short>(-1) << -1LL << -2L << static_cast<short>(-8);
     },
     "FFFFFFFF FFFF FFFFFFFFFFFFFFFF fffffffffffffffe 177770"},
    {"CharacterTypesWriteOneByteOrRepeatIt",
     [](CStringVar& s) { s.Format("%c%C|%.3c|%.0c|%-_3c|") << 'a' << 'b' << '-' << 'x' << 'z'; },
     "aB|---||z__|"},
    {"IntegersAfterTheLastDirectiveAreAppendedInDecimal",
     [](CStringVar& s) { s.Format("a %d b") << 1 << 2 << -3 << 0xFFu; },
     "a 1 b2-3255"},
};
INSTANTIATE_TEST_SUITE_P(FormatIntegers, FormatWrites, ::testing::ValuesIn(kIntegers), CaseName);

TEST(FormatIntegers, BinaryOfAllOnesHasSixtyFourDigits) {
    CStringVar s;
    s.Format("%b") << ~0ull;
    EXPECT_EQ(std::string(64, '1'), Text(s));
    CStringVar z;
    z.Format("%b|%o|%x|%X|%b") << 0 << 8 << 0xabcdef << 0xabcdef << 5u;
    EXPECT_EQ("0|10|abcdef|ABCDEF|101", Text(z));
}

TEST(FormatIntegers, PrecisionIsTheLeastNumberOfDigitsUpToSixtyFour) {
    CStringVar s;
    s.Format("%.4x|%.3d|%.1d|%.2D") << 0xa << -5 << 123 << 3;
    EXPECT_EQ("000a|-005|123|+03", Text(s));
    CStringVar wide;
    wide.Format("%.70b") << 1;
    EXPECT_EQ(std::string(63, '0') + "1", Text(wide));
}

// ---------------------------------------------------------------------------------------------
// Strings, pointers and dumps

const FormatCase kStrings[] = {
    {"NullTextIsShownAndTextsAfterTheLastDirectiveAreAppended",
     [](CStringVar& s) { s.Format("[%s]") << static_cast<const char*>(nullptr) << "tail" << std::string("!"); },
     "[(null)]tail!"},
    {"PercentPairsAndPlainTextSurviveAroundDirectives",
     [](CStringVar& s) { s.Format("100%% of %s%%") << "x"; },
     "100% of x%"},
    {"DirectivesWithoutArgumentWriteNothing",
     [](CStringVar& s) { s.Format("a %d b %s c %-x5s %%") << 1; },
     "a 1 b  c  %"},
    {"HexDumpWritesBlankSeparatedPairsInLines",
     [](CStringVar& s) { s.Format("%h|%H|%.2h|%.0.3h|%h|") << "ab\n" << "\xfe\x0a" << "abcde" << "abcdef" << ""; },
     "61 62 0a|FE 0A|61 62\n63 64\n65|61 62 63||"},
};
INSTANTIATE_TEST_SUITE_P(FormatStrings, FormatWrites, ::testing::ValuesIn(kStrings), CaseName);

TEST(FormatStrings, PrecisionCapsUpperCaseConvertsAndViewsNeedNoTerminator) {
    CStringVar s;
    const char raw[] = {'x', 'y', 'z', 'Q'};
    s.Format("%.2s|%S|%s|%s|%s") << "abc" << "mIx3d" << CSubStringRef(raw, 3) << std::string("std") << CStringVar("var");
    EXPECT_EQ("ab|MIX3D|xyz|std|var", Text(s));
}

TEST(FormatStrings, ABrokenDirectiveInTheRestEndsTheTextQuietly) {
    CStringVar s;
    EXPECT_EQ(0u, StatusOf([&] { s.Format("a %d b %q c") << 1; }));
    EXPECT_EQ("a 1 b ", Text(s));
    CStringVar t;
    EXPECT_EQ(0u, StatusOf([&] { t.Format("ends in %"); }));
    EXPECT_EQ("ends in ", Text(t));
}

TEST(FormatStrings, HexDumpOfMemoryTakesZeroBytesAndIndentsItsLines) {
    const unsigned char bytes[] = {0x00, 0x01, 0xff, 0x10, 0x7f};
    CStringVar s;
    s.Format("dump: %!.2H").HexDump(bytes, sizeof bytes);
    EXPECT_EQ("dump: 00 01\n      FF 10\n      7F", Text(s));
    CStringVar extra;
    extra.Format("x=").HexDump(bytes, 2);
    EXPECT_EQ("x=00 01", Text(extra));
}

TEST(FormatStrings, PointersAreWrittenWithAllTheirHexDigits) {
    CStringVar s;
    const void* p = reinterpret_cast<const void*>(static_cast<std::uintptr_t>(0xabc));
    s.Format("%p|%P|%.1p|%-.18p|%s") << p << p << p << p << p;
    EXPECT_EQ("0000000000000abc|0000000000000ABC|abc|0000000000000abc..|0000000000000abc", Text(s));
}

TEST(FormatStrings, LanguageStringsInUtf8AreConvertedToSingleBytes) {
    static const char* const strings[] = {"caf\xC3\xA9", "plain"};
    Language_Support::CLngFile utf8File("test", Language_Support::Default_Language_ID, "English", 1, strings, 2);
    Language_Support::CLngFile plainFile("test", Language_Support::Default_Language_ID, "English", 0, strings, 2);
    Language_Support::CLanguageStrg converted(utf8File.GetLngData(), 0);
    Language_Support::CLanguageStrg asIs(plainFile.GetLngData(), 0);
    CStringVar s;
    s.Format("%s|%s") << converted << asIs;
    EXPECT_EQ("caf\xE9|caf\xC3\xA9", Text(s));
}

// ---------------------------------------------------------------------------------------------
// Indentation and line splitting

const FormatCase kIndentation[] = {
    {"ContinuationLinesAreIndentedToTheFieldColumn",
     [](CStringVar& s) { s.Format("Msg: %!s|\nnext %s") << "one\ntwo\r\nthree" << "a\nb"; },
     "Msg: one\n     two\n     three|\nnext a\nb"},
    {"EachLineIsAlignedOnItsOwn", [](CStringVar& s) { s.Format("> %!-.4s|") << "a\nbbbbbb"; }, "> a...\n  bbbb|"},
    {"ATrailingLineEndAddsNoIndentedEmptyLine",
     [](CStringVar& s) { s.Format("  %!s\n") << "first\nsecond\n"; },
     "  first\n  second\n\n"},
};
INSTANTIATE_TEST_SUITE_P(FormatIndentation, FormatWrites, ::testing::ValuesIn(kIndentation), CaseName);

TEST(FormatIndentation, TheColumnContinuesFromTextAlreadyInTheString) {
    CStringVar s("ab\ncd");
    s.Format("%!s") << "x\ny";
    EXPECT_EQ("ab\ncdx\n  y", Text(s));
}

TEST(FormatIndentation, LeftMarginIsTheLeastIndent) {
    CChrStreamBuffer b;
    b.SetLeftMargin(4);
    b.Format("%!s|%!s") << "a\nb" << "c\nd";
    EXPECT_EQ("    a\n    b|c\n      d", std::string(b.GetBuffer()));
}

// ---------------------------------------------------------------------------------------------
// Broken formats

TEST(FormatErrors, ArgumentOfTheWrongKindIsABadFormat) {
    CStringVar s;
    EXPECT_EQ(kBadFormat, StatusOf([&] { s.Format("%s") << 5; }));
    EXPECT_EQ(kBadFormat, StatusOf([&] { s.Format("%d") << "x"; }));
    EXPECT_EQ(kBadFormat, StatusOf([&] { s.Format("%c") << std::string("x"); }));
    EXPECT_EQ(kBadFormat, StatusOf([&] { s.Format("%x") << CSubStringRef("x"); }));
    EXPECT_EQ(kBadFormat, StatusOf([&] { s.Format("%p") << 1; }));
    EXPECT_EQ(kBadFormat, StatusOf([&] { s.Format("%*s") << "x"; }));
    EXPECT_EQ(kBadFormat, StatusOf([&] { s.Format("%h") << static_cast<const void*>(&s); }));
}

TEST(FormatErrors, MalformedDirectivesAreBadFormatsWhenTheParserReachesThem) {
    const char* broken[] = {"abc %", "%q", "%-", "%-x", "%-x5", "%.s", "%.1.2.3.4.5.6d", "%!", "%0", "%.",
                            "%70000d", "%.70000d"};
    for (const char* format : broken) {
        CStringVar s;
        EXPECT_EQ(kBadFormat, StatusOf([&] { s.Format(format) << 1; })) << format;
    }
    CStringVar five;
    five.Format("%.5.4.3.2.1d") << 9;
    EXPECT_EQ("00009", Text(five));
}

TEST(FormatErrors, StarValuesOutOfRangeAreBadFormats) {
    CStringVar s;
    EXPECT_EQ(kBadFormat, StatusOf([&] { s.Format("%-x*s") << 70000 << "a"; }));
    EXPECT_EQ(kBadFormat, StatusOf([&] { s.Format("%-x*s") << -1 << "a"; }));
    EXPECT_EQ(kBadFormat, StatusOf([&] { s.Format("%.*s") << -5 << "a"; }));
}

TEST(FormatErrors, TheErrorLogNamesTheStatusTextAndTheFormatsArea) {
    CStringVar s;
    ASSERT_EQ(kBadFormat, StatusOf([&] { s.Format("%d") << "x"; }));
    const Exceptions::CErrorLog& log = Exceptions::ThreadErrorLog();
    EXPECT_EQ(kBadFormat, log.GetError());
    ASSERT_NE(nullptr, log.GetErrorMsg(0));
    EXPECT_STREQ("Bad format", log.GetErrorMsg(0));
    const Exceptions::SOURCE_INFO* site = log.GetSrcInfo(0);
    ASSERT_NE(nullptr, site);
    EXPECT_STREQ("Src/KelKrnl", site->file);
    EXPECT_GT(site->line, 0u);
}

TEST(FormatErrors, DifferentBrokenRulesReportDifferentSites) {
    CStringVar s;
    ASSERT_EQ(kBadFormat, StatusOf([&] { s.Format("%d") << "x"; }));
    unsigned int typeLine = Exceptions::ThreadErrorLog().GetSrcInfo(0)->line;
    ASSERT_EQ(kBadFormat, StatusOf([&] { s.Format("%q") << 1; }));
    unsigned int letterLine = Exceptions::ThreadErrorLog().GetSrcInfo(0)->line;
    EXPECT_NE(typeLine, letterLine);
}

TEST(FormatErrors, TheStringStaysUsableAndKeepsTheTextBeforeTheError) {
    CStringVar s;
    EXPECT_EQ(kBadFormat, StatusOf([&] { s.Format("a %d b") << "x" << 5 << "more"; }));
    EXPECT_EQ("a ", Text(s));
    s.Format("| %05d") << 7;
    EXPECT_EQ("a | 00007", Text(s));
}

TEST(FormatErrors, TheBufferStaysUsableAfterAnError) {
    CChrStreamBuffer b;
    EXPECT_EQ(kBadFormat, StatusOf([&] { b.Format("x%sy") << 1; }));
    EXPECT_EQ("x", std::string(b.GetBuffer()));
    b.Format("%d!") << 2;
    EXPECT_EQ("x2!", std::string(b.GetBuffer()));
}

TEST(FormatErrors, AnErrorInsideAnExceptionTextKeepsTheRaisedStatus) {
    unsigned int status = StatusOf([] { KEL_RAISE(0x20010036u, "limit %d reached", "not a number"); });
    EXPECT_EQ(0x20010036u, status);
    const Exceptions::CErrorLog& log = Exceptions::ThreadErrorLog();
    EXPECT_EQ(0x20010036u, log.GetError());
    ASSERT_NE(nullptr, log.GetErrorMsg(0));
    EXPECT_STREQ("limit ", log.GetErrorMsg(0));
}
