// kelbase - tests/faults/SocketFaultTest.cpp
//
// Plain sockets behind the fault proxy: a stream split into single bytes or held back still
// arrives byte-exact through the complete read; a connection cut after N bytes hands over
// exactly those N bytes and then reports the peer's close; a reset reports the close or the
// socket error; a peer that goes silent ends the read with the socket's time-out.
#include "FaultProxy.h"

#include "../common/TestUtil.h"

#include <kel/Exceptions.h>
#include <kel/Sockets.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

using KEL::Sockets::CSocket;
using KEL::Sockets::CSocketListener;
using kel_test::CFaultProxy;
using kel_test::kHangGuardMs;
using kel_test::RaisedCode;

namespace {

std::vector<char> Pattern(size_t n, unsigned int seed) {
    std::vector<char> v(n);
    for (size_t i = 0; i < n; ++i) v[i] = static_cast<char>((i * 131 + seed) ^ (i >> 8));
    return v;
}

// A listener, the proxy in front of it, one client through the proxy and its accepted peer.
class ProxiedPair : public ::testing::Test {
protected:
    void Connect(const CFaultProxy::Fault& fault) {
        m_Listener.StartListen(0, 0);
        m_pProxy = std::make_unique<CFaultProxy>(m_Listener.GetLocalAddr().GetPort());
        m_pProxy->SetFault(fault);
        m_Client.SetTimeout(kHangGuardMs);
        m_Server.SetTimeout(kHangGuardMs);
        ASSERT_EQ(m_Client.ConnectLocal(m_pProxy->Port()), 1u);
        ASSERT_EQ(m_Listener.Wait(kHangGuardMs), 1u);
        ASSERT_EQ(m_Listener.Accept(m_Server), 1u);
        m_Server.SetTimeout(kHangGuardMs);
    }

    CSocketListener m_Listener;
    std::unique_ptr<CFaultProxy> m_pProxy;
    CSocket m_Client;
    CSocket m_Server;
};

using Fault = CFaultProxy::Fault;
using Kind = CFaultProxy::Kind;
using Direction = CFaultProxy::Direction;

} // namespace

TEST_F(ProxiedPair, SingleByteSegmentsArriveByteExactInBothDirections) {
    Connect(Fault{Kind::SingleBytes, Direction::Both, 0, 0});
    const std::vector<char> up = Pattern(3000, 1), down = Pattern(2500, 2);
    std::thread echo([&] {
        std::vector<char> in(up.size());
        m_Server.Read(in.data(), in.size());
        EXPECT_TRUE(in == up);
        m_Server.Write(down.data(), down.size(), nullptr);
    });
    EXPECT_EQ(m_Client.Write(up.data(), up.size(), nullptr), 1u);
    std::vector<char> in(down.size());
    EXPECT_EQ(m_Client.Read(in.data(), in.size()), 1u);
    echo.join();
    EXPECT_TRUE(in == down);
}

TEST_F(ProxiedPair, PacedSingleBytesAreCollectedByOneCompleteRead) {
    // One byte per millisecond: the reader meets many would-block rounds in a single read.
    Connect(Fault{Kind::SingleBytes, Direction::ClientToServer, 0, 1});
    const std::vector<char> out = Pattern(200, 3);
    m_Client.Write(out.data(), out.size(), nullptr);
    std::vector<char> in(out.size());
    EXPECT_EQ(m_Server.Read(in.data(), in.size()), 1u);
    EXPECT_TRUE(in == out);
}

TEST_F(ProxiedPair, DelayedChunksArriveIntactAndInOrder) {
    Connect(Fault{Kind::Delay, Direction::Both, 0, 150});
    std::vector<char> all;
    for (unsigned int i = 0; i < 4; ++i) {
        const std::vector<char> piece = Pattern(1000 + i * 700, i);
        m_Client.Write(piece.data(), piece.size(), nullptr);
        all.insert(all.end(), piece.begin(), piece.end());
    }
    std::vector<char> in(all.size());
    EXPECT_EQ(m_Server.Read(in.data(), in.size()), 1u);
    EXPECT_TRUE(in == all);
}

TEST_F(ProxiedPair, TruncationHandsOverTheFirstBytesThenThePeersClose) {
    Connect(Fault{Kind::Truncate, Direction::ClientToServer, 777, 0});
    const std::vector<char> out = Pattern(5000, 4);
    m_Client.Write(out.data(), out.size(), nullptr);
    std::vector<char> in(out.size());
    size_t have = 0, got = 0;
    unsigned int r = 1;
    while ((r = m_Server.Read(in.data() + have, in.size() - have, &got)) == 1u || r == 131u) {
        have += got;
        if (r == 131u) {
            ASSERT_EQ(m_Server.Wait(kHangGuardMs), 1u);
        }
    }
    EXPECT_EQ(r, 134u);
    EXPECT_EQ(have, 777u);
    EXPECT_EQ(std::memcmp(in.data(), out.data(), have), 0);
    EXPECT_EQ(m_pProxy->FaultsApplied(), 1u);
}

TEST_F(ProxiedPair, CompleteReadAcrossATruncationRaisesClosedByPeer) {
    Connect(Fault{Kind::Truncate, Direction::ServerToClient, 10, 0});
    m_Server.Write("0123456789abcdef", 16, nullptr);
    char in[16];
    EXPECT_EQ(RaisedCode([&] { m_Client.Read(in, sizeof in); }), 0x20010024u);
    EXPECT_TRUE(m_Client.IsClosedByPeer());
    EXPECT_EQ(std::string(in, 10), "0123456789");
}

TEST_F(ProxiedPair, ResetReportsTheCloseOrTheConnectionReset) {
    Connect(Fault{Kind::Reset, Direction::ClientToServer, 100, 0});
    const std::vector<char> out = Pattern(400, 5);
    m_Client.Write(out.data(), out.size(), nullptr);
    std::vector<char> in(out.size());
    const unsigned int code = RaisedCode([&] { m_Server.Read(in.data(), in.size()); });
    if (code == 0x2001001Fu) {
        EXPECT_EQ(m_Server.GetSocketError(), static_cast<unsigned int>(ECONNRESET));
    } else {
        EXPECT_EQ(code, 0x20010024u);
    }
    // The sending side learns of the reset too, at the latest on its next writes.
    unsigned int writeCode = 0;
    for (int i = 0; i < 200 && writeCode == 0; ++i) {
        writeCode = RaisedCode([&] { m_Client.Write(out.data(), out.size(), nullptr); });
        if (writeCode == 0) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_TRUE(writeCode == 0x2001001Fu || writeCode == 0x20010024u) << std::hex << writeCode;
}

TEST_F(ProxiedPair, APeerHeldBackLongerThanTheTimeOutEndsTheReadWithSocketTimeout) {
    Connect(Fault{Kind::Delay, Direction::ClientToServer, 0, 60000});
    m_Client.Write("late", 4, nullptr);
    m_Server.SetTimeout(50);
    char in[4];
    EXPECT_EQ(RaisedCode([&] { m_Server.Read(in, sizeof in); }), 0x20010022u);
    EXPECT_TRUE(m_Server.IsConnected());
}
