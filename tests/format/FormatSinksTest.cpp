// Sinks of the format streams: the character buffer, the re-sorting buffer with its order
// text, the signals a sink receives, failing sinks, and streams that change hands.
#include <kel/kelbase.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

using namespace KEL;
using Exceptions::CKelException;
using Output_Streams::CChrStreamBuffer;
using Output_Streams::CFormatResortBuffer;
using Output_Streams::CFormatStream;
using Strings::CStringVar;

namespace {

std::string Text(const CStringVar& s) { return std::string(s.data(), s.Length()); }

// The fields of `r` put in order into an empty string.
std::string InOrder(CFormatResortBuffer& r) {
    CStringVar out;
    r.PutInOrder(out);
    return Text(out);
}

template <class F>
unsigned int StatusOf(F&& body) {
    try {
        body();
    } catch (const CKelException& e) {
        return e.GetCode();
    }
    return 0;
}

// A sink that records what it is told and can be made to fail after some characters.
class CRecordingSink : public Output_Streams::Base_Classes::CFormatStreamBuffer {
public:
    void Write(const char* text, size_t length, unsigned int upperCase) override {
        if (m_nFailAfter != std::string::npos && m_Text.size() + length > m_nFailAfter)
            throw std::runtime_error("sink full");
        for (size_t i = 0; i < length; ++i) m_Text.push_back(upperCase ? static_cast<char>(std::toupper(static_cast<unsigned char>(text[i]))) : text[i]);
        ++m_nWrites;
    }
    void Fill(int ch, size_t count) override { m_Text.append(count, static_cast<char>(ch)); }
    void SignalNewFormatField() override { ++m_nFields; }
    void SignalFormatEnd() override { ++m_nEnds; }

    std::string m_Text;
    size_t m_nFailAfter = std::string::npos;
    int m_nWrites = 0;
    int m_nFields = 0;
    int m_nEnds = 0;
};

} // namespace

// ---------------------------------------------------------------------------------------------
// CChrStreamBuffer

TEST(ChrStreamBuffer, GrowsInSmallStepsAndStaysTerminated) {
    CChrStreamBuffer b(4, 3);
    std::string expected;
    for (int i = 0; i < 300; ++i) {
        b.Format("%d,") << i;
        expected += std::to_string(i) + ",";
        ASSERT_EQ(expected.size(), b.GetLength());
        ASSERT_EQ('\0', b.GetBuffer()[b.GetLength()]);
    }
    EXPECT_EQ(expected, std::string(b.GetBuffer()));
}

TEST(ChrStreamBuffer, FillGrowsAnEmptyBufferAndKeepsTheTerminator) {
    CChrStreamBuffer b;
    EXPECT_STREQ("", b.GetBuffer());
    b.Format("%-x100s") << "";
    ASSERT_EQ(100u, b.GetLength());
    EXPECT_EQ(std::string(100, 'x'), std::string(b.GetBuffer()));
    EXPECT_EQ('\0', b.GetBuffer()[100]);
}

TEST(ChrStreamBuffer, ReleaseHandsTheBufferOverAndLeavesItEmpty) {
    CChrStreamBuffer b(8);
    b.Format("%S-%d") << "abc" << 12;
    char* taken = b.Release();
    ASSERT_NE(nullptr, taken);
    EXPECT_STREQ("ABC-12", taken);
    std::free(taken);
    EXPECT_EQ(0u, b.GetLength());
    EXPECT_STREQ("", b.GetBuffer());
    b.Format("again");
    char* second = nullptr;
    b >> second;
    ASSERT_NE(nullptr, second);
    EXPECT_STREQ("again", second);
    std::free(second);
}

TEST(ChrStreamBuffer, SetBufferTakesOverTextAndItsColumn) {
    char* own = static_cast<char*>(std::malloc(8));
    std::memcpy(own, "ab\ncd", 6);
    CChrStreamBuffer b;
    b.SetBuffer(own, 5);
    EXPECT_EQ(2u, b.GetColumn());
    b.Format("%!s") << "x\ny";
    EXPECT_STREQ("ab\ncdx\n  y", b.GetBuffer());
}

TEST(ChrStreamBuffer, ResetEmptiesButKeepsTheBufferUsable) {
    CChrStreamBuffer b;
    b.Format("first line\nsecond");
    EXPECT_EQ(6u, b.GetColumn());
    b.Reset();
    EXPECT_EQ(0u, b.GetLength());
    EXPECT_EQ(0u, b.GetColumn());
    b.Format("%!s") << "a\nb";
    EXPECT_STREQ("a\nb", b.GetBuffer());
}

// ---------------------------------------------------------------------------------------------
// CFormatResortBuffer

TEST(ResortBuffer, OrderTextPlacesFieldsAndGetsABlankAppended) {
    CFormatResortBuffer r;
    r.Format("%s %s", "%2 %1") << "A" << "B";
    EXPECT_EQ(2u, r.FieldCount());
    EXPECT_EQ("B A ", InOrder(r));
}

TEST(ResortBuffer, PercentPairsAndOtherPercentsInTheOrderText) {
    CFormatResortBuffer r;
    r.Format("%s", "100%% %1%x and %") << "A";
    EXPECT_EQ("100% A%x and % ", InOrder(r));
}

TEST(ResortBuffer, FieldsKeepTheirFormattingButNotThePlainText) {
    CFormatResortBuffer r;
    r.Format("name <%-.4s> number <%05d>", "%2/%1/%2") << "ab" << 42;
    CStringVar out("=");
    r.PutInOrder(out);
    EXPECT_EQ("=00042/ab../00042 ", Text(out));
}

TEST(ResortBuffer, ArgumentsAfterTheLastDirectiveBecomeFields) {
    CFormatResortBuffer r;
    r.Format("%s", "%3-%2-%1") << "a" << 7 << "z";
    EXPECT_EQ("z-7-a ", InOrder(r));
}

TEST(ResortBuffer, FieldZeroOrPastTheCountRaises) {
    CFormatResortBuffer r;
    r.Format("%s %s", "%1 %3") << "A" << "B";
    CStringVar out;
    EXPECT_EQ(0x2001001Bu, StatusOf([&] { r.PutInOrder(out); }));
    EXPECT_EQ("A ", Text(out));
    r.Format("%s", "%0") << "A";
    EXPECT_EQ(0x2001001Bu, StatusOf([&] {
        CStringVar other;
        r.PutInOrder(other);
    }));
}

TEST(ResortBuffer, ANewFormatStartsFromNoFields) {
    CFormatResortBuffer r;
    r.Format("%s %s %s", "%3") << "a" << "b" << "c";
    r.Format("%s", "[%1]") << "only";
    EXPECT_EQ(1u, r.FieldCount());
    EXPECT_EQ("[only] ", InOrder(r));
}

TEST(ResortBuffer, AFormatWithoutOrderTextKeepsTheOrderAndDropsTheFields) {
    CFormatResortBuffer r;
    r.Format("%s %s", "%2, %1") << "first" << "second";
    r.Format("%d %d") << 1 << 2;
    EXPECT_EQ(2u, r.FieldCount());
    EXPECT_EQ("2, 1 ", InOrder(r));
}

TEST(ResortBuffer, IsAStringArgumentOfAnotherFormat) {
    CFormatResortBuffer r;
    r.Format("%d %s", "%2=%1") << 5 << "five";
    CStringVar s;
    s.Format("<%s>") << r;
    EXPECT_EQ("<five=5 >", Text(s));
}

TEST(ResortBuffer, ABadOrderTextInsideAnotherFormatEndsThatFormat) {
    CFormatResortBuffer r;
    r.Format("%s", "%1 %5") << "A";
    CStringVar s;
    EXPECT_EQ(0x2001001Bu, StatusOf([&] { s.Format("a %s b") << r; }));
    EXPECT_EQ("", Text(s)); // the fields are put in order before the text reaches %s
    s.Format("%d") << 1;
    EXPECT_EQ("1", Text(s));
}

TEST(ResortBuffer, ABadFormatKeepsTheFieldsSoFar) {
    CFormatResortBuffer r;
    EXPECT_EQ(0x20010010u, StatusOf([&] { r.Format("%s %d", "%1") << "kept" << "bad"; }));
    EXPECT_EQ("kept ", InOrder(r));
}

// ---------------------------------------------------------------------------------------------
// What a sink is told, failing sinks, and streams that change hands

TEST(FormatSignals, OneFieldPerDirectiveAndOneEndPerFormat) {
    CRecordingSink sink;
    sink.Format("a %s b %d c %s") << "x" << 1;
    EXPECT_EQ("a x b 1 c ", sink.m_Text);
    EXPECT_EQ(2, sink.m_nFields);
    EXPECT_EQ(1, sink.m_nEnds);
}

TEST(FormatSignals, PlainTextRunsArriveInOneWriteEach) {
    CRecordingSink sink;
    sink.Format("Error   : %s::%d (0x%X)\nMessage : %s\n") << "kelbase" << 16 << 0x20010010u << "Bad format";
    EXPECT_EQ("Error   : kelbase::16 (0x20010010)\nMessage : Bad format\n", sink.m_Text);
    EXPECT_EQ(9, sink.m_nWrites); // 5 plain runs and 4 fields
    EXPECT_EQ(0u, sink.GetColumn());
}

TEST(FormatSignals, AnErrorEndsTheFormatOnceBeforeRaising) {
    CRecordingSink sink;
    EXPECT_EQ(0x20010010u, StatusOf([&] { sink.Format("a %d b") << "x"; }));
    EXPECT_EQ(1, sink.m_nEnds);
    EXPECT_EQ("a ", sink.m_Text);
}

TEST(FormatSignals, AFailingSinkEndsTheFormatAndTakesTheNextOne) {
    CRecordingSink sink;
    sink.m_nFailAfter = 4;
    EXPECT_THROW(sink.Format("abc %s def") << "long text", std::runtime_error);
    EXPECT_EQ(1, sink.m_nEnds);
    EXPECT_EQ("abc ", sink.m_Text);
    sink.m_nFailAfter = std::string::npos;
    sink.Format("|%d") << 5;
    EXPECT_EQ("abc |5", sink.m_Text);
    EXPECT_EQ(2, sink.m_nEnds);
}

TEST(FormatSignals, CatchEndsTheFormatRunningOnTheBuffer) {
    CRecordingSink sink;
    {
        CFormatStream s = sink.Format("a %s b %s");
        s << "x";
        sink.Catch();
        s << "y"; // ended: nothing more is written
    }
    EXPECT_EQ("a x", sink.m_Text);
    EXPECT_EQ(1, sink.m_nEnds);
}

TEST(FormatHandOver, AMovedStreamWritesIntoTheSameStringAndTheSourceIsSilent) {
    CStringVar s;
    {
        std::optional<CFormatStream> first;
        first.emplace(s.Format("<%d|%d>"));
        *first << 1;
        CFormatStream second(std::move(*first));
        first.reset(); // the source's destructor must write nothing
        EXPECT_EQ("<1", Text(s));
        second << 2;
    }
    EXPECT_EQ("<1|2>", Text(s));
}

TEST(FormatHandOver, ACopiedStreamTakesTheFormatOverOnAForeignSink) {
    CRecordingSink sink;
    {
        CFormatStream first = sink.Format("%s+%s;");
        first << "a";
        CFormatStream second(first);
        first << "ignored";
        second << "b";
    }
    EXPECT_EQ("a+b;", sink.m_Text);
    EXPECT_EQ(1, sink.m_nEnds);
}

TEST(FormatHandOver, PlainTextGoesInFrontOfTheNextDirectiveOrAtTheEnd) {
    CStringVar s;
    s.Format("(%s|%s)") >> "[" << "x" >> "<" << "y" >> "!";
    EXPECT_EQ("([x|<y)!", Text(s));
}

TEST(FormatHandOver, AStreamThatOutlivesItsSinkWritesNothing) {
    std::optional<CRecordingSink> sink;
    sink.emplace();
    std::optional<CFormatStream> s;
    s.emplace(sink->Format("a %s b"));
    EXPECT_NE(nullptr, s->GetSink());
    sink.reset();
    EXPECT_EQ(nullptr, s->GetSink());
    *s << "x"; // under the sanitizers a write into the destroyed sink would be reported
    EXPECT_EQ(0u, s->GetFormatParameters(1, 1));
}
