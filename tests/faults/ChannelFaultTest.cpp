// kelbase - tests/faults/ChannelFaultTest.cpp
//
// The message channel behind the fault proxy, with a server that serves every connection on a
// thread of its own. Single-byte segments and delays change nothing: whole exchanges with
// numbers, texts, blocks, keep-alives and events arrive byte-exact. A connection cut after any
// number of bytes, or reset, ends both sides with the channel's statuses (never a hang, never
// a crash), and the server goes on serving the next client. A peer that goes silent ends the
// wait with the socket's time-out.
#include "EchoChannel.h"
#include "FaultProxy.h"

#include "../common/TestUtil.h"

#include <kel/Exceptions.h>
#include <kel/Sockets.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

using KEL::Sockets::CKelSocketClient;
using KEL::Sockets::CSocket;
using kel_test::CFaultProxy;
using kel_test::kAppId;
using kel_test::kHangGuardMs;
using kel_test::CEchoServer;
using kel_test::Exchange;
using kel_test::MakePayload;
using kel_test::Payload;

namespace {

using Fault = CFaultProxy::Fault;
using Kind = CFaultProxy::Kind;
using Direction = CFaultProxy::Direction;

class ChannelFaults : public ::testing::Test {
protected:
    void SetUp() override { m_Proxy = std::make_unique<CFaultProxy>(m_Server.Port()); }

    // Connects through the proxy with `fault`; the handshake's status.
    unsigned int Open(CSocket& socket, CKelSocketClient& client, const Fault& fault, unsigned int timeoutMs) {
        m_Proxy->SetFault(fault);
        socket.SetTimeout(timeoutMs);
        if (socket.ConnectLocal(m_Proxy->Port()) != 1u) return 0;
        return client.Attach(socket, kAppId);
    }

    // A fresh client straight to the server must still be served in full.
    void ExpectServerStillServes() {
        CSocket socket;
        socket.SetTimeout(kHangGuardMs);
        ASSERT_EQ(socket.ConnectLocal(m_Server.Port()), 1u);
        CKelSocketClient client;
        ASSERT_EQ(client.Attach(socket, kAppId), 1u);
        EXPECT_EQ(Exchange(client, 77, MakePayload(77, 5000)), 1u);
        EXPECT_EQ(client.Close(), 1u);
        ++m_nSessions;
        EXPECT_EQ(m_Server.SessionEnd(m_nSessions), 133u);
    }

    CEchoServer m_Server;
    std::unique_ptr<CFaultProxy> m_Proxy;
    size_t m_nSessions = 0; // sessions the server has seen so far
};

// Statuses a side may see when its connection ends where it should not.
const std::set<unsigned int> kCutStatuses = {
    133u,        // the server meets the end where a request could start
    0x20010024u, // the socket reports the peer's close
    0x20010028u, // out of sync: the end shows as STC_Close where something else was due
    0x2001002Cu, // protocol error: the same where a command was due
    0x2001002Fu, // data missing inside a block
    0x2001001Fu, // the socket error (a reset)
};

} // namespace

TEST_F(ChannelFaults, SingleByteSegmentsInBothDirectionsChangeNothing) {
    CSocket socket;
    CKelSocketClient client;
    ASSERT_EQ(Open(socket, client, Fault{Kind::SingleBytes, Direction::Both, 0, 0}, kHangGuardMs), 1u);
    for (unsigned int i = 0; i < 3; ++i) EXPECT_EQ(Exchange(client, 10 + i, MakePayload(i, 1000 + 2500 * i)), 1u);
    unsigned long long events = 0;
    ASSERT_EQ(client.GetEvents(events), 1u);
    // The first answer's notice arrived before the second answer; the server raised the
    // third event before it read the query.
    EXPECT_EQ(events, (1ull << 10) | (1ull << 11) | (1ull << 12));
    EXPECT_EQ(client.Close(), 1u);
    EXPECT_EQ(m_Server.SessionEnd(++m_nSessions), 133u);
    ExpectServerStillServes();
}

TEST_F(ChannelFaults, PacedSingleBytesThroughTheHandshakeAndARequest) {
    CSocket socket;
    CKelSocketClient client;
    ASSERT_EQ(Open(socket, client, Fault{Kind::SingleBytes, Direction::Both, 0, 1}, kHangGuardMs), 1u);
    EXPECT_EQ(Exchange(client, 5, MakePayload(5, 120)), 1u);
    EXPECT_EQ(client.Close(), 1u);
    EXPECT_EQ(m_Server.SessionEnd(++m_nSessions), 133u);
}

TEST_F(ChannelFaults, DelayedSegmentsChangeNothing) {
    CSocket socket;
    CKelSocketClient client;
    ASSERT_EQ(Open(socket, client, Fault{Kind::Delay, Direction::Both, 0, 80}, kHangGuardMs), 1u);
    for (unsigned int i = 0; i < 3; ++i) EXPECT_EQ(Exchange(client, 20 + i, MakePayload(20 + i, 4000 * i)), 1u);
    unsigned long long events = 0;
    ASSERT_EQ(client.GetEvents(events), 1u);
    EXPECT_EQ(events, (1ull << 20) | (1ull << 21) | (1ull << 22));
    EXPECT_EQ(client.Close(), 1u);
    EXPECT_EQ(m_Server.SessionEnd(++m_nSessions), 133u);
    ExpectServerStillServes();
}

TEST_F(ChannelFaults, EveryCutOfTheClientsBytesEndsBothSidesWithAChannelStatus) {
    // The handshake is 7 bytes, the request 2,094 (its last byte, the wait for the acknowledge,
    // is byte 2,101): cut inside the handshake, inside each kind of field, at the first full
    // buffer and just before the end of the request.
    const Payload p = MakePayload(3, 2000);
    const size_t cuts[] = {0, 1, 3, 4, 6, 7, 8, 9, 10, 15, 30, 60, 90, 100, 120, 200, 700, 1467, 1468, 1500, 2100};
    for (size_t cut : cuts) {
        SCOPED_TRACE("cut after " + std::to_string(cut) + " bytes");
        CSocket socket;
        CKelSocketClient client;
        const unsigned int attach = Open(socket, client, Fault{Kind::Truncate, Direction::ClientToServer, cut, 0},
                                         kHangGuardMs);
        unsigned int r = attach;
        if (attach == 1u) r = Exchange(client, 9, p);
        EXPECT_TRUE(kCutStatuses.count(r)) << std::hex << r;
        if (attach == 1u) client.Abort();
        const unsigned int end = m_Server.SessionEnd(++m_nSessions);
        EXPECT_TRUE(kCutStatuses.count(end) || end == 0x2001002Du) << std::hex << end;
    }
    ExpectServerStillServes();
}

TEST_F(ChannelFaults, EveryCutOfTheServersBytesEndsTheClientWithAChannelStatus) {
    // The handshake answer is 3 bytes, the answer 3,095 with its end as byte 3,098: cut inside
    // the handshake, inside the fields, at the first full buffer and just before the end.
    const Payload p = MakePayload(4, 3000);
    const size_t cuts[] = {0, 2, 3, 4, 5, 6, 10, 40, 100, 1460, 1463, 1470, 3000, 3097};
    for (size_t cut : cuts) {
        SCOPED_TRACE("cut after " + std::to_string(cut) + " bytes");
        CSocket socket;
        CKelSocketClient client;
        const unsigned int attach = Open(socket, client, Fault{Kind::Truncate, Direction::ServerToClient, cut, 0},
                                         kHangGuardMs);
        unsigned int r = attach;
        if (attach == 1u) r = Exchange(client, 12, p);
        EXPECT_TRUE(kCutStatuses.count(r)) << std::hex << r;
        if (attach == 1u) client.Abort();
        const unsigned int end = m_Server.SessionEnd(++m_nSessions);
        EXPECT_TRUE(kCutStatuses.count(end)) << std::hex << end;
    }
    ExpectServerStillServes();
}

TEST_F(ChannelFaults, AResetInsideARequestEndsBothSidesWithACloseOrSocketError) {
    for (size_t after : {20u, 600u, 1800u}) {
        SCOPED_TRACE("reset after " + std::to_string(after) + " bytes");
        CSocket socket;
        CKelSocketClient client;
        ASSERT_EQ(Open(socket, client, Fault{Kind::Reset, Direction::ClientToServer, after, 0}, kHangGuardMs), 1u);
        const unsigned int r = Exchange(client, 30, MakePayload(30, 1800));
        EXPECT_TRUE(r == 0x20010024u || r == 0x2001001Fu || r == 0x2001002Cu) << std::hex << r;
        client.Abort();
        const unsigned int end = m_Server.SessionEnd(++m_nSessions);
        EXPECT_TRUE(kCutStatuses.count(end)) << std::hex << end;
    }
    ExpectServerStillServes();
}

TEST_F(ChannelFaults, ASilentServerEndsTheWaitForTheAcknowledgeWithTheSocketTimeOut) {
    CSocket socket;
    CKelSocketClient client;
    ASSERT_EQ(Open(socket, client, Fault{Kind::Pass, Direction::Both, 0, 0}, kHangGuardMs), 1u);
    // From now on the proxy holds back what the server sends for a minute.
    m_Proxy->SetFault(Fault{Kind::Delay, Direction::ServerToClient, 0, 60000});
    CSocket late;
    CKelSocketClient lateClient;
    late.SetTimeout(100);
    ASSERT_EQ(late.ConnectLocal(m_Proxy->Port()), 1u);
    EXPECT_EQ(lateClient.Attach(late, kAppId), 0x20010022u);
    // The first connection was opened before: it is not held back.
    EXPECT_EQ(Exchange(client, 40, MakePayload(40, 10)), 1u);
    EXPECT_EQ(client.Close(), 1u);
    // Both sessions end (in either order) before the next client comes.
    m_nSessions += 2;
    EXPECT_NE(m_Server.SessionEnd(m_nSessions), 0u);
    ExpectServerStillServes();
}
