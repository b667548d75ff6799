// Views and windows: comparison (with its view/C-string asymmetry), searching, spans, the
// writable window that replaces part of its parent, copies and owning pointers.
#include <kel/Strings.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

using KEL::Strings::CStringRef;
using KEL::Strings::CStringRefPtr;
using KEL::Strings::CStringVar;
using KEL::Strings::CStringVarPtr;
using KEL::Strings::CSubStringRef;
using KEL::Strings::TString;
constexpr size_t POSERR = CSubStringRef::POSERR;

std::string Str(const CSubStringRef& v) { return std::string(v.data(), v.Length()); }

TEST(StringCompare, ViewAgainstCStringAndViewAgainstViewDisagreeOnPrefixes) {
    CSubStringRef ab("abcdef", 2);
    EXPECT_EQ(ab.Compare("abc"), 1);
    EXPECT_EQ(ab.Compare(CSubStringRef("abc")), -1);
    EXPECT_EQ(CSubStringRef("abc").Compare(ab), 1);
    EXPECT_EQ(ab.Compare("ab"), 0);
    EXPECT_EQ(ab.Compare(CSubStringRef("ab")), 0);
    // The other way round both agree: the longer view is greater.
    EXPECT_EQ(CSubStringRef("abc").Compare("ab"), 1);
}

TEST(StringCompare, FirstDifferenceDecidesAsUnsignedBytes) {
    EXPECT_EQ(CSubStringRef("abd").Compare("abc"), 1);
    EXPECT_EQ(CSubStringRef("abc").Compare("abd"), -1);
    EXPECT_EQ(CSubStringRef("a\xE9").Compare(CSubStringRef("az")), 1);
    EXPECT_EQ(CSubStringRef("a\xE9").Compare("az"), 1);
    EXPECT_EQ(CSubStringRef("").Compare(""), 0);
    EXPECT_EQ(CSubStringRef("").Compare("x"), 1);
    EXPECT_EQ(CSubStringRef("").Compare(static_cast<const char*>(nullptr)), 0);
}

TEST(StringCompare, IgnoringCase) {
    EXPECT_EQ(CSubStringRef("HeLLo").Compare("hello", CSubStringRef::IGNORE_CASE), 0);
    EXPECT_EQ(CSubStringRef("HeLLo").Compare(CSubStringRef("hELLO"), 1), 0);
    EXPECT_NE(CSubStringRef("HeLLo").Compare("hello"), 0);
    EXPECT_EQ(CSubStringRef("ABC").Compare("abd", 1), -1);
    // '[' lies between the upper and lower case letters: folding must go to lower case.
    EXPECT_EQ(CSubStringRef("A").Compare("[", 1), 1);
}

TEST(StringCompare, CountedComparisonLooksAtTheFirstCharactersOnly) {
    CSubStringRef v("abcdef");
    EXPECT_EQ(v.Compare(3, "abcxyz"), 0);
    EXPECT_EQ(v.Compare(3, CSubStringRef("abcxyz")), 0);
    EXPECT_EQ(v.Compare(4, "abcxyz"), -1);
    EXPECT_EQ(v.Compare(3, "ab"), 1);
    EXPECT_EQ(CSubStringRef("ab").Compare(3, "abc"), 1); // the view ends before the count
    EXPECT_EQ(CSubStringRef("ab").Compare(3, CSubStringRef("abc")), -1);
    EXPECT_EQ(v.Compare(2, "AB", 1), 0);
}

TEST(StringCompare, EmbeddedNulInTheViewWhereTheCStringEnds) {
    CSubStringRef v("a\0b", 3);
    EXPECT_EQ(v.Compare("a"), 1);
}

TEST(StringCompare, OperatorsFollowCompare) {
    CStringVar s("abc");
    EXPECT_TRUE(s == "abc");
    EXPECT_TRUE(s != "ab");
    EXPECT_TRUE(s < CStringRef("abd"));
    EXPECT_TRUE(s > "abb");
    EXPECT_TRUE(CSubStringRef("x") == 'x');
    EXPECT_FALSE(CSubStringRef("xy") == 'x');
    EXPECT_TRUE(CStringRef("ab") > "abc"); // the asymmetry again
}

// ---------------------------------------------------------------------------------------------

TEST(StringFind, CharacterSearchEdges) {
    CSubStringRef v("abcabc");
    EXPECT_EQ(v.Find('z'), POSERR);
    EXPECT_EQ(v.Find('a'), 0u);
    EXPECT_EQ(v.Find('a', 1), 3u);
    EXPECT_EQ(v.Find('c', 5), 5u);
    EXPECT_EQ(v.Find('a', 6), POSERR); // at the length: nothing left
    EXPECT_EQ(v.Find('a', 100), POSERR);
    EXPECT_EQ(v.Find(0xE9 - 256), POSERR);
    EXPECT_EQ(CSubStringRef("x\xE9y").Find(0xE9), 1u);
    EXPECT_EQ(CSubStringRef("ab\0c", 4).Find('\0'), 2u);
    EXPECT_EQ(CSubStringRef("abcX", 3).Find('X'), POSERR); // not past the view
}

TEST(StringFind, FindLastSearchesFromTheEndAndStopsAtPos) {
    CSubStringRef v("abcabc");
    EXPECT_EQ(v.FindLast('a'), 3u);
    EXPECT_EQ(v.FindLast('a', 3), 3u);
    EXPECT_EQ(v.FindLast('a', 4), POSERR);
    EXPECT_EQ(v.FindLast('c', 5), 5u);
    EXPECT_EQ(v.FindLast('a', 6), POSERR);
    EXPECT_EQ(v.FindLast('z'), POSERR);
    EXPECT_EQ(CSubStringRef("").FindLast('a'), POSERR);
    EXPECT_EQ(CSubStringRef("abca", 3).FindLast('a'), 0u);
}

TEST(StringFind, TextSearch) {
    CSubStringRef v("abcabcab");
    EXPECT_EQ(v.Find("ca"), 2u);
    EXPECT_EQ(v.Find("abc", 1), 3u);
    EXPECT_EQ(v.Find("cab", 3), 5u); // ends exactly at the end
    EXPECT_EQ(v.Find("cabd"), POSERR);
    EXPECT_EQ(v.Find("abcabcabc"), POSERR);
    EXPECT_EQ(v.Find(""), 0u);
    EXPECT_EQ(v.Find("", 8), 8u);
    EXPECT_EQ(v.Find("", 9), POSERR);
    EXPECT_EQ(v.Find(static_cast<const char*>(nullptr)), POSERR);
    EXPECT_EQ(CSubStringRef("aaab").Find("aab"), 1u);
    EXPECT_EQ(CSubStringRef("x\0yz", 4).Find(CSubStringRef("\0y", 2)), 1u);
    EXPECT_EQ(CSubStringRef("abcab", 4).Find("ab", 1), POSERR); // not past the view
}

TEST(StringFind, Spans) {
    CSubStringRef v("  \t x y");
    EXPECT_EQ(v.SpanIncluding(" \t"), 4u);
    EXPECT_EQ(v.SpanExcluding("xy"), 4u);
    EXPECT_EQ(v.SpanExcluding("q"), v.Length());
    EXPECT_EQ(v.SpanIncluding(""), 0u);
    EXPECT_EQ(CSubStringRef("\xE9\xE9z").SpanIncluding("\xE9"), 2u);
    EXPECT_EQ(CSubStringRef("   ", 2).SpanIncluding(" "), 2u);
}

TEST(StringWindow, ReadOnlyWindowsClipAndFallBackToTheStart) {
    CSubStringRef v("hello");
    EXPECT_EQ(Str(v(1)), "ello");
    EXPECT_EQ(Str(v(5)), "");
    EXPECT_EQ(Str(v(1, 3)), "ell");
    EXPECT_EQ(Str(v(3, 100)), "lo");
    EXPECT_EQ(Str(v(2, POSERR)), "llo");
    CSubStringRef beyond = v(6, 2);
    EXPECT_EQ(beyond.Length(), 0u);
    EXPECT_EQ(beyond.data(), v.data());
}

// ---------------------------------------------------------------------------------------------

TEST(StringWindow, AssignmentReplacesTheWindowAndMovesTheRest) {
    CStringVar s("Hello World");
    s(6, 5) = "Universe";
    EXPECT_STREQ(s.C_Str(), "Hello Universe");
    s(0, 5) = "Hi";
    EXPECT_STREQ(s.C_Str(), "Hi Universe");
    s(2) = KEL::Misc::Null;
    EXPECT_STREQ(s.C_Str(), "Hi");
    s(2, 0) = '!';
    EXPECT_STREQ(s.C_Str(), "Hi!");
    s(0, 0) = CStringRef(">> ");
    EXPECT_STREQ(s.C_Str(), ">> Hi!");
    EXPECT_EQ(s.Length(), 6u);
}

TEST(StringWindow, GrowingReplacementMovesTheParentToTheHeap) {
    CStringVar s("abc");
    s(1, 1) = "0123456789";
    EXPECT_STREQ(s.C_Str(), "a0123456789c");
    EXPECT_EQ(s.Capacity(), 15u); // 2 * 7 + 1
    TString<32> t("head|tail");
    t(4, 1) = std::string(40, '=').c_str();
    EXPECT_EQ(std::string(t.C_Str()), "head" + std::string(40, '=') + "tail");
}

TEST(StringWindow, ReplacementFromTheSameStringIsSafe) {
    CStringVar s("0123456789");
    s(0, 2) = s(5, 5);
    EXPECT_STREQ(s.C_Str(), "5678923456789");
    CStringVar t("abcdefg"); // inline, full
    t(7, 0) = t(0, 7);       // doubling while the source is the inline buffer
    EXPECT_STREQ(t.C_Str(), "abcdefgabcdefg");
}

TEST(StringWindow, AssignedWindowCoversTheNewText) {
    CStringVar s("a-b");
    auto w = s(1, 1);
    w = "===";
    EXPECT_EQ(Str(w), "===");
    w = "+";
    EXPECT_STREQ(s.C_Str(), "a+b");
    w.Set('x', 3); // the window grows by two
    EXPECT_STREQ(s.C_Str(), "axxxb");
    w.Set('y', 1);
    EXPECT_STREQ(s.C_Str(), "ayxxb");
}

TEST(StringWindow, CaseSlashesAndSetStayInsideTheWindow) {
    CStringVar s("abc/def/ghi");
    s(4, 3).ToUpper();
    EXPECT_STREQ(s.C_Str(), "abc/DEF/ghi");
    s(0, 5).FixSlashes();
    EXPECT_STREQ(s.C_Str(), "abc\\DEF/ghi");
    s(4, 3).ToLower();
    EXPECT_STREQ(s.C_Str(), "abc\\def/ghi");
    s(8).Set('*');
    EXPECT_STREQ(s.C_Str(), "abc\\def/***");
    EXPECT_EQ(s.Length(), 11u);
}

// ---------------------------------------------------------------------------------------------

TEST(StringCopies, DupGivesAnIndependentTerminatedCopy) {
    CStringVar s("abcdef");
    CStringRefPtr copy = s(1, 3).Dup();
    ASSERT_TRUE(copy.IsValid());
    EXPECT_STREQ(copy->C_Str(), "bcd");
    EXPECT_EQ(copy->Length(), 3u);
    s = "zzzzzz";
    EXPECT_STREQ(copy->C_Str(), "bcd");
}

TEST(StringCopies, DupWithExtraRoom) {
    CStringVarPtr copy = CSubStringRef("abc").Dup(100);
    ASSERT_TRUE(copy.IsValid());
    EXPECT_STREQ(copy->C_Str(), "abc");
    EXPECT_GE(copy->Capacity(), 103u);
    const char* before = copy->data();
    copy->Set('x', 103);
    EXPECT_EQ(copy->data(), before);
}

TEST(StringCopies, OwningPointersTransferOwnership) {
    CStringRefPtr a = CSubStringRef("one").Dup();
    CStringRefPtr b(a);
    EXPECT_FALSE(a.IsValid());
    ASSERT_TRUE(b.IsValid());
    CStringRefPtr c;
    c = std::move(b);
    EXPECT_FALSE(b.IsValid()); // NOLINT(bugprone-use-after-move)
    EXPECT_STREQ(c->C_Str(), "one");
    c = KEL::Misc::Null;
    EXPECT_FALSE(c.IsValid());

    CStringRefPtr plain(new CStringRef("literal"));
    plain.Delete(); // a view made by plain new is released the same way
    EXPECT_FALSE(plain.IsValid());

    CStringVarPtr v(new CStringVar("abc"));
    CStringVar* raw = v.Release();
    EXPECT_FALSE(v.IsValid());
    CStringVarPtr w(raw);
    *w += "def";
    EXPECT_STREQ(w->C_Str(), "abcdef");
}

} // namespace
