// kelbase - tests/channel/ChannelWireTest.cpp
//
// The channel's bytes on the wire against a raw peer: numbers in their shortest forms with
// the -32 quirk, strings and blocks, the reading rules for every integer width, bytes that
// are no command, notices and keep-alives between commands, and what is put back.
#include "ChannelTestUtil.h"

#include <climits>
#include <cstdint>
#include <cstdio>
#include <ostream>
#include <string>
#include <thread>

using namespace kel_channel_test;
using KEL::Sockets::CKelSocket;

TEST_F(RawServerTest, IntegersStringsAndBlocksTakeTheirShortestBytes) {
    const Bytes wire = Request(
        7, {0x90, 0x00, 0x02},
        [](CKelSocket& c) {
            c << 0 << 31 << 32 << 256 << -1 << -31 << -32 << -33 << (1ull << 56) << "" << std::string("ab");
            c.Write(nullptr, 0);
            c << 0xFFFFFFFFu << LLONG_MIN;
        },
        44);
    const Bytes expected = {0x88, 0x07, 0xC0, 0xDF, 0xB0, 0x20, 0xB1, 0x01, 0x00, 0xE1, 0xFF, 0xE0, 0xB8, 0x21,
                            0xB7, 0x01, 0, 0, 0, 0, 0, 0, 0, 0x06, 0x98, 0x02, 'a', 'b', 0x78, 0x00,
                            0xB3, 0xFF, 0xFF, 0xFF, 0xFF, 0xBF, 0x80, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(wire, expected);
    EXPECT_EQ(m_Pair.Recv(1), Bytes{0x01}); // STC_WaitAck closes the request
}

TEST_F(RawServerTest, AnswerValuesReadBackAndMinus32ComesBackAsZero) {
    EXPECT_EQ(Acknowledged({0x90, 0x09, 0xC0, 0xDF, 0xB0, 0x20, 0xB1, 0x01, 0x00, 0xE1, 0xFF, 0xE0, 0xB8, 0x21, 0xB7,
                            0x01, 0, 0, 0, 0, 0, 0, 0, 0x06, 0x98, 0x03, 'x', 'y', 'z', 0x02}),
              9u);
    int a, b, c, d, e, f, g, h;
    unsigned long long big;
    std::string empty = "old", text;
    m_Client >> a >> b >> c >> d >> e >> f >> g >> h >> big >> empty >> text;
    EXPECT_EQ((std::vector<int>{a, b, c, d, e, f, g, h}), (std::vector<int>{0, 31, 32, 256, -1, -31, 0, -33}));
    EXPECT_EQ(big, 1ull << 56);
    EXPECT_EQ(empty, "");
    EXPECT_EQ(text, "xyz");
    EXPECT_EQ(m_Client.EndRequest(), 1u);
    EXPECT_EQ(m_Client.GetState(), CKelSocket::ST_Idle);
}

namespace {

struct RANGE_CASE {
    Bytes wire;
    int width;         // bytes of the target type
    bool isSigned;
    bool fits;
    long long expected; // as the target type, widened
};

// How a case shows in test output; without it GoogleTest dumps the record's bytes, padding
// included, which valgrind reports as a read of uninitialised memory.
void PrintTo(const RANGE_CASE& c, std::ostream* os) {
    static const char hex[] = "0123456789ABCDEF";
    for (unsigned char b : c.wire) *os << hex[b >> 4] << hex[b & 15] << ' ';
    *os << "as " << (c.isSigned ? "signed " : "unsigned ") << c.width * 8 << "-bit: "
        << (c.fits ? std::to_string(c.expected) : std::string("out of range"));
}

long long ReadAs(CKelSocket& c, int width, bool isSigned) {
    switch (width * (isSigned ? 1 : -1)) {
    case 1: { signed char v; c >> v; return v; }
    case 2: { short v; c >> v; return v; }
    case 4: { int v; c >> v; return v; }
    case 8: { long long v; c >> v; return v; }
    case -1: { unsigned char v; c >> v; return v; }
    case -2: { unsigned short v; c >> v; return v; }
    case -4: { unsigned int v; c >> v; return v; }
    default: { unsigned long long v; c >> v; return static_cast<long long>(v); }
    }
}

class IntegerRange : public RawServerTest, public ::testing::WithParamInterface<RANGE_CASE> {};

} // namespace

TEST_P(IntegerRange, ReadersCheckTheTypesLimits) {
    const RANGE_CASE& p = GetParam();
    Acknowledged(Cat(Cat({0x90, 0x00}, p.wire), {0x02}));
    long long got = 0;
    const unsigned int code = RaisedCode([&] { got = ReadAs(m_Client, p.width, p.isSigned); });
    if (p.fits) {
        EXPECT_EQ(code, 0u);
        EXPECT_EQ(got, p.expected);
        EXPECT_EQ(m_Client.EndRequest(), 1u);
    } else {
        EXPECT_EQ(code, 0x20010029u);
        EXPECT_EQ(m_Client.GetState(), CKelSocket::ST_Read | CKelSocket::ST_Error);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Widths, IntegerRange,
    ::testing::Values(
        RANGE_CASE{{0xB0, 0x7F}, 1, true, true, 127}, RANGE_CASE{{0xB0, 0x80}, 1, true, false, 0},
        RANGE_CASE{{0xB8, 0x80}, 1, true, true, -128}, RANGE_CASE{{0xB8, 0x81}, 1, true, false, 0},
        RANGE_CASE{{0xB0, 0xFF}, 1, false, true, 255}, RANGE_CASE{{0xB1, 0x01, 0x00}, 1, false, false, 0},
        RANGE_CASE{{0xE1}, 1, false, true, 255}, RANGE_CASE{{0xB8, 0x80}, 1, false, true, 128},
        RANGE_CASE{{0xB1, 0x7F, 0xFF}, 2, true, true, 32767}, RANGE_CASE{{0xB1, 0x80, 0x00}, 2, true, false, 0},
        RANGE_CASE{{0xB9, 0x80, 0x00}, 2, true, true, -32768}, RANGE_CASE{{0xB9, 0x80, 0x01}, 2, true, false, 0},
        RANGE_CASE{{0xB1, 0xFF, 0xFF}, 2, false, true, 65535}, RANGE_CASE{{0xB2, 1, 0, 0}, 2, false, false, 0},
        RANGE_CASE{{0xB3, 0x7F, 0xFF, 0xFF, 0xFF}, 4, true, true, INT_MAX},
        RANGE_CASE{{0xB3, 0x80, 0, 0, 0}, 4, true, false, 0},
        RANGE_CASE{{0xBB, 0x80, 0, 0, 0}, 4, true, true, INT_MIN},
        RANGE_CASE{{0xBB, 0x80, 0, 0, 1}, 4, true, false, 0},
        RANGE_CASE{{0xB3, 0xFF, 0xFF, 0xFF, 0xFF}, 4, false, true, 0xFFFFFFFFll},
        RANGE_CASE{{0xB4, 1, 0, 0, 0, 0}, 4, false, false, 0},
        RANGE_CASE{{0xB7, 0x7F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, 8, true, true, LLONG_MAX},
        RANGE_CASE{{0xB7, 0x80, 0, 0, 0, 0, 0, 0, 0}, 8, true, false, 0},
        RANGE_CASE{{0xBF, 0x80, 0, 0, 0, 0, 0, 0, 0}, 8, true, true, LLONG_MIN},
        RANGE_CASE{{0xBF, 0x80, 0, 0, 0, 0, 0, 0, 1}, 8, true, false, 0},
        RANGE_CASE{{0xB7, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, 8, false, true, -1},
        // Small forms are taken without a check: 31 fits everything, -31 wraps in unsigned.
        RANGE_CASE{{0xFF}, 1, false, true, 225}, RANGE_CASE{{0xDF}, 1, true, true, 31}));

TEST(ChannelReader, BytesThatAreNoCommandAreRejected) {
    std::vector<unsigned int> bad = {0x07, 0x08};
    for (unsigned int b = 0x10; b <= 0x57; ++b) bad.push_back(b);
    for (unsigned int b : bad) {
        CRawPair pair;
        KEL::Sockets::CKelSocketClient client;
        pair.Send({0xA9, 0x01, 0x00});
        ASSERT_EQ(client.Attach(pair.socket, kAppId), 1u);
        pair.Send({0x90, 0x00, static_cast<unsigned char>(b)});
        unsigned int ack = 0;
        ASSERT_EQ(client.StartRequest(1), 1u);
        ASSERT_EQ(client.WaitForAck(ack), 1u);
        int v = 0;
        EXPECT_EQ(RaisedCode([&] { client >> v; }), 0x20010026u) << std::hex << b;
        char expected[64];
        std::snprintf(expected, sizeof expected, "CKelSocket, Cmd=x%08X, Line=", b);
        EXPECT_EQ(LastMessage().rfind(expected, 0), 0u) << LastMessage();
        client.Abort();
    }
}

TEST_F(RawServerTest, NoticesAndKeepAlivesBetweenCommandsAreInvisible) {
    EXPECT_EQ(
        Acknowledged({0x05, 0x03, 0x90, 0x03, 0x05, 0xC1, 0x03, 0x05, 0x98, 0x01, 'q', 0x05, 0x05, 0x78, 0x01, 0x03, 0x05, 0x02}),
        3u);
    int one = 0;
    std::string q;
    m_Client >> one >> q;
    unsigned char block[4] = {};
    size_t got = 0;
    EXPECT_EQ(m_Client.Read(block, sizeof block, got), 1u);
    EXPECT_EQ(got, 1u);
    EXPECT_EQ(block[0], 0x03); // inside a block 0x03 is data
    EXPECT_EQ(one, 1);
    EXPECT_EQ(q, "q");
    EXPECT_EQ(m_Client.EndRequest(), 1u);
    // The notice seen on the way makes CanRead and Wait answer at once.
    EXPECT_EQ(m_Client.CanRead(), 1u);
    EXPECT_EQ(m_Client.Wait(0xFFFFFFFFu), 1u);
}

TEST_F(RawServerTest, OutOfSyncPutsTheCommandBackForTheRightReader) {
    Acknowledged({0x90, 0x00, 0x98, 0x02, 'h', 'i', 0xB0, 0x40, 0x02});
    int v = 0;
    EXPECT_EQ(RaisedCode([&] { m_Client >> v; }), 0x20010028u);
    EXPECT_EQ(LastMessage(), "Integer-STC expected, 152 received");
    EXPECT_EQ(m_Client.GetState(), CKelSocket::ST_Read | CKelSocket::ST_Error);
    // Flagged: nothing reads until Skip; this Skip stops at the end of the answer.
    std::string s;
    EXPECT_EQ(RaisedCode([&] { m_Client >> s; }), 0x2001002Au);
    EXPECT_EQ(m_Client.Skip(), 1u);
    EXPECT_EQ(m_Client.EndRequest(), 1u);
}

TEST_F(RawServerTest, OutOfSyncLeavesTheCommandReadableAsWhatItIs) {
    Acknowledged({0x90, 0x00, 0x98, 0x02, 'h', 'i', 0xB0, 0x40, 0x02});
    std::string s;
    unsigned char block[2];
    size_t got = 9;
    EXPECT_EQ(m_Client.Read(block, sizeof block, got), 0x20010028u);
    EXPECT_EQ(LastMessage(), "STC_BinBlockStart expected, 152 received");
    EXPECT_EQ(got, 0u);
    // EndRequest also puts back: it too can be followed by Skip.
    EXPECT_EQ(m_Client.Skip(), 1u);
    EXPECT_EQ(m_Client.EndRequest(), 1u);
}

TEST_F(RawServerTest, SmallReadBufferGetsMoreDataAcrossContinuations) {
    // A 5-byte block continued by 4 and by an empty piece, then an integer.
    Acknowledged({0x90, 0x00, 0x78, 0x05, 1, 2, 3, 4, 5, 0x80, 0x04, 6, 7, 8, 9, 0x80, 0x00, 0xC7, 0x02});
    Bytes all;
    unsigned char buf[4];
    size_t got = 0;
    std::vector<unsigned int> results;
    for (int i = 0; i < 5; ++i) {
        const unsigned int r = m_Client.Read(buf, sizeof buf, got);
        results.push_back(r);
        all.insert(all.end(), buf, buf + got);
        if (r != 132u) break;
        EXPECT_EQ(m_Client.GetState(), CKelSocket::ST_ReadBlock);
    }
    EXPECT_EQ(results, (std::vector<unsigned int>{132u, 132u, 1u}));
    EXPECT_EQ(all, (Bytes{1, 2, 3, 4, 5, 6, 7, 8, 9}));
    int seven = 0;
    m_Client >> seven;
    EXPECT_EQ(seven, 7);
    EXPECT_EQ(m_Client.EndRequest(), 1u);
}

TEST_F(RawServerTest, SkipDiscardsReservedCommandsAndTheRestOfABlock) {
    Acknowledged({0x90, 0x00, 0x78, 0x03, 0x02, 0x02, 0x02, 0x09, 0x0F, 0x02, 0x02, 0x02, 0x02, 0x58, 0x02, 0x02,
                  0x02, 0x60, 0x00, 0x98, 0x01, 0x02, 0x02});
    unsigned char one[1];
    size_t got = 0;
    ASSERT_EQ(m_Client.Read(one, 1, got), 132u);
    EXPECT_EQ(m_Client.Skip(), 1u);
    EXPECT_EQ(m_Client.EndRequest(), 1u);
    EXPECT_EQ(m_Client.CanRead(), 131u);
}

TEST(ChannelReader, PeerClosingInsideAFrameIsDataMissing) {
    const std::vector<Bytes> cuts = {{0xB3, 0x01}, {0x98, 0x05, 'a', 'b'}, {0x78, 0x0A, 1, 2, 3}, {0x70, 0x20, 0x78, 0x20, 1}};
    for (const Bytes& cut : cuts) {
        CRawPair pair;
        KEL::Sockets::CKelSocketClient client;
        pair.Send({0xA9, 0x01, 0x00});
        ASSERT_EQ(client.Attach(pair.socket, kAppId), 1u);
        pair.Send(Cat({0x90, 0x00}, cut));
        unsigned int ack = 0;
        ASSERT_EQ(client.StartRequest(1), 1u);
        ASSERT_EQ(client.WaitForAck(ack), 1u);
        pair.ShutdownRaw();
        unsigned int code = 0;
        if (cut[0] == 0xB3) {
            int v;
            code = RaisedCode([&] { client >> v; });
        } else if (cut[0] == 0x98) {
            std::string s;
            code = RaisedCode([&] { client >> s; });
        } else if (cut[0] == 0x78) {
            unsigned char buf[16];
            size_t got = 0;
            code = client.Read(buf, sizeof buf, got);
        } else {
            FILE* f = std::tmpfile();
            ASSERT_NE(f, nullptr);
            code = RaisedCode([&] { client >> f; });
            std::fclose(f);
        }
        EXPECT_EQ(code, 0x2001002Fu) << std::hex << cut[0];
        if (cut[0] == 0x78) {
            // The rest of the block is still owed: skipping it meets the end as well.
            EXPECT_EQ(client.Skip(), 0x2001002Fu);
        } else {
            // The end of the connection reads as STC_Close, which Skip does not pass.
            EXPECT_EQ(client.Skip(), 0x20010028u);
            EXPECT_EQ(LastMessage(), "STC_EndAck expected, 0 received");
        }
    }
}

TEST_F(RawServerTest, WritersAndReadersCheckTheStateAndTheFlag) {
    int v = 0;
    EXPECT_EQ(RaisedCode([&] { m_Client << 1; }), 0x20010027u);
    EXPECT_EQ(LastMessage(), "Current=1, expected=ST_Send");
    EXPECT_EQ(m_Client.GetState(), CKelSocket::ST_Idle | CKelSocket::ST_Error);
    EXPECT_EQ(RaisedCode([&] { m_Client >> v; }), 0x2001002Au);
    EXPECT_EQ(m_Client.StartRequest(1), 0x2001002Au);
    EXPECT_EQ(m_Client.GetState(), 129u);
    // Skip clears the flag, but an idle client has nothing to skip: flagged again.
    EXPECT_EQ(m_Client.Skip(), 0x20010027u);
    EXPECT_EQ(LastMessage(), "Current=1, expected=ST_Read/ST_ReadBlock");
    EXPECT_EQ(m_Client.GetState(), 129u);
}

TEST_F(RawServerTest, AFailedClientOperationLeavesExactly129) {
    m_Pair.Send({0xB0, 0x40});
    ASSERT_EQ(m_Client.StartRequest(1), 1u);
    unsigned int ack = 0;
    EXPECT_EQ(m_Client.WaitForAck(ack), 0x2001002Cu);
    EXPECT_EQ(m_Client.GetState(), 129u);
    EXPECT_EQ(m_Client.EndRequest(), 0x2001002Au);
}

TEST_F(RawServerTest, EventsAreFetchedOnlyAfterANotice) {
    unsigned long long events = 99;
    EXPECT_EQ(m_Client.GetEvents(events), 1u);
    EXPECT_EQ(events, 0u);
    EXPECT_EQ(m_Client.CanRead(), 131u);
    m_Pair.Send({0x05, 0x03, 0x05});
    EXPECT_EQ(m_Client.Wait(kHangGuardMs), 1u);
    Bytes query;
    std::thread server([&] {
        query = m_Pair.Recv(1);
        m_Pair.Send({0x05, 0xA1, 0x01, 0x02});
    });
    EXPECT_EQ(m_Client.GetEvents(events), 1u);
    server.join();
    EXPECT_EQ(query, Bytes{0x04});
    EXPECT_EQ(events, 0x102u);
    EXPECT_EQ(m_Client.GetEvents(events), 1u);
    EXPECT_EQ(events, 0u);
}

TEST_F(RawClientTest, SetEventsTwiceSendsOneNoticeAndAQueryGetsTheUnion) {
    ASSERT_EQ(m_Server.SetEvents(0x1), 1u);
    ASSERT_EQ(m_Server.SetEvents(0x40), 1u);
    ASSERT_EQ(m_Server.SendKeepAlive(), 1u);
    EXPECT_EQ(m_Pair.Recv(2), (Bytes{0x03, 0x05}));
    EXPECT_EQ(m_Server.GetPendingEvents(), 0x41u);
    m_Pair.Send({0x04});
    unsigned int code = 0;
    EXPECT_EQ(m_Server.WaitForRequest(code), 130u);
    EXPECT_EQ(m_Pair.Recv(2), (Bytes{0xA0, 0x41}));
    EXPECT_EQ(m_Server.GetPendingEvents(), 0u);
    ASSERT_EQ(m_Server.SetEvents(0x2), 1u);
    EXPECT_EQ(m_Pair.Recv(1), Bytes{0x03});
}

TEST_F(RawClientTest, RequestCycleBytesAndServerSkip) {
    RawRequest({0xC3, 0x98, 0x01, 'z', 0x78, 0x02, 9, 9});
    int three = 0;
    m_Server >> three;
    EXPECT_EQ(three, 3);
    // Parameters left unread: the acknowledge is refused until Skip.
    EXPECT_EQ(m_Server.SendAck(4), 0x20010028u);
    EXPECT_EQ(LastMessage(), "STC_WaitAck expected, 152 received");
    EXPECT_EQ(m_Server.GetState(), CKelSocket::ST_Read | CKelSocket::ST_Error);
    EXPECT_EQ(m_Server.Skip(), 1u);
    ASSERT_EQ(m_Server.SendAck(4), 1u);
    m_Server << -200;
    ASSERT_EQ(m_Server.EndAck(), 1u);
    EXPECT_EQ(m_Pair.Recv(5), (Bytes{0x90, 0x04, 0xB8, 0xC8, 0x02}));
    m_Pair.ShutdownRaw();
    unsigned int code = 0;
    EXPECT_EQ(m_Server.WaitForRequest(code), 133u);
    EXPECT_EQ(m_Server.GetState(), CKelSocket::ST_Closed);
    EXPECT_EQ(m_Server.Close(), 1u);
    EXPECT_EQ(m_Server.GetState(), CKelSocket::ST_Detached);
}

TEST_F(RawClientTest, CheckRequestDoesNotBlockAndFindsTheNextRequest) {
    unsigned int code = 0;
    EXPECT_EQ(m_Server.CheckRequest(code), 131u);
    m_Pair.Send({0x88, 0x2A, 0x01});
    KEL::Threading::CWaiter waiter;
    waiter << static_cast<KEL::Threading::CWaitHandle>(m_Server);
    ASSERT_EQ(waiter.Wait(kHangGuardMs), 1u);
    EXPECT_EQ(m_Server.CheckRequest(code), 1u);
    EXPECT_EQ(code, 42u);
}

TEST_F(RawClientTest, ServerStateErrorsSetTheFlagOverTheState) {
    EXPECT_EQ(m_Server.EndAck(), 0x20010027u);
    EXPECT_EQ(LastMessage(), "Current=1, expected=ST_Send");
    EXPECT_EQ(m_Server.GetState(), CKelSocket::ST_Idle | CKelSocket::ST_Error);
    unsigned int code = 0;
    EXPECT_EQ(m_Server.WaitForRequest(code), 0x2001002Au);
    EXPECT_EQ(m_Server.GetState(), CKelSocket::ST_Idle | CKelSocket::ST_Error);
}

TEST_F(RawServerTest, LongRequestsCrossTheBufferBoundaryIntact) {
    // 700 three-byte numbers and strings of every length around a segment's end: the buffer
    // is sent whenever it cannot take the next item, never a byte lost or doubled.
    Bytes expected = {0x88, 0x01};
    const Bytes wire = Request(
        1, {0x90, 0x00, 0x02},
        [&](CKelSocket& c) {
            for (int i = 0; i < 700; ++i) {
                c << 300 + i;
                expected.insert(expected.end(), {0xB1, static_cast<unsigned char>((300 + i) >> 8),
                                                 static_cast<unsigned char>(300 + i)});
            }
            for (size_t n = 1; n < 40; ++n) {
                const std::string s(n, static_cast<char>('a' + n % 26));
                c << s;
                expected.insert(expected.end(), {0x98, static_cast<unsigned char>(n)});
                expected.insert(expected.end(), s.begin(), s.end());
            }
        },
        2 + 2100 + 39 * 2 + 780);
    EXPECT_EQ(wire.size(), expected.size());
    EXPECT_TRUE(wire == expected);
}

TEST_F(RawServerTest, StreamOperatorsThrowWhateverTheThreadsThrowMode) {
    ASSERT_EQ(KEL::Threading::CThrowState::GetThrow(), 0u);
    int v = 0;
    EXPECT_THROW(m_Client >> v, KEL::Exceptions::CKelException);
    EXPECT_EQ(KEL::Exceptions::ThreadErrorLog().GetError(), 0x20010027u);
    // Public operations return the status instead.
    EXPECT_EQ(m_Client.EndRequest(), 0x2001002Au);
}
