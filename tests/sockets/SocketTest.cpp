// kelbase - tests/sockets/SocketTest.cpp
//
// Sockets on loopback: connecting and accepting in both families, the read modes and their
// results, the peer-close and time-out rules, sockets in list waits beside events and
// interrupts, and address resolution.
#include "../common/TestUtil.h"

#include <kel/Exceptions.h>
#include <kel/Sockets.h>
#include <kel/Threading.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

using namespace KEL::Sockets;
using KEL::Threading::CEvent;
using KEL::Threading::CThread;
using KEL::Threading::CWaiter;
using kel_test::Fn;
using kel_test::kHangGuardMs;
using kel_test::NewEvent;
using kel_test::RaisedCode;

namespace {

// A listener on a free loopback port with one accepted connection.
class SocketPair : public ::testing::Test {
protected:
    bool Open(bool ipv6) {
        m_Listener.StartListen(0, ipv6 ? 1 : 0);
        m_nPort = m_Listener.GetLocalAddr().GetPort();
        try {
            m_Client.Connect(std::string(ipv6 ? "::1" : "127.0.0.1"), m_nPort);
        } catch (const KEL::Exceptions::CKelException&) {
            return false;
        }
        EXPECT_EQ(m_Listener.Wait(kHangGuardMs), 1u);
        EXPECT_TRUE(m_Listener.CanAccept());
        EXPECT_EQ(m_Listener.Accept(m_Server), 1u);
        return true;
    }
    void SetUp() override { ASSERT_TRUE(Open(false)); }

    CSocketListener m_Listener;
    CSocket m_Client;
    CSocket m_Server;
    unsigned int m_nPort = 0;
};

std::string Text(CSocketAddr addr) {
    std::string s;
    addr.GetAddress(s);
    return s;
}

class SocketPair6 : public SocketPair {
protected:
    void SetUp() override {
        if (!Open(true)) GTEST_SKIP() << "no IPv6 loopback";
    }
};

} // namespace

TEST_F(SocketPair, ConnectAndAcceptOverIPv4SeeEachOthersAddresses) {
    EXPECT_TRUE(m_Client.IsConnected());
    EXPECT_TRUE(m_Server.IsConnected());
    EXPECT_EQ(Text(m_Client.GetPeerAddr()), "127.0.0.1");
    EXPECT_EQ(m_Client.GetPeerAddr().GetPort(), m_nPort);
    EXPECT_EQ(m_Server.GetLocalAddr().GetPort(), m_nPort);
    EXPECT_TRUE(m_Server.GetPeerAddr() == m_Client.GetLocalAddr());
    EXPECT_EQ(m_Client.CheckNegotiation(), 1u);
}

TEST_F(SocketPair6, ConnectAndAcceptOverIPv6FormatEightGroups) {
    EXPECT_EQ(Text(m_Client.GetPeerAddr()), "0:0:0:0:0:0:0:1");
    EXPECT_EQ(m_Client.GetPeerAddr().GetFamily(), m_Listener.GetLocalAddr().GetFamily());
    const char msg[] = "v6";
    m_Client.Write(msg, 2, nullptr);
    char in[2];
    EXPECT_EQ(m_Server.Read(in, 2), 1u);
    EXPECT_EQ(std::memcmp(in, msg, 2), 0);
}

TEST_F(SocketPair, CompleteReadCollectsBytesSentInPieces) {
    std::thread writer([&] {
        for (int i = 0; i < 3; ++i) {
            const char piece[4] = {char('a' + i), char('a' + i), char('a' + i), char('a' + i)};
            m_Server.Write(piece, 4, nullptr);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    char in[12];
    EXPECT_EQ(m_Client.Read(in, sizeof in), 1u);
    writer.join();
    EXPECT_EQ(std::string(in, 12), "aaaabbbbcccc");
}

TEST_F(SocketPair, PartialReadReturnsWhatIsThereThenWouldBlock) {
    m_Server.Write("hello", 5, nullptr);
    ASSERT_EQ(m_Client.Wait(kHangGuardMs), 1u);
    EXPECT_TRUE(m_Client.CanRead());
    char in[100];
    size_t got = 99;
    EXPECT_EQ(m_Client.Read(in, sizeof in, &got), 1u);
    EXPECT_EQ(got, 5u);
    EXPECT_EQ(std::string(in, 5), "hello");
    EXPECT_EQ(m_Client.Read(in, sizeof in, &got), 131u);
    EXPECT_EQ(got, 0u);
    EXPECT_FALSE(m_Client.CanRead());
}

TEST_F(SocketPair, PeekLeavesTheBytesForTheNextRead) {
    m_Server.Write("abcdef", 6, nullptr);
    char in[6];
    EXPECT_EQ(m_Client.Read(in, 4, nullptr, RM_Peek), 1u);
    EXPECT_EQ(std::string(in, 4), "abcd");
    EXPECT_EQ(m_Client.Read(in, 6), 1u);
    EXPECT_EQ(std::string(in, 6), "abcdef");
}

TEST_F(SocketPair, LargeCompleteWriteWaitsForTheReader) {
    std::vector<char> out(4u << 20);
    for (size_t i = 0; i < out.size(); ++i) out[i] = static_cast<char>(i * 7);
    std::vector<char> in(out.size());
    std::thread reader([&] { m_Server.Read(in.data(), in.size()); });
    EXPECT_EQ(m_Client.Write(out.data(), out.size(), nullptr), 1u);
    reader.join();
    EXPECT_TRUE(in == out);
}

TEST_F(SocketPair, PartialReadAfterPeerCloseReturns134OnceThenRaises) {
    m_Server.Write("x", 1, nullptr);
    m_Server.Close();
    char in[8];
    EXPECT_EQ(m_Client.Read(in, 1), 1u);
    ASSERT_EQ(m_Client.Wait(kHangGuardMs), 1u);
    size_t got = 5;
    EXPECT_EQ(m_Client.Read(in, sizeof in, &got), 134u);
    EXPECT_EQ(got, 0u);
    EXPECT_TRUE(m_Client.IsClosedByPeer());
    EXPECT_TRUE(m_Client.IsClosed());
    EXPECT_TRUE(m_Client.CanRead());
    EXPECT_EQ(RaisedCode([&] { m_Client.Read(in, sizeof in, &got); }), 0x20010024u);
    EXPECT_EQ(RaisedCode([&] { m_Client.Write("y", 1, nullptr); }), 0x20010024u);
}

TEST_F(SocketPair, CompleteReadMeetingTheCloseRaisesClosedByPeer) {
    m_Server.Write("ab", 2, nullptr);
    m_Server.Shutdown(SM_Send);
    char in[4];
    EXPECT_EQ(RaisedCode([&] { m_Client.Read(in, sizeof in); }), 0x20010024u);
}

TEST_F(SocketPair, CompleteReadPastTheTimeoutRaisesSocketTimeout) {
    EXPECT_EQ(m_Client.SetTimeout(30), 0xFFFFFFFFu);
    EXPECT_EQ(m_Client.GetTimeout(), 30u);
    char in[4];
    EXPECT_EQ(RaisedCode([&] { m_Client.Read(in, sizeof in); }), 0x20010022u);
    EXPECT_EQ(m_Client.Wait(0), 130u);
    EXPECT_EQ(RaisedCode([&] { m_Client.Wait(); }), 0x20010022u);
    // The socket stays usable.
    m_Server.Write("z", 1, nullptr);
    EXPECT_EQ(m_Client.Read(in, 1), 1u);
}

TEST_F(SocketPair, StartConnectOnAConnectedSocketIsRefused) {
    CSocketAddr addr;
    addr.Resolve(std::string("127.0.0.1"), m_nPort);
    EXPECT_EQ(RaisedCode([&] { m_Client.StartConnect(addr); }), 0x20010020u);
    EXPECT_EQ(RaisedCode([&] { m_Server.Attach(m_Client.GetNativeHandle()); }), 0x20010020u);
}

TEST_F(SocketPair, ConnectTriesTheAddressesInOrderUntilOneAnswers) {
    // Nobody listens on the IPv6 loopback at this port (the listener is IPv4 only).
    CSocketAddr list, v4;
    list.Resolve(std::string("::1"), m_nPort);
    v4.Resolve(std::string("127.0.0.1"), m_nPort);
    list.Append(v4).Append(v4);
    ASSERT_EQ(list.Count(), 3u);
    EXPECT_TRUE(list[1] == v4);
    CSocket s;
    EXPECT_EQ(s.Connect(list), 1u);
    EXPECT_EQ(s.GetPeerAddr().GetFamily(), v4.GetFamily());
    EXPECT_EQ(s.GetSocketError(), 0u);
    EXPECT_EQ(RaisedCode([&] { s.Connect(list); }), 0x20010020u);
}

TEST_F(SocketPair, WaitAllOverASocketIsRefused) {
    CEvent ev = NewEvent(true, true);
    CWaiter w;
    w << ev << m_Client;
    EXPECT_EQ(RaisedCode([&] { w.Wait(0, true); }), 0x20010037u);
}

TEST_F(SocketPair, AcceptWithNothingPendingWouldBlockAndRawAcceptGivesAHandle) {
    unsigned long long raw = CSocket::kNoHandle;
    EXPECT_EQ(m_Listener.Accept(raw), 131u);
    CSocket second;
    second.ConnectLocal(m_nPort);
    ASSERT_EQ(m_Listener.Wait(kHangGuardMs), 1u);
    ASSERT_EQ(m_Listener.Accept(raw), 1u);
    CSocket attached;
    EXPECT_EQ(attached.Attach(raw), 1u);
    second.Write("q", 1, nullptr);
    char c = 0;
    EXPECT_EQ(attached.Read(&c, 1), 1u);
    EXPECT_EQ(c, 'q');
}

TEST_F(SocketPair, SocketAndEventShareOneWaiter) {
    CEvent ev = NewEvent(false, false);
    CWaiter w;
    w << m_Client << ev;
    EXPECT_EQ(w.Wait(0), 130u);
    ev.Set();
    EXPECT_EQ(w.Wait(kHangGuardMs), 2u);
    EXPECT_FALSE(m_Client.CanRead());
    std::thread writer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        m_Server.Write("w", 1, nullptr);
    });
    EXPECT_EQ(w.Wait(kHangGuardMs), 1u);
    writer.join();
    EXPECT_TRUE(m_Client.CanRead());
    // A signalled object goes before a readable socket (the auto-reset event is taken), the
    // unread byte keeps the socket ready afterwards.
    ev.Set();
    EXPECT_EQ(w.Wait(kHangGuardMs), 2u);
    EXPECT_EQ(w.Wait(kHangGuardMs), 1u);
}

TEST_F(SocketPair, CloseByPeerWakesAListWaiterWithCanRead) {
    CWaiter w;
    w << m_Client;
    m_Server.Abort();
    EXPECT_EQ(w.Wait(kHangGuardMs), 1u);
    EXPECT_TRUE(m_Client.CanRead());
    EXPECT_TRUE(m_Client.GetStatus() & CSocket::ST_Close);
}

TEST_F(SocketPair, CancelEndsASocketWaitWithThreadInterrupt) {
    CEvent waiting = NewEvent(true, false);
    std::atomic<unsigned int> code{0};
    CThread t;
    t.Create(Fn([&] {
        waiting.Set();
        char c;
        code = RaisedCode([&] { m_Client.Read(&c, 1); });
    }));
    ASSERT_EQ(waiting.Wait(kHangGuardMs), 1u);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    t.Cancel();
    ASSERT_EQ(t.Wait(kHangGuardMs), 1u);
    EXPECT_EQ(code.load(), 0x2001003Au);
}

TEST_F(SocketPair, UserWaitInterruptEndsACompleteReadWithWaitInterrupt) {
    KEL::Threading::CWaitInterrupt intr;
    ASSERT_EQ(intr.Init(), 1u);
    CEvent waiting = NewEvent(true, false);
    std::atomic<unsigned int> code{0};
    CThread t;
    t.Create(Fn([&] {
        KEL::Threading::CCurrentThread ct;
        ct.SetWaitInterrupt(intr);
        KEL::Threading::CSyncGuard g;
        ct.EnableInterrupt(g, KEL::Threading::CCurrentThread::UserInterruptOnly);
        waiting.Set();
        char c[2];
        code = RaisedCode([&] { m_Client.Read(c, 2); });
        ct.SetWaitInterrupt(nullptr);
    }));
    ASSERT_EQ(waiting.Wait(kHangGuardMs), 1u);
    m_Server.Write("1", 1, nullptr); // half of what the reader wants: it is inside its wait
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    intr.Set();
    ASSERT_EQ(t.Wait(kHangGuardMs), 1u);
    EXPECT_EQ(code.load(), 0x2001003Bu);
}

TEST(SocketUnconnected, CloseWithoutHandleDoesNothingAndIoIsRefused) {
    CSocket s;
    EXPECT_EQ(s.Close(), 1u);
    EXPECT_EQ(s.Abort(), 1u);
    EXPECT_TRUE(s.IsClosed());
    EXPECT_EQ(s.GetStatus(), 0u);
    char c;
    EXPECT_EQ(RaisedCode([&] { s.Read(&c, 1); }), 0x2001001Eu);
    EXPECT_EQ(RaisedCode([&] { s.Write(&c, 1, nullptr); }), 0x2001001Eu);
    EXPECT_EQ(RaisedCode([&] { s.Wait(0); }), 0x2001001Eu);
}

TEST(SocketUnconnected, ConnectToAClosedPortRaisesSocketError) {
    CSocketListener l;
    l.StartListen(0, 0);
    const unsigned int port = l.GetLocalAddr().GetPort();
    l.StopListen();
    CSocket s;
    EXPECT_EQ(RaisedCode([&] { s.ConnectLocal(port); }), 0x2001001Fu);
    EXPECT_NE(s.GetSocketError(), 0u);
    EXPECT_TRUE(s.IsClosed());
}

TEST(SocketListener, AcceptAndWaitWithoutListeningAreRefused) {
    CSocketListener l;
    CSocket s;
    unsigned long long raw;
    EXPECT_EQ(RaisedCode([&] { l.Accept(s); }), 0x20010025u);
    EXPECT_EQ(RaisedCode([&] { l.Accept(raw); }), 0x20010025u);
    EXPECT_EQ(RaisedCode([&] { l.Wait(0); }), 0x20010025u);
    EXPECT_EQ(l.StopListen(), 1u);
}

TEST(SocketListener, SecondListenerOnABusyPortFails) {
    CSocketListener a, b;
    a.StartListen(0, 0);
    const unsigned int port = a.GetLocalAddr().GetPort();
    EXPECT_EQ(RaisedCode([&] { b.StartListen(port, 0); }), 0x2001001Fu);
    EXPECT_FALSE(b.IsListening());
}

TEST(SocketAddr, ResolveFailuresNameHostAndPort) {
    CSocketAddr a;
    EXPECT_EQ(RaisedCode([&] { a.Resolve(std::string("no-such-host.invalid"), 80); }), 0x2001001Cu);
    const char* msg = KEL::Exceptions::ThreadErrorLog().GetErrorMsg(0);
    ASSERT_NE(msg, nullptr);
    EXPECT_STREQ(msg, "CSocketAddr::Resolve(no-such-host.invalid, 80)");
    EXPECT_EQ(RaisedCode([&] { a.Resolve(std::string("127.0.0.1"), 65536); }), 0x2001001Cu);
    EXPECT_EQ(RaisedCode([&] { a.Resolve(std::string(""), 80); }), 0x2001001Cu);
    EXPECT_EQ(RaisedCode([&] { a.Resolve(std::string("127.0.0.1\0x", 11), 80); }), 0x2001001Cu);
    EXPECT_EQ(a.Count(), 0u);
}

TEST(SocketAddr, EmptyAddressHasNoInformation) {
    CSocketAddr a;
    std::string s;
    EXPECT_EQ(RaisedCode([&] { a.GetAddress(s); }), 0x2001001Du);
    EXPECT_EQ(a[3].Count(), 0u);
    CSocket sock;
    EXPECT_EQ(RaisedCode([&] { sock.Connect(a); }), 0x2001001Du);
}

TEST(SocketAddr, NumericAddressesFormatAndCompare) {
    CSocketAddr a, b;
    a.Resolve(std::string("10.1.255.0"), 65535);
    ASSERT_EQ(a.Count(), 1u);
    EXPECT_EQ(Text(a), "10.1.255.0");
    EXPECT_EQ(a.GetPort(), 65535u);
    b.Resolve(std::string("fe80:0:0:0:0:0:abc:1"), 1);
    EXPECT_EQ(Text(b), "fe80:0:0:0:0:0:abc:1");
    EXPECT_TRUE(a != b);
    CSocketAddr c(a);
    EXPECT_TRUE(c == a);
    KEL::Strings::CStringVar v;
    b.GetAddress(v);
    EXPECT_STREQ(v.C_Str(), "fe80:0:0:0:0:0:abc:1");
}
