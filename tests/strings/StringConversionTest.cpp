// Text conversions (UTF-8 from and to single-byte and wide text, with the failure transport
// of CopyFromUTF8), the free helpers (tokenize, join, hex dump) and the bridges to the format
// streams and language strings.
#include <kel/Exceptions.h>
#include <kel/LanguageSupport.h>
#include <kel/OutputStreams.h>
#include <kel/Strings.h>
#include <kel/Threading.h>

#include <gtest/gtest.h>

#include <iomanip>
#include <sstream>
#include <string>
#include <vector>

namespace {

using KEL::Exceptions::CKelException;
using KEL::Strings::CStringVar;
using KEL::Strings::CSubStringRef;
using KEL::Strings::TString;
using KEL::Threading::CThrowState;
constexpr size_t POSERR = CSubStringRef::POSERR;
constexpr unsigned int kBadUtf8 = 0x20010060u;

std::string Str(const CSubStringRef& v) { return std::string(v.data(), v.Length()); }

// Keeps the thread's throw mode as the test found it.
class ThrowModeGuard {
public:
    explicit ThrowModeGuard(unsigned int mode) : m_uPrevious(CThrowState::SetThrow(mode)) {}
    ~ThrowModeGuard() { CThrowState::SetThrow(m_uPrevious); }

private:
    unsigned int m_uPrevious;
};

// ---------------------------------------------------------------------------------------------

TEST(StringUtf8Length, CountsCodePointsOfAllForms) {
    EXPECT_EQ(CSubStringRef("").UTF8Length(), 0u);
    EXPECT_EQ(CSubStringRef("abc").UTF8Length(), 3u);
    EXPECT_EQ(CSubStringRef("a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80").UTF8Length(), 4u);
    EXPECT_EQ(CSubStringRef("\xF8\x88\x80\x80\x80").UTF8Length(), 1u);     // five-byte form
    EXPECT_EQ(CSubStringRef("\xFC\x84\x80\x80\x80\x80").UTF8Length(), 1u); // six-byte form
    EXPECT_EQ(CSubStringRef("a\0b", 3).UTF8Length(), 3u);
    EXPECT_EQ(KEL::Strings::UTF8length("\xC3\xA9t\xC3\xA9"), 3u);
}

TEST(StringUtf8Length, TruncatedOrBrokenSequencesGivePOSERR) {
    EXPECT_EQ(CSubStringRef("\xC3").UTF8Length(), POSERR);
    EXPECT_EQ(CSubStringRef("ab\xE2\x82").UTF8Length(), POSERR);
    EXPECT_EQ(CSubStringRef("\xF0\x9F\x98").UTF8Length(), POSERR);
    EXPECT_EQ(CSubStringRef("\xFC\x84\x80\x80\x80").UTF8Length(), POSERR);
    // The view ends inside the sequence even though the bytes go on behind it.
    EXPECT_EQ(CSubStringRef("\xC3\xA9", 1).UTF8Length(), POSERR);
    EXPECT_EQ(CSubStringRef("\xC3" "A").UTF8Length(), POSERR);      // missing continuation
    EXPECT_EQ(CSubStringRef("\xE2\x82" "A").UTF8Length(), POSERR);  // missing second one
    EXPECT_EQ(CSubStringRef("\xFE\x80\x80").UTF8Length(), POSERR);  // 1111111x
    EXPECT_EQ(CSubStringRef("\xFF").UTF8Length(), POSERR);
    EXPECT_EQ(CSubStringRef("a\x80" "b").UTF8Length(), POSERR);     // stray continuation
    EXPECT_EQ(KEL::Strings::UTF8length(std::string("\xC3")), POSERR);
}

TEST(StringUtf8Length, BufferSizeOfLatin1Text) {
    EXPECT_EQ(CSubStringRef("").UTF8BufferSize(), 0u);
    EXPECT_EQ(CSubStringRef("abc").UTF8BufferSize(), 3u);
    EXPECT_EQ(CSubStringRef("a\xE9\xFF\x80").UTF8BufferSize(), 7u);
    EXPECT_EQ(CSubStringRef("\x7F").UTF8BufferSize(), 1u);
}

// ---------------------------------------------------------------------------------------------

TEST(StringFromUtf8, TwoByteFormsBecomeOneByte) {
    CStringVar s;
    EXPECT_EQ(s.CopyFromUTF8(CSubStringRef("\xC3\xA9")), 1u);
    EXPECT_EQ(s.Length(), 1u);
    EXPECT_EQ(static_cast<unsigned char>(s[0u]), 0xE9);
    EXPECT_EQ(s.CopyFromUTF8(CSubStringRef("caf\xC3\xA9 na\xC3\xAFve")), 1u);
    EXPECT_STREQ(s.C_Str(), "caf\xE9 na\xEFve");
}

TEST(StringFromUtf8, CodePointsPastU00FFLoseTheirUpperBits) {
    CStringVar s("old");
    EXPECT_EQ(s.CopyFromUTF8(CSubStringRef("\xC4\x80")), 1u); // U+0100
    EXPECT_EQ(s.Length(), 1u);
    EXPECT_EQ(s.data()[0], '\0');
    EXPECT_EQ(s.CopyFromUTF8(CSubStringRef("\xDF\xBF")), 1u); // U+07FF -> 0xFF
    EXPECT_EQ(static_cast<unsigned char>(s.data()[0]), 0xFF);
}

TEST(StringFromUtf8, EmptySourceEmptiesTheString) {
    CStringVar s("something");
    EXPECT_EQ(s.CopyFromUTF8(CSubStringRef("")), 1u);
    EXPECT_EQ(s.Length(), 0u);
    EXPECT_STREQ(s.C_Str(), "");
}

TEST(StringFromUtf8, ThreeByteFormIsReturnedAsStatusWhenThrowModeIsOff) {
    ThrowModeGuard mode(0);
    CStringVar s("kept");
    EXPECT_EQ(s.CopyFromUTF8(CSubStringRef("a\xE2\x82\xAC")), kBadUtf8);
    EXPECT_EQ(KEL::Exceptions::ThreadErrorLog().GetError(), kBadUtf8);
    EXPECT_STREQ(s.C_Str(), "kept"); // nothing is written before the text is accepted
    EXPECT_EQ(s.CopyFromUTF8(CSubStringRef("\xC3")), kBadUtf8);
    EXPECT_EQ(KEL::Exceptions::ThreadErrorLog().GetError(), kBadUtf8);
    EXPECT_EQ(s.CopyFromUTF8(CSubStringRef("\xF0\x9F\x98\x80")), kBadUtf8);
    EXPECT_STREQ(s.C_Str(), "kept");
}

TEST(StringFromUtf8, ThrowModeOnThrowsTheStatus) {
    ThrowModeGuard mode(1);
    CStringVar s;
    try {
        s.CopyFromUTF8(CSubStringRef("\xE2\x82\xAC"));
        ADD_FAILURE() << "no exception";
    } catch (const CKelException& e) {
        EXPECT_EQ(e.GetCode(), kBadUtf8);
    }
    EXPECT_EQ(KEL::Exceptions::ThreadErrorLog().GetError(), kBadUtf8);
    EXPECT_EQ(CThrowState::GetThrow(), 1u); // the boundary puts the mode back
    EXPECT_EQ(s.CopyFromUTF8(CSubStringRef("ok")), 1u);
}

TEST(StringFromUtf8, ConvertingTheStringsOwnText) {
    CStringVar s("x\xC3\xA9y\xC3\xA8z");
    EXPECT_EQ(s.CopyFromUTF8(s), 1u);
    EXPECT_STREQ(s.C_Str(), "x\xE9y\xE8z");
    CStringVar t("ab\xC3\xA9");
    EXPECT_EQ(t.CopyFromUTF8(t(2)), 1u);
    EXPECT_STREQ(t.C_Str(), "\xE9");
}

TEST(StringAsUtf8, Latin1RoundTripsThroughUtf8ForEveryByte) {
    std::string all;
    for (int c = 1; c < 256; ++c) all += static_cast<char>(c);
    CStringVar utf8;
    utf8.CopyAsUTF8(CSubStringRef(all));
    EXPECT_EQ(utf8.Length(), 127u + 2u * 128u);
    EXPECT_EQ(utf8.UTF8Length(), 255u);
    CStringVar back;
    ASSERT_EQ(back.CopyFromUTF8(utf8), 1u);
    EXPECT_EQ(Str(back), all);
}

TEST(StringAsUtf8, ExactBytes) {
    CStringVar s;
    s.CopyAsUTF8(CSubStringRef("\xE9\x80\xFF" "a"));
    EXPECT_EQ(Str(s), "\xC3\xA9\xC2\x80\xC3\xBF" "a");
    s.CopyAsUTF8(CSubStringRef(""));
    EXPECT_EQ(s.Length(), 0u);
    CStringVar own("\xE9t\xE9");
    own.CopyAsUTF8(own); // the result is longer than the source it overwrites
    EXPECT_EQ(Str(own), "\xC3\xA9t\xC3\xA9");
}

TEST(StringAsUtf8, WideTextAsCodePoints) {
    CStringVar s;
    s.CopyAsUTF8(L"a\u00E9\u20AC\U0001F600");
    EXPECT_EQ(Str(s), "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");
    EXPECT_EQ(s.UTF8Length(), 4u);
    const wchar_t big[] = {static_cast<wchar_t>(0x7FFFFFFF), static_cast<wchar_t>(0x200000), 0};
    s.CopyAsUTF8(big);
    EXPECT_EQ(Str(s), "\xFD\xBF\xBF\xBF\xBF\xBF\xF8\x88\x80\x80\x80");
    EXPECT_EQ(s.UTF8Length(), 2u);
    const wchar_t negative[] = {static_cast<wchar_t>(-1), 0};
    s.CopyAsUTF8(negative);
    EXPECT_EQ(Str(s), "\xEF\xBF\xBD");
    s.CopyAsUTF8(static_cast<const wchar_t*>(nullptr));
    EXPECT_EQ(s.Length(), 0u);
}

TEST(StringAsUtf8, StandardStringHelpers) {
    std::string out = "stale";
    KEL::Strings::ToUTF8(std::string("\xE9t\xE9"), out);
    EXPECT_EQ(out, "\xC3\xA9t\xC3\xA9");
    std::string same = "\xFC";
    KEL::Strings::ToUTF8(same, same);
    EXPECT_EQ(same, "\xC3\xBC");
    KEL::Strings::ToUTF8(L"\u20AC", out);
    EXPECT_EQ(out, "\xE2\x82\xAC");
    KEL::Strings::ToUTF8(static_cast<const wchar_t*>(nullptr), out);
    EXPECT_EQ(out, "");
}

// ---------------------------------------------------------------------------------------------

TEST(StringHelpers, TokenizeGivesNoEmptyTokens) {
    using V = std::vector<std::string>;
    EXPECT_EQ(KEL::Strings::tokenizeString("  a,,b c ", " ,"), (V{"a", "b", "c"}));
    EXPECT_EQ(KEL::Strings::tokenizeString("abc", ","), (V{"abc"}));
    EXPECT_EQ(KEL::Strings::tokenizeString(",,,", ","), V{});
    EXPECT_EQ(KEL::Strings::tokenizeString("", ","), V{});
    EXPECT_EQ(KEL::Strings::tokenizeString(nullptr, ","), V{});
    EXPECT_EQ(KEL::Strings::tokenizeString("a;b", nullptr), (V{"a;b"}));
    EXPECT_EQ(KEL::Strings::tokenizeString("x\xE9y", "\xE9"), (V{"x", "y"}));
}

TEST(StringHelpers, JoinFromAnIndex) {
    std::vector<std::string> parts = {"a", "b", "c"};
    EXPECT_EQ(KEL::Strings::joinString(parts, 0), "abc");
    EXPECT_EQ(KEL::Strings::joinString(parts, 1), "bc");
    EXPECT_EQ(KEL::Strings::joinString(parts, 2), "c");
    EXPECT_EQ(KEL::Strings::joinString(parts, 3), "");
    EXPECT_EQ(KEL::Strings::joinString(parts, 100), "");
    EXPECT_EQ(KEL::Strings::joinString({}, 0), "");
}

std::string Dump(const std::string& data, size_t perLine) {
    std::stringstream out;
    KEL::Strings::ByteStreamAppend(data.data(), data.size(), out, perLine);
    return out.str();
}

TEST(StringHelpers, HexDumpOnOneLineHasNoPrefix) {
    EXPECT_EQ(Dump(std::string("\x00\x01\xAB\xFF", 4), 16), "00 01 ab ff ");
    EXPECT_EQ(Dump(std::string(4, 'A'), 4), "41 41 41 41 "); // exactly one line
    EXPECT_EQ(Dump("", 16), "");
}

TEST(StringHelpers, HexDumpOverSeveralLinesPrefixesEachLineWithItsRange) {
    std::string data;
    for (int i = 0; i < 20; ++i) data += static_cast<char>(i);
    EXPECT_EQ(Dump(data, 16), "0x00 - 0x10: 00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f \n"
                              "0x10 - 0x20: 10 11 12 13 ");
    EXPECT_EQ(Dump("abcde", 2), "0x00 - 0x02: 61 62 \n0x02 - 0x04: 63 64 \n0x04 - 0x06: 65 ");
    std::string big(0x110, 'z');
    std::string dump = Dump(big, 0x100);
    EXPECT_EQ(dump.substr(0, 17), "0x00 - 0x100: 7a ");
    EXPECT_EQ(dump.find("\n0x100 - 0x200: 7a "), 14u + 0x100 * 3);
    EXPECT_EQ(dump.size(), 14u + 0x100 * 3 + 1 + 15 + 0x10 * 3);
}

TEST(StringHelpers, HexDumpAppendsAndLeavesTheStreamAsItWas) {
    std::stringstream out;
    out << "x=" << 255 << ' ';
    KEL::Strings::ByteStreamAppend("\x10", 1, out, 8);
    out << 255 << ' ';
    out.width(4);
    out << 7;
    EXPECT_EQ(out.str(), "x=255 10 255    7");
}

TEST(StringHelpers, HexDumpLayoutIgnoresTheCallersStreamFlags) {
    std::stringstream out;
    out << std::uppercase << std::showbase << std::left << std::setfill('*');
    KEL::Strings::ByteStreamAppend("\x0A\xBC\x01", 3, out, 2);
    EXPECT_EQ(out.str(), "0x00 - 0x02: 0a bc \n0x02 - 0x04: 01 ");
    EXPECT_TRUE(out.flags() & std::ios_base::uppercase);
    EXPECT_TRUE(out.flags() & std::ios_base::left);
    EXPECT_EQ(out.fill(), '*');
}

// ---------------------------------------------------------------------------------------------

TEST(StringBridges, FormatAppendsToTheString) {
    CStringVar s("n=");
    s.Format("%d, %s") << 42 << "ok";
    EXPECT_STREQ(s.C_Str(), "n=42, ok");
    TString<32> t;
    t.Format("%05d|%- 6s|") << 7 << "ab";
    EXPECT_STREQ(t.C_Str(), "00007|ab    |");
}

TEST(StringBridges, ResortedFieldsAssignAndAppendInTheirOrder) {
    KEL::Output_Streams::CFormatResortBuffer fields;
    fields.Format("%s %d", "%2-%1") << "abc" << 12;
    CStringVar s("old");
    s = fields;
    EXPECT_STREQ(s.C_Str(), "12-abc ");
    s += fields;
    EXPECT_STREQ(s.C_Str(), "12-abc 12-abc ");
}

TEST(StringBridges, LanguageStringsAreConvertedWhenTheyAreUtf8) {
    static const char* const kStrings[] = {"caf\xC3\xA9", "plain \xE9"};
    KEL::Language_Support::CLngFile utf8File("test", KEL::Language_Support::Default_Language_ID, "English", 1,
                                             kStrings, 2);
    KEL::Language_Support::CLngFile nativeFile("test", KEL::Language_Support::Default_Language_ID, "English", 0,
                                               kStrings, 2);
    KEL::Language_Support::CLanguageStrg converted(utf8File.GetDefaultLngData(), 0);
    KEL::Language_Support::CLanguageStrg native(nativeFile.GetDefaultLngData(), 1);

    CStringVar a(converted);
    EXPECT_STREQ(a.C_Str(), "caf\xE9");
    a += native;
    EXPECT_STREQ(a.C_Str(), "caf\xE9plain \xE9");
    a = native;
    EXPECT_STREQ(a.C_Str(), "plain \xE9");
    a += converted;
    EXPECT_STREQ(a.C_Str(), "plain \xE9" "caf\xE9");
    TString<512> t(converted);
    EXPECT_STREQ(t.C_Str(), "caf\xE9");
}

} // namespace
