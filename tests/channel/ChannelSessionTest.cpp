// kelbase - tests/channel/ChannelSessionTest.cpp
//
// Both channel ends on TCP loopback, the server on its own thread: the handshake and its
// refusals, time-outs, whole exchanges with events, large blocks through the direct paths,
// files, and closing from either side.
#include "ChannelTestUtil.h"

#include <cstdio>
#include <functional>
#include <random>
#include <thread>

using namespace kel_channel_test;
using KEL::Sockets::CKelSocket;
using KEL::Sockets::CKelSocketClient;
using KEL::Sockets::CKelSocketServer;
using KEL::Sockets::CSocket;

namespace {

// A connected loopback pair; the server end runs `serve` on a thread of its own.
class LoopbackTest : public kel_test::TLoopbackPair<CSocket> {
protected:
    void TearDown() override {
        if (m_Thread.joinable()) m_Thread.join();
    }
    void Serve(std::function<void(CKelSocketServer&)> serve, unsigned int appId = kAppId) {
        m_Thread = std::thread([this, serve, appId] {
            m_uServerAttach = m_Channel.Attach(m_Server, appId);
            if (m_uServerAttach == 1u) serve(m_Channel);
        });
    }
    void Join() { m_Thread.join(); }

    CKelSocketServer m_Channel;
    std::thread m_Thread;
    unsigned int m_uServerAttach = 0;
};

std::string TempPath(const char* tag) {
    return ::testing::TempDir() + "kel_channel_" + tag + "_" + std::to_string(::getpid());
}

} // namespace

TEST_F(LoopbackTest, AWholeExchangeWithEventsAndAClose) {
    unsigned long long serverEventsAfter = 1;
    unsigned int closed = 0;
    Serve([&](CKelSocketServer& s) {
        unsigned int code = 0;
        ASSERT_EQ(s.WaitForRequest(code), 1u);
        EXPECT_EQ(code, 0x1234u);
        long long big = 0;
        std::string name;
        KEL::Strings::CStringVar var;
        s >> big >> name >> var;
        EXPECT_EQ(big, -5000000000ll);
        EXPECT_EQ(name, "volume");
        EXPECT_EQ(std::string(var.data(), var.Length()), "");
        ASSERT_EQ(s.SendAck(7), 1u);
        s << 42u << std::string("done");
        ASSERT_EQ(s.EndAck(), 1u);
        ASSERT_EQ(s.SetEvents(0x10), 1u);
        ASSERT_EQ(s.SetEvents(0x01), 1u);
        ASSERT_EQ(s.WaitForRequest(code), 130u); // the events query
        serverEventsAfter = s.GetPendingEvents();
        closed = s.WaitForRequest(code);
        EXPECT_EQ(s.Close(), 1u);
    });
    CKelSocketClient c;
    ASSERT_EQ(c.Attach(m_Client, kAppId), 1u);
    EXPECT_EQ(c.GetPeerVersion(), 1u);
    ASSERT_EQ(c.StartRequest(0x1234), 1u);
    c << -5000000000ll << "volume" << KEL::Strings::CSubStringRef("");
    unsigned int ack = 0;
    ASSERT_EQ(c.WaitForAck(ack), 1u);
    EXPECT_EQ(ack, 7u);
    unsigned int answer = 0;
    std::string text;
    c >> answer >> text;
    EXPECT_EQ(answer, 42u);
    EXPECT_EQ(text, "done");
    ASSERT_EQ(c.EndRequest(), 1u);
    ASSERT_EQ(c.Wait(kHangGuardMs), 1u);
    unsigned long long events = 0;
    ASSERT_EQ(c.GetEvents(events), 1u);
    EXPECT_EQ(events, 0x11u);
    EXPECT_EQ(c.Close(), 1u);
    EXPECT_EQ(c.GetState(), CKelSocket::ST_Detached);
    EXPECT_FALSE(c.IsAttached());
    Join();
    EXPECT_EQ(serverEventsAfter, 0u);
    EXPECT_EQ(closed, 133u);
    EXPECT_EQ(c.Close(), 1u); // nothing to do any more
}

TEST_F(LoopbackTest, AWrongApplicationIdIsRefusedOnBothSides) {
    Serve([](CKelSocketServer&) {}, kAppId + 1);
    CKelSocketClient c;
    EXPECT_EQ(c.Attach(m_Client, kAppId), 0x2001002Eu);
    EXPECT_EQ(c.GetState(), CKelSocket::ST_Detached);
    EXPECT_FALSE(m_Client.IsConnected()); // aborted
    Join();
    EXPECT_EQ(m_uServerAttach, 0x2001002Du);
    EXPECT_FALSE(m_Channel.IsAttached());
}

TEST_F(LoopbackTest, LargeBlocksAndFilesArriveWhole) {
    std::mt19937 rng(7);
    std::vector<unsigned char> block(1 << 20);
    for (auto& b : block) b = static_cast<unsigned char>(rng());
    const std::string inPath = TempPath("in"), outPath = TempPath("out");
    const size_t fileSize = 3 * 1024 * 1024 + 1234; // not a multiple of 4096
    {
        FILE* f = std::fopen(inPath.c_str(), "wb");
        ASSERT_NE(f, nullptr);
        for (size_t i = 0; i < fileSize; ++i) std::fputc(static_cast<int>((i * 131) >> 3 & 0xFF), f);
        std::fclose(f);
    }
    std::vector<unsigned char> received;
    Serve([&](CKelSocketServer& s) {
        unsigned int code = 0;
        ASSERT_EQ(s.WaitForRequest(code), 1u);
        std::vector<unsigned char> buf(70000);
        size_t got = 0;
        unsigned int r;
        while ((r = s.Read(buf.data(), buf.size(), got)) == 132u) received.insert(received.end(), buf.begin(), buf.begin() + static_cast<long>(got));
        EXPECT_EQ(r, 1u);
        received.insert(received.end(), buf.begin(), buf.begin() + static_cast<long>(got));
        ASSERT_EQ(s.SendAck(0), 1u);
        FILE* in = std::fopen(inPath.c_str(), "rb");
        s << in;
        std::fclose(in);
        ASSERT_EQ(s.EndAck(), 1u);
    });
    CKelSocketClient c;
    ASSERT_EQ(c.Attach(m_Client, kAppId), 1u);
    ASSERT_EQ(c.StartRequest(1), 1u);
    // One block in uneven pieces: a large write, a small one, another large one.
    c.Write(block.data(), 300000).Write(block.data() + 300000, 100, 1).Write(block.data() + 300100, block.size() - 300100, 1);
    unsigned int ack = 0;
    ASSERT_EQ(c.WaitForAck(ack), 1u);
    FILE* out = std::fopen(outPath.c_str(), "wb");
    ASSERT_NE(out, nullptr);
    c >> out;
    std::fclose(out);
    EXPECT_EQ(c.EndRequest(), 1u);
    Join();
    EXPECT_TRUE(received == block);
    FILE* a = std::fopen(inPath.c_str(), "rb");
    FILE* b = std::fopen(outPath.c_str(), "rb");
    ASSERT_TRUE(a && b);
    size_t n = 0;
    int x, y;
    bool same = true;
    while ((x = std::fgetc(a)) != EOF) {
        y = std::fgetc(b);
        same = same && x == y;
        ++n;
    }
    EXPECT_EQ(std::fgetc(b), EOF);
    EXPECT_TRUE(same);
    EXPECT_EQ(n, fileSize);
    std::fclose(a);
    std::fclose(b);
    std::remove(inPath.c_str());
    std::remove(outPath.c_str());
}

TEST_F(RawClientTest, FileCutShortByAnotherCommandIsBytesMissing) {
    // 5000 bytes announced, one 4096-byte piece, then the end of the request.
    Bytes request = {0xC1, 0x71, 0x13, 0x88, 0x79, 0x10, 0x00};
    request.resize(request.size() + 4096, 0x5A);
    RawRequest(request);
    int one = 0;
    m_Server >> one;
    FILE* f = std::tmpfile();
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(RaisedCode([&] { m_Server >> f; }), 0x2001002Fu);
    EXPECT_EQ(LastMessage(), "904 Bytes missing");
    EXPECT_EQ(std::ftell(f), 4096);
    std::fclose(f);
    // The end of the request was put back: Skip and answer.
    EXPECT_EQ(m_Server.Skip(), 1u);
    EXPECT_EQ(m_Server.SendAck(0), 1u);
}

TEST_F(RawServerTest, ASilentServerEndsInATimeOut) {
    m_Pair.socket.SetTimeout(50);
    ASSERT_EQ(m_Client.StartRequest(1), 1u);
    unsigned int ack = 0;
    EXPECT_EQ(m_Client.WaitForAck(ack), 0x20010022u);
    EXPECT_EQ(m_Client.GetState(), 129u);
}

TEST(ChannelHandshake, ClientSendsIdAndVersionAndTakesTheAnswersVersionByte) {
    CRawPair pair;
    pair.Send({0x05, 0xA9, 0x02, 0x00});
    CKelSocketClient c;
    ASSERT_EQ(c.Attach(pair.socket, 0x01020304u), 1u);
    EXPECT_EQ(pair.Recv(7), (Bytes{0x01, 0x02, 0x03, 0x04, 0xA9, 0x01, 0x00}));
    EXPECT_EQ(c.GetPeerVersion(), 2u);
    EXPECT_EQ(c.Attach(pair.socket, 0x01020304u), 0x2001002Bu);
    EXPECT_TRUE(pair.socket.IsConnected()); // the attached socket is left alone
    EXPECT_EQ(c.GetState(), CKelSocket::ST_Idle);
}

TEST(ChannelHandshake, ClientRejectsAWrongAnswerAndAbortsItsSocket) {
    const std::vector<std::pair<Bytes, unsigned int>> answers = {
        {{0xAA, 0x01, 0x01, 0x00}, 0x2001002Eu}, {{0xB1, 0x01, 0x00}, 0x2001002Cu}, {{}, 0x2001002Cu}};
    for (const auto& a : answers) {
        CRawPair pair;
        pair.Send(a.first);
        if (a.first.empty()) pair.ShutdownRaw(); // the end of the connection reads as STC_Close
        CKelSocketClient c;
        EXPECT_EQ(c.Attach(pair.socket, kAppId), a.second);
        EXPECT_EQ(c.GetState(), CKelSocket::ST_Detached);
        EXPECT_EQ(pair.socket.GetNativeHandle(), CSocket::kNoHandle);
    }
}

TEST(ChannelHandshake, ServerRefusesAVersionWithALowByteAndWaitsForTheClientToGo) {
    CRawPair pair;
    pair.Send(Cat(IdBytes(kAppId), {0xAA, 0x01, 0x00, 0x01}));
    pair.ShutdownRaw();
    CKelSocketServer s;
    EXPECT_EQ(s.Attach(pair.socket, kAppId), 0x2001002Du);
    EXPECT_EQ(pair.RecvToEnd(), (Bytes{0xAA, 0x01, 0x01, 0x00}));
    EXPECT_FALSE(s.IsAttached());
}

TEST_F(RawServerTest, AbortDetachesAtOnceAndADetachedChannelHasNoWaitHandle) {
    ASSERT_EQ(m_Client.StartRequest(1), 1u);
    m_Client << 5;
    EXPECT_EQ(m_Client.Abort(), 1u);
    EXPECT_EQ(m_Client.GetState(), CKelSocket::ST_Detached);
    EXPECT_EQ(m_Pair.socket.GetNativeHandle(), CSocket::kNoHandle);
    EXPECT_TRUE(m_Pair.RecvToEnd().empty()); // the unsent request never left
    EXPECT_EQ(RaisedCode([&] { (void)static_cast<KEL::Threading::CWaitHandle>(m_Client); }), 0x2001001Eu);
    CKelSocketServer idle;
    EXPECT_EQ(idle.Close(), 0x2001001Eu);
}

namespace {

// A socket class that reports the peer's close once and raises it on every later read, as a
// secure socket may: the channel must still see a clean STC_Close each time.
class CCloseOnceSocket : public CSocket {
public:
    using CSocket::Read;
    unsigned int Read(void* buffer, size_t size, size_t* got, KEL::Sockets::READ_MODE mode) override {
        if (m_bReported) KEL_RAISE(0x20010024u, "Socket connection closed by peer");
        const unsigned int r = CSocket::Read(buffer, size, got, mode);
        if (r == KEL::URET_PeerClosed) {
            m_bReported = true;
            m_bClosedByPeer = false;
        }
        return r;
    }

private:
    bool m_bReported = false;
};

} // namespace

TEST(ChannelOverOtherSockets, ACloseRaisedByTheSocketIsStillJustTheEnd) {
    int fds[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    CCloseOnceSocket socket;
    socket.Attach(static_cast<unsigned long long>(fds[0]));
    const unsigned char answer[] = {0xA9, 0x01, 0x00};
    ASSERT_EQ(::send(fds[1], answer, 3, 0), 3);
    CKelSocketClient c;
    ASSERT_EQ(c.Attach(socket, kAppId), 1u);
    ::shutdown(fds[1], SHUT_WR);
    unsigned long long events = 7;
    // The first look meets the reported close, the second the raised one: both are the end.
    EXPECT_EQ(c.Wait(kHangGuardMs), 1u);
    EXPECT_EQ(c.GetEvents(events), 1u);
    EXPECT_EQ(c.GetEvents(events), 1u);
    EXPECT_EQ(events, 0u);
    c.Abort();
    ::close(fds[1]);
}
