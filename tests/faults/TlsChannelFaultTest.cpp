// kelbase - tests/faults/TlsChannelFaultTest.cpp
//
// The message channel over TLS behind the fault proxy: a TLS client channel and a TLS server
// channel with the proxy forwarding the encrypted bytes between them. Single-byte segments and
// delays change nothing, through the handshake and whole exchanges. A connection cut or reset
// anywhere, inside the TLS handshake, inside the channel's hello or inside the records of a
// request or an answer, ends both sides with a status (never a hang, never a crash, never a
// garbled "success": TLS must not let a cut record through as data), and the server goes on
// serving the next TLS client. A silent server ends the TLS handshake with the socket's
// time-out.
#include "EchoChannel.h"
#include "FaultProxy.h"

#include "../common/TestUtil.h"

#include <kel/Exceptions.h>
#include <kel/Sockets.h>
#include <kel/Ssl.h>

#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

using KEL::Sockets::CKelSocketClient;
using KEL::Sockets::CSslCertificate;
using KEL::Sockets::CSslContext;
using KEL::Sockets::CSslKey;
using KEL::Sockets::CSslSocket;
using kel_test::CEchoServer;
using kel_test::CFaultProxy;
using kel_test::Exchange;
using kel_test::kAppId;
using kel_test::kHangGuardMs;
using kel_test::MakePayload;
using kel_test::MakeSecureStatus;

namespace {

using Fault = CFaultProxy::Fault;
using Kind = CFaultProxy::Kind;
using Direction = CFaultProxy::Direction;

// The server identity, made once for the program: RSA generation is the slow part of these
// tests (under AddressSanitizer above all), so no test makes a key of its own.
struct CServerIdentity {
    CSslKey key;
    CSslCertificate certificate;
    static const CServerIdentity& Get() {
        static const CServerIdentity s_Id;
        return s_Id;
    }

private:
    CServerIdentity() {
        KEL::Sockets::CERTIFICATE_DATA data;
        data.organization = "Lanternbay";
        data.commonName = "localhost";
        data.subjectAltNames = {"localhost", "127.0.0.1"};
        EXPECT_EQ(key.MakeKey(2048), 1u);
        EXPECT_EQ(certificate.MakeCertificate(data, key), 1u);
    }
};

CSslContext MakeServerContext() {
    CServerIdentity id = CServerIdentity::Get();
    CSslContext context;
    CSslCertificate noIntermediate;
    EXPECT_EQ(context.MakeContext(KEL::Sockets::SSLM_Default, KEL::Sockets::SSLV_None, "", {}, id.key, id.certificate,
                                  noIntermediate),
              1u);
    return context;
}

// Statuses a side may see when its TLS connection ends where it should not: those of the
// channel over plain TCP, and those of the TLS layer.
const std::set<unsigned int> kCutStatuses = {
    133u,        // the server meets the end where a request could start
    0x20010024u, // the peer's close (or a TCP close without the TLS close)
    0x20010028u, // out of sync: the end shows as STC_Close where something else was due
    0x2001002Cu, // protocol error: the same where a command was due
    0x2001002Fu, // data missing inside a block
    0x2001001Fu, // the socket error (a reset)
    0x20010022u, // the socket's time-out
    0x20010057u, // the TLS handshake failed as server
    0x20010058u, // the TLS handshake failed as client
    0x20010059u, // a TLS read failed
    0x2001005Bu, // a TLS write failed
};

class TlsChannelFaults : public ::testing::Test {
protected:
    TlsChannelFaults() : m_ServerCtx(MakeServerContext()), m_Server(&m_ServerCtx) {}

    void SetUp() override {
        ASSERT_EQ(m_ClientCtx.MakeContext(KEL::Sockets::SSLM_Default), 1u);
        m_Proxy = std::make_unique<CFaultProxy>(m_Server.Port());
    }

    // Connects through the proxy with `fault`, runs the TLS handshake and the channel's; the
    // first failing status, 1 when both succeeded.
    unsigned int Open(CSslSocket& socket, CKelSocketClient& client, const Fault& fault, unsigned int timeoutMs) {
        m_Proxy->SetFault(fault);
        socket.SetTimeout(timeoutMs);
        unsigned int r = socket.ConnectLocal(m_Proxy->Port());
        if (r != 1u) return r;
        if ((r = MakeSecureStatus(socket, m_ClientCtx)) != 1u) return r;
        return client.Attach(socket, kAppId);
    }

    // A fresh TLS client straight to the server must still be served in full.
    void ExpectServerStillServes() {
        CSslSocket socket;
        socket.SetTimeout(kHangGuardMs);
        ASSERT_EQ(socket.ConnectLocal(m_Server.Port()), 1u);
        ASSERT_EQ(MakeSecureStatus(socket, m_ClientCtx), 1u);
        CKelSocketClient client;
        ASSERT_EQ(client.Attach(socket, kAppId), 1u);
        EXPECT_EQ(Exchange(client, 77, MakePayload(77, 5000)), 1u);
        EXPECT_EQ(client.Close(), 1u);
        EXPECT_EQ(m_Server.SessionEnd(++m_nSessions), 133u);
    }

    // Bytes each way of one clean connection through the proxy: after both handshakes (the
    // server's hello answer proves it has read everything the client sent until then) and
    // after one exchange with `p` (its answer proves the same for the request). The proxy
    // counts a chunk once its send returned, which may be after the client has read it, so
    // the server's bytes are a lower bound: at least its handshake flight, which the client
    // answered through the proxy.
    struct Sizes {
        size_t upOpen = 0, downOpen = 0, upTotal = 0;
    };
    Sizes Measure(const kel_test::Payload& p) {
        Sizes sizes;
        const size_t up0 = m_Proxy->ForwardedToServer();
        const size_t down0 = m_Proxy->ForwardedToClient();
        CSslSocket socket;
        CKelSocketClient client;
        EXPECT_EQ(Open(socket, client, Fault{}, kHangGuardMs), 1u);
        sizes.upOpen = m_Proxy->ForwardedToServer() - up0;
        sizes.downOpen = m_Proxy->ForwardedToClient() - down0;
        EXPECT_EQ(Exchange(client, 9, p), 1u);
        sizes.upTotal = m_Proxy->ForwardedToServer() - up0;
        EXPECT_EQ(client.Close(), 1u);
        EXPECT_EQ(m_Server.SessionEnd(++m_nSessions), 133u);
        return sizes;
    }

    // Cuts (or resets) the bytes of `direction` after each of `cuts` and runs one exchange;
    // each cut must fire, and both sides must end with a status of kCutStatuses.
    void SweepCuts(Kind kind, Direction direction, const std::vector<size_t>& cuts, const kel_test::Payload& p) {
        for (size_t cut : cuts) {
            SCOPED_TRACE("fault after " + std::to_string(cut) + " bytes");
            const size_t faultsBefore = m_Proxy->FaultsApplied();
            CSslSocket socket;
            CKelSocketClient client;
            unsigned int r = Open(socket, client, Fault{kind, direction, cut, 0}, kHangGuardMs);
            if (r == 1u) r = Exchange(client, 9, p);
            EXPECT_TRUE(kCutStatuses.count(r)) << std::hex << r;
            socket.Abort();
            const unsigned int end = m_Server.SessionEnd(++m_nSessions);
            EXPECT_TRUE(kCutStatuses.count(end)) << std::hex << end;
            EXPECT_EQ(m_Proxy->FaultsApplied(), faultsBefore + 1);
        }
    }

    CSslContext m_ServerCtx;
    CSslContext m_ClientCtx;
    CEchoServer m_Server;
    std::unique_ptr<CFaultProxy> m_Proxy;
    size_t m_nSessions = 0; // sessions the server has seen so far
};

// Points to cut a stream that carries `open` bytes of handshakes and then a request or an
// answer with a block of `block` bytes: the first bytes and record header of the TLS hello, its
// middle, around the end of the handshakes, and inside the records of the block (which alone
// is larger than all the cuts past `open`).
std::vector<size_t> CutPoints(size_t open, size_t block) {
    return {0, 1, 3, 5, 6, 40, open / 3, open / 2, open - 40, open - 1, open, open + 1, open + 5,
            open + block / 4, open + block / 2, open + block * 3 / 4, open + block};
}

} // namespace

TEST_F(TlsChannelFaults, SingleByteSegmentsThroughBothHandshakesAndExchangesChangeNothing) {
    CSslSocket socket;
    CKelSocketClient client;
    ASSERT_EQ(Open(socket, client, Fault{Kind::SingleBytes, Direction::Both, 0, 0}, kHangGuardMs), 1u);
    EXPECT_TRUE(socket.IsSecure());
    // A reader gives a TLS socket up after 800 wake-ups in a row without a whole record, so
    // over single bytes only records shorter than that are within the socket's contract: these
    // requests and answers fit into one small record each. The handshake's records (the
    // certificate among them) are longer; the handshake has no such limit.
    for (unsigned int i = 0; i < 3; ++i) EXPECT_EQ(Exchange(client, 10 + i, MakePayload(i, 100 + 200 * i)), 1u);
    unsigned long long events = 0;
    ASSERT_EQ(client.GetEvents(events), 1u);
    EXPECT_EQ(events, (1ull << 10) | (1ull << 11) | (1ull << 12));
    EXPECT_EQ(client.Close(), 1u);
    EXPECT_EQ(m_Server.SessionEnd(++m_nSessions), 133u);
    ExpectServerStillServes();
}

TEST_F(TlsChannelFaults, DelayedSegmentsChangeNothing) {
    CSslSocket socket;
    CKelSocketClient client;
    ASSERT_EQ(Open(socket, client, Fault{Kind::Delay, Direction::Both, 0, 60}, kHangGuardMs), 1u);
    for (unsigned int i = 0; i < 3; ++i) EXPECT_EQ(Exchange(client, 20 + i, MakePayload(20 + i, 20000 * i)), 1u);
    unsigned long long events = 0;
    ASSERT_EQ(client.GetEvents(events), 1u);
    EXPECT_EQ(events, (1ull << 20) | (1ull << 21) | (1ull << 22));
    EXPECT_EQ(client.Close(), 1u);
    EXPECT_EQ(m_Server.SessionEnd(++m_nSessions), 133u);
    ExpectServerStillServes();
}

TEST_F(TlsChannelFaults, EveryCutOfTheClientsBytesEndsBothSidesWithAStatus) {
    const kel_test::Payload p = MakePayload(3, 20000); // the request spans two TLS records
    const Sizes sizes = Measure(p);
    ASSERT_GT(sizes.upOpen, 100u);
    ASSERT_GT(sizes.upTotal, sizes.upOpen + p.block.size());
    // The client sends nothing after its request until the goodbye, so its last byte is known.
    std::vector<size_t> cuts = CutPoints(sizes.upOpen, p.block.size());
    cuts.push_back(sizes.upTotal - 1);
    SweepCuts(Kind::Truncate, Direction::ClientToServer, cuts, p);
    ExpectServerStillServes();
}

TEST_F(TlsChannelFaults, EveryCutOfTheServersBytesEndsBothSidesWithAStatus) {
    const kel_test::Payload p = MakePayload(4, 20000);
    const Sizes sizes = Measure(p);
    ASSERT_GT(sizes.downOpen, 1000u); // the certificate is in it
    SweepCuts(Kind::Truncate, Direction::ServerToClient, CutPoints(sizes.downOpen, p.block.size()), p);
    ExpectServerStillServes();
}

TEST_F(TlsChannelFaults, AResetInsideTheHandshakeOrARecordEndsBothSidesWithAStatus) {
    const kel_test::Payload p = MakePayload(30, 20000);
    const Sizes sizes = Measure(p);
    const std::vector<size_t> up = {0, sizes.upOpen / 2, sizes.upOpen + p.block.size() / 2};
    SweepCuts(Kind::Reset, Direction::ClientToServer, up, p);
    const std::vector<size_t> down = {sizes.downOpen / 2, sizes.downOpen + p.block.size() / 2};
    SweepCuts(Kind::Reset, Direction::ServerToClient, down, p);
    ExpectServerStillServes();
}

TEST_F(TlsChannelFaults, AResetInsideARequestRecordGivesTheClientACloseOrTheSocketError) {
    const kel_test::Payload p = MakePayload(31, 20000);
    const Sizes sizes = Measure(p);
    CSslSocket socket;
    CKelSocketClient client;
    ASSERT_EQ(Open(socket, client, Fault{Kind::Reset, Direction::ClientToServer, sizes.upOpen + 2000, 0}, kHangGuardMs),
              1u);
    const unsigned int r = Exchange(client, 31, p);
    // The close or the socket error, as the read or write that meets it reports it, or the
    // channel's protocol error when the close shows where the acknowledge was due.
    EXPECT_TRUE(r == 0x20010024u || r == 0x2001001Fu || r == 0x20010059u || r == 0x2001005Bu || r == 0x2001002Cu)
        << std::hex << r;
    socket.Abort();
    EXPECT_TRUE(kCutStatuses.count(m_Server.SessionEnd(++m_nSessions)));
    ExpectServerStillServes();
}

TEST_F(TlsChannelFaults, ASilentServerEndsTheTlsHandshakeWithTheSocketTimeOut) {
    CSslSocket socket;
    CKelSocketClient client;
    ASSERT_EQ(Open(socket, client, Fault{}, kHangGuardMs), 1u);
    // From now on the proxy holds back what the server sends for a minute.
    m_Proxy->SetFault(Fault{Kind::Delay, Direction::ServerToClient, 0, 60000});
    CSslSocket late;
    late.SetTimeout(100);
    ASSERT_EQ(late.ConnectLocal(m_Proxy->Port()), 1u);
    EXPECT_EQ(MakeSecureStatus(late, m_ClientCtx), 0x20010022u);
    late.Abort();
    // The first connection was opened before: it is not held back.
    EXPECT_EQ(Exchange(client, 40, MakePayload(40, 10)), 1u);
    EXPECT_EQ(client.Close(), 1u);
    // Both sessions end (in either order) before the next client comes.
    m_nSessions += 2;
    EXPECT_NE(m_Server.SessionEnd(m_nSessions), 0u);
    ExpectServerStillServes();
}
