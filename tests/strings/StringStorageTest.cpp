// Storage of CStringVar and TString<N>: where the text lives, the exact capacities of the
// growth rule, the size limit, running out of memory, hand-over and the alias.
#include <kel/Exceptions.h>
#include <kel/Misc.h>
#include <kel/Strings.h>
#include <kel/Threading.h>

#include "../common/TraceCapture.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

// Requests far beyond any heap must come back as a null pointer under the sanitizers too, so
// that the out-of-memory paths can be driven.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }
extern "C" const char* __tsan_default_options() { return "allocator_may_return_null=1"; }

namespace {

using KEL::Exceptions::CKelException;
using KEL::Strings::CStringAlias;
using KEL::Strings::CStringVar;
using KEL::Strings::CSubStringRef;
using KEL::Strings::TString;

bool TextIsInside(const void* object, size_t size, const CStringVar& s) {
    const char* p = s.data();
    const char* o = static_cast<const char*>(object);
    return p >= o && p < o + size;
}

// Appends `count` copies of `ch` one character at a time, as most callers grow strings.
void AppendChars(CStringVar& s, char ch, size_t count) {
    for (size_t i = 0; i < count; ++i) s += ch;
}

// The status a call raises (0 when it raises nothing).
template <class F>
unsigned int RaisedStatus(F&& f) {
    try {
        f();
    } catch (const CKelException& e) {
        return e.GetCode();
    }
    return 0;
}

// A string over text it does not own (capacity 0), as the storage model allows.
class ForeignText : public CStringVar {
public:
    explicit ForeignText(const char* text) {
        StoreInlineCapacity(m_nCapacity);
        m_pData = text;
        m_nLength = std::strlen(text);
        m_nCapacity = 0;
    }
    using CStringVar::operator=;
};

// ---------------------------------------------------------------------------------------------

TEST(StringInline, FreshStringIsEmptyInlineWithCapacitySeven) {
    CStringVar s;
    EXPECT_EQ(s.Length(), 0u);
    EXPECT_EQ(s.Capacity(), 7u);
    EXPECT_STREQ(s.C_Str(), "");
    EXPECT_TRUE(TextIsInside(&s, sizeof s, s));
}

TEST(StringInline, OneCharacterStaysInline) {
    CStringVar s;
    s += 'x';
    EXPECT_EQ(s.Capacity(), 7u);
    EXPECT_TRUE(TextIsInside(&s, sizeof s, s));
    EXPECT_STREQ(s.C_Str(), "x");
}

TEST(StringInline, SevenCharactersFitTheEighthMovesToTheHeap) {
    CStringVar s("1234567");
    EXPECT_TRUE(TextIsInside(&s, sizeof s, s));
    EXPECT_EQ(s.Capacity(), 7u);
    s += '8';
    EXPECT_FALSE(TextIsInside(&s, sizeof s, s));
    EXPECT_EQ(s.Capacity(), 15u); // 2 * 7 + 1 = 15, block of 16
    EXPECT_STREQ(s.C_Str(), "12345678");
}

TEST(StringInline, TString32Holds39CharactersAndMovesWithThe40th) {
    TString<32> s;
    AppendChars(s, 'a', 39);
    EXPECT_EQ(s.Capacity(), 39u);
    EXPECT_TRUE(TextIsInside(&s, sizeof s, s));
    s += 'b';
    EXPECT_FALSE(TextIsInside(&s, sizeof s, s));
    EXPECT_EQ(s.Capacity(), 79u);
    EXPECT_EQ(s.Length(), 40u);
    EXPECT_EQ(std::string(s.data(), s.Length()), std::string(39, 'a') + "b");
}

template <class T>
class TStringBoundary : public ::testing::Test {};
template <size_t N>
struct Extra {
    static constexpr size_t value = N;
};
using Sizes = ::testing::Types<Extra<32>, Extra<64>, Extra<128>, Extra<256>, Extra<512>, Extra<2048>>;
// Names the instances after their extra inline bytes (TStringBoundary/N32, ...).
struct ExtraName {
    template <class T>
    static std::string GetName(int) {
        return "N" + std::to_string(T::value);
    }
};
TYPED_TEST_SUITE(TStringBoundary, Sizes, ExtraName);

TYPED_TEST(TStringBoundary, FullInlineBufferThenOneMoreGoesToTheHeapWithoutLoss) {
    constexpr size_t N = TypeParam::value;
    TString<N> s;
    std::string expect;
    for (size_t i = 0; i < N + 7; ++i) expect += static_cast<char>('a' + i % 26);
    s = expect.c_str();
    EXPECT_EQ(s.Capacity(), N + 7);
    EXPECT_TRUE(TextIsInside(&s, sizeof s, s));
    EXPECT_EQ(s.Length(), N + 7);
    EXPECT_EQ(std::string(s.C_Str()), expect); // the terminator fits behind the last character

    s += '!';
    expect += '!';
    EXPECT_FALSE(TextIsInside(&s, sizeof s, s));
    size_t block = (2 * (N + 7) + 1 + 15) / 16 * 16;
    EXPECT_EQ(s.Capacity(), block - 1);
    EXPECT_EQ(std::string(s.C_Str()), expect);
}

TYPED_TEST(TStringBoundary, OverlongConstructionGoesToTheHeapAndNeverTruncates) {
    constexpr size_t N = TypeParam::value;
    std::string text(N + 8, 'q');
    TString<N> s(text.c_str());
    EXPECT_EQ(s.Length(), N + 8);
    EXPECT_EQ(s.Capacity(), (N + 9 + 15) / 16 * 16 - 1); // empty string: n + 1
    EXPECT_EQ(std::string(s.C_Str()), text);
}

// ---------------------------------------------------------------------------------------------

TEST(StringGrowth, DoublingPlusOneUpTo8192CharactersOneAtATime) {
    CStringVar s;
    std::vector<size_t> seen;
    size_t last = s.Capacity();
    for (size_t i = 0; i < 8192; ++i) {
        s += 'x';
        if (s.Capacity() != last) seen.push_back(last = s.Capacity());
    }
    std::vector<size_t> expect = {15, 31, 63, 127, 255, 511, 1023, 2047, 4095, 8191, 16383};
    EXPECT_EQ(seen, expect);
    EXPECT_EQ(s.Length(), 8192u);
}

TEST(StringGrowth, From8192CharactersGrowsIn4KiBSteps) {
    CStringVar s;
    AppendChars(s, 'x', 16383);
    EXPECT_EQ(s.Capacity(), 16383u);
    s += 'y'; // 16383 + 4096 -> 20480 (a multiple of 4096), block 20480
    EXPECT_EQ(s.Capacity(), 20479u);
    AppendChars(s, 'x', 20479 - 16384);
    EXPECT_EQ(s.Capacity(), 20479u);
    s += 'y';
    EXPECT_EQ(s.Capacity(), 24575u);
    EXPECT_EQ(s.Length(), 20480u);
}

TEST(StringGrowth, EmptyStringGetsExactlyTheRequestRoundedTo16) {
    CStringVar s;
    s.Lock(100);
    EXPECT_EQ(s.Capacity(), 111u); // 101 -> 112
    CStringVar t;
    t.Lock(8);
    EXPECT_EQ(t.Capacity(), 15u); // 9 -> 16
    CStringVar u;
    u.Lock(15);
    EXPECT_EQ(u.Capacity(), 15u); // 16 -> 16
    CStringVar v;
    v.Lock(16);
    EXPECT_EQ(v.Capacity(), 31u); // 17 -> 32
}

TEST(StringGrowth, LargeRequestBeatsDoubling) {
    CStringVar s("0123456789"); // heap, capacity 15
    s.Lock(100);                // 2 * 15 + 1 = 31 is not more than 110: 111 -> 112
    EXPECT_EQ(s.Capacity(), 111u);
    EXPECT_STREQ(s.C_Str(), "0123456789");
}

TEST(StringGrowth, LargeRequestBeatsThe4KiBStep) {
    CStringVar s;
    AppendChars(s, 'x', 8192); // capacity 16383
    s.Lock(10000);             // 20480 > 18192: the step is enough
    EXPECT_EQ(s.Capacity(), 20479u);
    s.Unlock(s.Length());
    s.Lock(20000); // 8192 + 20000 + 1 = 28193 -> 28208
    EXPECT_EQ(s.Capacity(), 28207u);
}

TEST(StringGrowth, RoomEnoughChangesNothing) {
    CStringVar s;
    s.Lock(40);
    const char* before = s.data();
    size_t cap = s.Capacity();
    s.Lock(cap);
    EXPECT_EQ(s.data(), before);
    EXPECT_EQ(s.Capacity(), cap);
}

TEST(StringGrowth, HandedOverSmallBlockMovesBackIntoLargerInlineBuffer) {
    CStringVar small("0123456789"); // heap, capacity 15
    TString<512> big;
    small >> big;
    EXPECT_EQ(big.Capacity(), 15u);
    EXPECT_FALSE(TextIsInside(&big, sizeof big, big));
    big += "abcdefghij"; // 20 characters: the inline buffer (519) holds them
    EXPECT_TRUE(TextIsInside(&big, sizeof big, big));
    EXPECT_EQ(big.Capacity(), 519u);
    EXPECT_STREQ(big.C_Str(), "0123456789abcdefghij");
}

// ---------------------------------------------------------------------------------------------

TEST(StringLimit, GrowsOncePastTheLimitThenRefusesEveryChange) {
    CStringVar s;
    s.Lock(0x4000000 - 16); // 0x3FFFFF1 -> block 0x4000000
    ASSERT_EQ(s.Capacity(), 0x3FFFFFFu);
    s.Unlock(s.Capacity());
    ASSERT_EQ(s.Length(), 0x3FFFFFFu);
    s += 'x'; // still at most the limit: the 4 KiB step is taken
    EXPECT_EQ(s.Capacity(), 0x4000FFFu);
    EXPECT_EQ(s.Length(), 0x4000000u);
    EXPECT_EQ(RaisedStatus([&] { s += 'y'; }), 0x20010036u);
    EXPECT_EQ(s.Length(), 0x4000000u);
    EXPECT_EQ(KEL::Exceptions::ThreadErrorLog().GetError(), 0x20010036u);
    EXPECT_EQ(RaisedStatus([&] { s.Lock(0); }), 0x20010036u);
}

TEST(StringLimit, OverLimitCapacityRaisesWithItsNumberInTheText) {
    CStringVar s;
    s.Lock(0x4000000); // 0x4000001 -> 0x4000010
    ASSERT_EQ(s.Capacity(), 0x400000Fu);
    EXPECT_EQ(RaisedStatus([&] { s.Cat("a", 1); }), 0x20010036u);
    const char* msg = KEL::Exceptions::ThreadErrorLog().GetErrorMsg(0);
    ASSERT_NE(msg, nullptr);
    EXPECT_STREQ(msg, "Maximum buff size (67108879) already reached");
    s.FreeExtra(); // the empty text goes back inline and the string is usable again
    EXPECT_EQ(s.Capacity(), 7u);
    EXPECT_TRUE(TextIsInside(&s, sizeof s, s));
    s += "abc";
    EXPECT_STREQ(s.C_Str(), "abc");
}

TEST(StringLimit, TracesTheLimitWhenItsTracePointIsOn) {
    const char* const alloc = "KEL::Strings::CStringVar::Alloc";
    const unsigned int mask = KEL::KEL_MODULE_INFO_KelLib.GetTrcPoints();
    kel_test::CTraceCapture trace(mask & ~0x40000000u);
    CStringVar s;
    s.Lock(0x4000000);
    EXPECT_EQ(RaisedStatus([&] { s += 'a'; }), 0x20010036u);
    EXPECT_EQ(trace.Count(alloc), 0u);
    KEL::KEL_MODULE_INFO_KelLib.SetTrcPoints(mask | 0x40000000u);
    EXPECT_EQ(RaisedStatus([&] { s += 'a'; }), 0x20010036u);
    std::vector<std::string> ours;
    for (const std::string& e : trace.Entries())
        if (e.find(alloc) != std::string::npos) ours.push_back(e);
    ASSERT_EQ(ours.size(), 1u);
    EXPECT_NE(ours[0].find("Maximum buff size (67108879) already reached"), std::string::npos) << ours[0];
}

// ---------------------------------------------------------------------------------------------

TEST(StringOutOfMemory, FailedFirstBlockRaisesAndKeepsTheInlineText) {
    CStringVar s("abc");
    EXPECT_EQ(RaisedStatus([&] { s.Lock(size_t(1) << 60); }), 0x2001000Fu);
    EXPECT_STREQ(s.C_Str(), "abc");
    EXPECT_EQ(s.Capacity(), 7u);
}

TEST(StringOutOfMemory, FailedReallocationFreesTheBlockAndLeavesAnEmptySoundString) {
    TString<32> s;
    AppendChars(s, 'z', 50); // heap
    EXPECT_EQ(RaisedStatus([&] { s.Lock(size_t(1) << 60); }), 0x2001000Fu);
    EXPECT_EQ(s.Length(), 0u);
    EXPECT_EQ(s.Capacity(), 39u);
    EXPECT_TRUE(TextIsInside(&s, sizeof s, s));
    s += "again";
    EXPECT_STREQ(s.C_Str(), "again");
}

TEST(StringOutOfMemory, GrowingWindowRaisesAndLeavesTheParentAlone) {
    CStringVar s("abc");
    EXPECT_EQ(RaisedStatus([&] { s(1, 1).Set('x', size_t(1) << 60); }), 0x2001000Fu);
    EXPECT_STREQ(s.C_Str(), "abc");
    EXPECT_EQ(RaisedStatus([&] { s.Set('x', size_t(1) << 60); }), 0x2001000Fu);
    EXPECT_STREQ(s.C_Str(), "abc");
}

TEST(StringOutOfMemory, ForeignTextStaysForeignWhenItsCopyCannotBeMade) {
    static const char text[] = "not ours";
    ForeignText f(text);
    EXPECT_EQ(RaisedStatus([&] { f.Lock(size_t(1) << 60); }), 0x2001000Fu);
    EXPECT_EQ(f.data(), text);
    EXPECT_EQ(f.Capacity(), 0u);
    f += '!'; // the inline capacity noted for it is intact
    EXPECT_STREQ(f.C_Str(), "not ours!");
    EXPECT_EQ(f.Capacity(), 15u);
}

TEST(StringOutOfMemory, RequestsThatWouldOverflowTheSizeArithmeticAreRefused) {
    CStringVar s("0123456789");
    EXPECT_EQ(RaisedStatus([&] { s.Lock(~size_t(0)); }), 0x2001000Fu);
    EXPECT_EQ(RaisedStatus([&] { s.Lock(~size_t(0) - 5); }), 0x2001000Fu);
}

// ---------------------------------------------------------------------------------------------

TEST(StringAppend, SelfAppendInlineToHeap) {
    CStringVar s("abcdefg");
    s += s;
    EXPECT_STREQ(s.C_Str(), "abcdefgabcdefg");
    s += s; // heap block reallocated while the source is the block itself
    EXPECT_STREQ(s.C_Str(), "abcdefgabcdefgabcdefgabcdefg");
}

TEST(StringAppend, AppendOfOwnWindowAcrossReallocation) {
    CStringVar s;
    AppendChars(s, '-', 15); // capacity 15, full
    s.Cat(s.data() + 10, 5);
    EXPECT_EQ(std::string(s.C_Str()), std::string(20, '-'));
    CStringVar t("0123456789abcde");
    t.Cat(t.data() + 3, 4);
    EXPECT_STREQ(t.C_Str(), "0123456789abcde3456");
}

TEST(StringAppend, AssignmentFromOwnTextMovesItToTheFront) {
    CStringVar s("0123456789abcdefghij");
    s = s(5);
    EXPECT_STREQ(s.C_Str(), "56789abcdefghij");
    s = *&s; // assignment from itself, spelt so that the compiler does not object

    EXPECT_STREQ(s.C_Str(), "56789abcdefghij");
    s = CSubStringRef(s.data() + 2, 3);
    EXPECT_STREQ(s.C_Str(), "789");
}

TEST(StringAppend, EmbeddedNulCharactersAreKept) {
    CStringVar s;
    s.Cat("a\0b", 3);
    s += std::string("c\0d", 3);
    EXPECT_EQ(s.Length(), 6u);
    EXPECT_EQ(std::memcmp(s.data(), "a\0bc\0d", 7), 0);
}

TEST(StringAppend, NullTextOnlyRewritesTheTerminator) {
    CStringVar s("abc");
    s.Cat(nullptr, 5);
    s += static_cast<const char*>(nullptr);
    EXPECT_STREQ(s.C_Str(), "abc");
    s = static_cast<const char*>(nullptr);
    EXPECT_STREQ(s.C_Str(), "");
}

// ---------------------------------------------------------------------------------------------

TEST(StringEdit, LockUnlockTakesTheLengthFromTheTerminator) {
    CStringVar s("ab");
    char* p = s.Lock(20);
    EXPECT_EQ(p, s.data() + 2);
    std::strcpy(p, "cdef");
    s.Unlock();
    EXPECT_EQ(s.Length(), 6u);
    EXPECT_STREQ(s.C_Str(), "abcdef");
    p = s.Lock(5, 1); // reset first
    EXPECT_EQ(p, s.data());
    std::memcpy(p, "xyzzy", 5);
    s.Unlock(3);
    EXPECT_STREQ(s.C_Str(), "xyz");
}

TEST(StringEdit, UnlockWithoutTerminatorStopsAtTheCapacity) {
    CStringVar s;
    char* p = s.Lock(20);
    std::memset(p, 'k', s.Capacity() + 1); // the terminator's byte too
    s.Unlock();
    EXPECT_EQ(s.Length(), s.Capacity());
    EXPECT_EQ(s.C_Str()[s.Length()], '\0');
}

TEST(StringEdit, CutShortensOnlyAndNeverTouchesForeignText) {
    CStringVar s("abcdef");
    s.Cut(10);
    EXPECT_STREQ(s.C_Str(), "abcdef");
    s.Cut(2);
    EXPECT_STREQ(s.C_Str(), "ab");
    ForeignText f("read-only");
    f.Cut(2);
    EXPECT_EQ(f.Length(), 9u);
}

TEST(StringEdit, SetOverwritesAndGrows) {
    CStringVar s("abc");
    s.Set('-');
    EXPECT_STREQ(s.C_Str(), "---");
    s.Set('x', 1);
    EXPECT_STREQ(s.C_Str(), "x--");
    s.Set('=', 12);
    EXPECT_STREQ(s.C_Str(), "============");
    EXPECT_EQ(s.Length(), 12u);
}

TEST(StringEdit, CaseAndSlashes) {
    CStringVar s("Path/To/File.TXT \xC4");
    s.ToUpper(5);
    EXPECT_STREQ(s.C_Str(), "Path/TO/FILE.TXT \xC4");
    s.ToLower();
    EXPECT_STREQ(s.C_Str(), "path/to/file.txt \xC4");
    s.FixSlashes();
    EXPECT_STREQ(s.C_Str(), "path\\to\\file.txt \xC4");
}

TEST(StringEdit, FreeExtraShrinksToSixteenByteBlockOrMovesInline) {
    CStringVar s;
    AppendChars(s, 'a', 40); // capacity 63
    s.Cut(20);
    s.FreeExtra();
    EXPECT_EQ(s.Capacity(), 31u);
    EXPECT_EQ(std::string(s.C_Str()), std::string(20, 'a'));
    s.Cut(7);
    s.FreeExtra();
    EXPECT_EQ(s.Capacity(), 7u);
    EXPECT_TRUE(TextIsInside(&s, sizeof s, s));
    EXPECT_STREQ(s.C_Str(), "aaaaaaa");
    s.FreeExtra(); // inline already: nothing
    EXPECT_EQ(s.Capacity(), 7u);
}

TEST(StringEdit, NullAssignmentEmptiesAndKeepsTheBlock) {
    CStringVar s;
    AppendChars(s, 'a', 40);
    const char* block = s.data();
    s = KEL::Misc::Null;
    EXPECT_EQ(s.Length(), 0u);
    EXPECT_STREQ(s.C_Str(), "");
    EXPECT_EQ(s.data(), block);
}

// ---------------------------------------------------------------------------------------------

TEST(StringForeign, FirstChangeCopiesTheTextIntoOwnStorage) {
    static const char text[] = "hello world";
    ForeignText f(text);
    EXPECT_EQ(f.Capacity(), 0u);
    f += '!';
    EXPECT_STREQ(f.C_Str(), "hello world!");
    EXPECT_NE(f.data(), text);
    EXPECT_EQ(f.Capacity(), 15u); // from the empty inline buffer: 12 + 1 -> 16
    EXPECT_STREQ(text, "hello world");
}

TEST(StringForeign, ShortTextIsCopiedInline) {
    ForeignText f("abc");
    f.Set('z', 1);
    EXPECT_STREQ(f.C_Str(), "zbc");
    EXPECT_EQ(f.Capacity(), 7u);
    EXPECT_TRUE(TextIsInside(&f, sizeof f, f));
}

TEST(StringForeign, AssignmentDropsTheForeignTextEvenWhenItIsTheSource) {
    ForeignText f("foreign text");
    f = CSubStringRef(f.data() + 8, 4);
    EXPECT_STREQ(f.C_Str(), "text");
    EXPECT_EQ(f.Capacity(), 7u);
    ForeignText g("abc");
    g.ToUpper(); // no own storage: nothing is written to the text
    g = KEL::Misc::Null;
    EXPECT_EQ(g.Capacity(), 7u);
    EXPECT_STREQ(g.C_Str(), "");
}

// ---------------------------------------------------------------------------------------------

TEST(StringHandOver, HeapBlockIsHandedOverAsItIs) {
    TString<32> src;
    AppendChars(src, 'h', 50);
    const char* block = src.data();
    size_t cap = src.Capacity();
    CStringVar dst("old");
    src >> dst;
    EXPECT_EQ(dst.data(), block);
    EXPECT_EQ(dst.Capacity(), cap);
    EXPECT_EQ(dst.Length(), 50u);
    EXPECT_EQ(src.Length(), 0u);
    EXPECT_EQ(src.Capacity(), 39u);
    EXPECT_TRUE(TextIsInside(&src, sizeof src, src));
    // The receiver noted its own inline capacity: cut short, it moves back.
    dst.Cut(3);
    dst.FreeExtra();
    EXPECT_EQ(dst.Capacity(), 7u);
    EXPECT_STREQ(dst.C_Str(), "hhh");
}

TEST(StringHandOver, ReceiverDropsItsOwnHeapBlock) {
    CStringVar src;
    AppendChars(src, 's', 30);
    CStringVar dst;
    AppendChars(dst, 'd', 30); // leak checkers catch a block that is not freed
    src >> dst;
    EXPECT_EQ(std::string(dst.C_Str()), std::string(30, 's'));
}

TEST(StringHandOver, InlineTextIsCopied) {
    CStringVar src("abc");
    TString<64> dst("old text");
    src >> dst;
    EXPECT_STREQ(dst.C_Str(), "abc");
    EXPECT_TRUE(TextIsInside(&dst, sizeof dst, dst));
    EXPECT_EQ(src.Length(), 0u);
}

TEST(StringHandOver, ToCallerOwnedBuffer) {
    CStringVar heap;
    AppendChars(heap, 'x', 20);
    const char* block = heap.data();
    char* out = nullptr;
    heap >> out;
    EXPECT_EQ(out, block);
    EXPECT_EQ(std::string(out), std::string(20, 'x'));
    EXPECT_EQ(heap.Length(), 0u);
    std::free(out);

    CStringVar small("abc");
    small >> out;
    EXPECT_STREQ(out, "abc");
    EXPECT_EQ(small.Length(), 0u);
    std::free(out);
}

TEST(StringHandOver, MoveConstructionAndAssignmentTakeTheBlock) {
    CStringVar a;
    AppendChars(a, 'm', 40);
    const char* block = a.data();
    CStringVar b(std::move(a));
    EXPECT_EQ(b.data(), block);
    EXPECT_EQ(a.Length(), 0u); // NOLINT(bugprone-use-after-move): the moved-from state is defined
    TString<128> c("short");
    c = std::move(b);
    EXPECT_EQ(c.data(), block);
    EXPECT_EQ(c.Length(), 40u);
    c.Cut(5);
    c.FreeExtra();
    EXPECT_EQ(c.Capacity(), 135u);
}

// ---------------------------------------------------------------------------------------------

TEST(StringAlias, TargetReadsEmptyWhileTheAliasLivesAndGetsTheLengthBack) {
    CStringVar target("abc");
    {
        CStringAlias alias(target);
        EXPECT_EQ(target.Length(), 0u);
        EXPECT_STREQ(alias.C_Str(), "abc");
        alias += 'd';
    }
    EXPECT_STREQ(target.C_Str(), "abcd");
    EXPECT_EQ(target.Length(), 4u);
}

TEST(StringAlias, GrowthHappensOnTheTargetsStorage) {
    CStringVar target("abc");
    std::string expect = "abc";
    {
        CStringAlias alias(target);
        for (int i = 0; i < 100; ++i) {
            alias += static_cast<char>('0' + i % 10);
            expect += static_cast<char>('0' + i % 10);
        }
        EXPECT_EQ(alias.data(), target.data());
        EXPECT_EQ(alias.Capacity(), target.Capacity());
    }
    EXPECT_EQ(std::string(target.C_Str()), expect);
    EXPECT_EQ(target.Capacity(), 127u);
    target += 'z'; // the target owns the block and grows on
    EXPECT_EQ(target.Length(), 104u);
}

TEST(StringAlias, AssignmentAndCutThroughTheAlias) {
    TString<32> target;
    AppendChars(target, 'a', 60);
    {
        CStringAlias alias(target);
        alias = "replaced";
        alias.Cut(3);
    }
    EXPECT_STREQ(target.C_Str(), "rep");
}

TEST(StringAlias, HandOverFromAnAliasCopiesTheText) {
    CStringVar target;
    AppendChars(target, 't', 30);
    CStringVar receiver;
    {
        CStringAlias alias(target);
        alias >> receiver;
        EXPECT_EQ(alias.Length(), 0u);
    }
    EXPECT_EQ(std::string(receiver.C_Str()), std::string(30, 't'));
    EXPECT_NE(receiver.data(), target.data());
    EXPECT_EQ(target.Length(), 0u);
}

TEST(StringAlias, AliasOfForeignTextCopiesItIntoTheTarget) {
    ForeignText target("foreign");
    {
        CStringAlias alias(target);
        alias += "!!";
    }
    EXPECT_STREQ(target.C_Str(), "foreign!!");
    EXPECT_NE(target.Capacity(), 0u);
}

} // namespace
