// kelbase - tests/faults/ChannelFaultTest.cpp
//
// The message channel behind the fault proxy, over plain TCP and over TLS (the proxy then
// forwards the encrypted bytes), with a server that serves every connection on a thread of its
// own. Single-byte segments and delays change nothing: handshakes and whole exchanges with
// numbers, texts, blocks, keep-alives and events arrive byte-exact. A connection cut after any
// number of bytes, or reset, inside the TLS handshake, the channel's hello or a request or an
// answer, ends both sides with a status (never a hang, never a crash, never a garbled
// "success": TLS must not let a cut record through as data), and the server goes on serving the
// next client. A peer that goes silent ends the wait with the socket's time-out.
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
using kel_test::Payload;

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
    EXPECT_EQ(context.MakeContext(KEL::Sockets::SSLM_Default, KEL::Sockets::SSLV_None, "", {}, id.key,
                                  id.certificate, noIntermediate),
              1u);
    return context;
}

// Statuses a side may see when its connection ends where it should not.
const std::set<unsigned int> kCutStatuses = {
    133u,        // the server meets the end where a request could start
    0x20010024u, // the socket reports the peer's close (or a TCP close without the TLS close)
    0x20010028u, // out of sync: the end shows as STC_Close where something else was due
    0x2001002Cu, // protocol error: the same where a command was due
    0x2001002Fu, // data missing inside a block
    0x2001001Fu, // the socket error (a reset)
};
// Those only the TLS layer gives.
const std::set<unsigned int> kTlsCutStatuses = {
    0x20010022u, // the socket's time-out
    0x20010057u, // the TLS handshake failed as server
    0x20010058u, // the TLS handshake failed as client
    0x20010059u, // a TLS read failed
    0x2001005Bu, // a TLS write failed
};

// The channel over plain TCP or (kTls) over TLS, through the proxy. Plain sockets are TLS
// sockets that are never made secure, as on the server's side.
template <bool kTls> class ChannelFaultsOver : public ::testing::Test {
protected:
    ChannelFaultsOver()
        : m_ServerCtx(kTls ? MakeServerContext() : CSslContext()), m_Server(kTls ? &m_ServerCtx : nullptr) {}

    void SetUp() override {
        if (kTls) {
            ASSERT_EQ(m_ClientCtx.MakeContext(KEL::Sockets::SSLM_Default), 1u);
        }
        m_Proxy = std::make_unique<CFaultProxy>(m_Server.Port());
    }

    static bool IsCutStatus(unsigned int status) {
        return kCutStatuses.count(status) || (kTls && kTlsCutStatuses.count(status));
    }

    // Connects to `port` (the proxy's by default), runs the TLS handshake and the channel's;
    // the first failing status, 1 when all succeeded.
    unsigned int Connect(CSslSocket& socket, CKelSocketClient& client, unsigned int timeoutMs,
                         unsigned int port = 0) {
        socket.SetTimeout(timeoutMs);
        unsigned int r = socket.ConnectLocal(port ? port : m_Proxy->Port());
        if (r != 1u) return r;
        if (kTls && (r = MakeSecureStatus(socket, m_ClientCtx)) != 1u) return r;
        return client.Attach(socket, kAppId);
    }
    unsigned int Open(CSslSocket& socket, CKelSocketClient& client, const Fault& fault) {
        m_Proxy->SetFault(fault);
        return Connect(socket, client, kHangGuardMs);
    }

    // A fresh client straight to the server must still be served in full.
    void ExpectServerStillServes() {
        CSslSocket socket;
        CKelSocketClient client;
        ASSERT_EQ(Connect(socket, client, kHangGuardMs, m_Server.Port()), 1u);
        EXPECT_EQ(Exchange(client, 77, MakePayload(77, 5000)), 1u);
        EXPECT_EQ(client.Close(), 1u);
        EXPECT_EQ(m_Server.SessionEnd(++m_nSessions), 133u);
    }

    // Three exchanges through `fault` (codes from `code`, blocks of `size + i * step` bytes)
    // arrive whole, each with its event; then the server still serves.
    void ExpectThreeExchangesUnchanged(const Fault& fault, unsigned int code, unsigned int seed, size_t size,
                                       size_t step) {
        CSslSocket socket;
        CKelSocketClient client;
        ASSERT_EQ(Open(socket, client, fault), 1u);
        EXPECT_EQ(socket.IsSecure(), kTls);
        for (unsigned int i = 0; i < 3; ++i)
            EXPECT_EQ(Exchange(client, code + i, MakePayload(seed + i, size + step * i)), 1u);
        unsigned long long events = 0;
        ASSERT_EQ(client.GetEvents(events), 1u);
        // The first answer's notice arrived before the second answer; the server raised the
        // third event before it read the query.
        EXPECT_EQ(events, (1ull << code) | (1ull << (code + 1)) | (1ull << (code + 2)));
        EXPECT_EQ(client.Close(), 1u);
        EXPECT_EQ(m_Server.SessionEnd(++m_nSessions), 133u);
        ExpectServerStillServes();
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
    Sizes Measure(const Payload& p) {
        Sizes sizes;
        const size_t up0 = m_Proxy->ForwardedToServer();
        const size_t down0 = m_Proxy->ForwardedToClient();
        CSslSocket socket;
        CKelSocketClient client;
        EXPECT_EQ(Open(socket, client, Fault{}), 1u);
        sizes.upOpen = m_Proxy->ForwardedToServer() - up0;
        sizes.downOpen = m_Proxy->ForwardedToClient() - down0;
        EXPECT_EQ(Exchange(client, 9, p), 1u);
        sizes.upTotal = m_Proxy->ForwardedToServer() - up0;
        EXPECT_EQ(client.Close(), 1u);
        EXPECT_EQ(m_Server.SessionEnd(++m_nSessions), 133u);
        return sizes;
    }

    // Cuts (or resets) the bytes of `direction` after each of `cuts` and runs one exchange;
    // both sides must end with a cut's status (the server also with `serverAlso`), and over
    // TLS each cut must fire. Then the server still serves.
    void SweepCuts(Kind kind, Direction direction, const std::vector<size_t>& cuts, const Payload& p,
                   unsigned int serverAlso = 0) {
        for (size_t cut : cuts) {
            SCOPED_TRACE("fault after " + std::to_string(cut) + " bytes");
            const size_t faultsBefore = m_Proxy->FaultsApplied();
            CSslSocket socket;
            CKelSocketClient client;
            const unsigned int attach = Open(socket, client, Fault{kind, direction, cut, 0});
            const unsigned int r = attach == 1u ? Exchange(client, 9, p) : attach;
            EXPECT_TRUE(IsCutStatus(r)) << std::hex << r;
            if (kTls)
                socket.Abort();
            else if (attach == 1u)
                client.Abort();
            const unsigned int end = m_Server.SessionEnd(++m_nSessions);
            EXPECT_TRUE(IsCutStatus(end) || (serverAlso && end == serverAlso)) << std::hex << end;
            if (kTls) {
                EXPECT_EQ(m_Proxy->FaultsApplied(), faultsBefore + 1);
            }
        }
        ExpectServerStillServes();
    }

    // A reset `after` bytes of the client's gives the client the close or the socket error, as
    // the read or write that meets it reports it, or the channel's protocol error when the
    // close shows where the acknowledge was due.
    void ExpectResetInsideTheRequest(size_t after, const Payload& p) {
        SCOPED_TRACE("reset after " + std::to_string(after) + " bytes");
        CSslSocket socket;
        CKelSocketClient client;
        ASSERT_EQ(Open(socket, client, Fault{Kind::Reset, Direction::ClientToServer, after, 0}), 1u);
        const unsigned int r = Exchange(client, 30, p);
        EXPECT_TRUE(r == 0x20010024u || r == 0x2001001Fu || r == 0x2001002Cu ||
                    (kTls && (r == 0x20010059u || r == 0x2001005Bu)))
            << std::hex << r;
        client.Abort();
        const unsigned int end = m_Server.SessionEnd(++m_nSessions);
        EXPECT_TRUE(IsCutStatus(end)) << std::hex << end;
    }

    // Once the proxy holds back what the server sends for a minute, a new client's handshake
    // ends with the socket's time-out; the connection opened before is not held back. Both
    // sessions end (in either order) before the next client comes.
    void ExpectASilentServerTimesTheHandshakeOut() {
        CSslSocket socket;
        CKelSocketClient client;
        ASSERT_EQ(Open(socket, client, Fault{}), 1u);
        CSslSocket late;
        CKelSocketClient lateClient;
        m_Proxy->SetFault(Fault{Kind::Delay, Direction::ServerToClient, 0, 60000});
        EXPECT_EQ(Connect(late, lateClient, 100), 0x20010022u);
        late.Abort();
        EXPECT_EQ(Exchange(client, 40, MakePayload(40, 10)), 1u);
        EXPECT_EQ(client.Close(), 1u);
        m_nSessions += 2;
        EXPECT_NE(m_Server.SessionEnd(m_nSessions), 0u);
        ExpectServerStillServes();
    }

    CSslContext m_ServerCtx;
    CSslContext m_ClientCtx;
    CEchoServer m_Server;
    std::unique_ptr<CFaultProxy> m_Proxy;
    size_t m_nSessions = 0; // sessions the server has seen so far
};

using ChannelFaults = ChannelFaultsOver<false>;
using TlsChannelFaults = ChannelFaultsOver<true>;

// Points to cut a stream that carries `open` bytes of handshakes and then a request or an
// answer with a block of `block` bytes: the first bytes and record header of the TLS hello, its
// middle, around the end of the handshakes, and inside the records of the block (which alone
// is larger than all the cuts past `open`).
std::vector<size_t> CutPoints(size_t open, size_t block) {
    return {0,
            1,
            3,
            5,
            6,
            40,
            open / 3,
            open / 2,
            open - 40,
            open - 1,
            open,
            open + 1,
            open + 5,
            open + block / 4,
            open + block / 2,
            open + block * 3 / 4,
            open + block};
}

} // namespace

// --- Plain TCP -------------------------------------------------------------------------------

TEST_F(ChannelFaults, SingleByteSegmentsInBothDirectionsChangeNothing) {
    ExpectThreeExchangesUnchanged(Fault{Kind::SingleBytes, Direction::Both, 0, 0}, 10, 0, 1000, 2500);
}

TEST_F(ChannelFaults, PacedSingleBytesThroughTheHandshakeAndARequest) {
    CSslSocket socket;
    CKelSocketClient client;
    ASSERT_EQ(Open(socket, client, Fault{Kind::SingleBytes, Direction::Both, 0, 1}), 1u);
    EXPECT_EQ(Exchange(client, 5, MakePayload(5, 120)), 1u);
    EXPECT_EQ(client.Close(), 1u);
    EXPECT_EQ(m_Server.SessionEnd(++m_nSessions), 133u);
}

TEST_F(ChannelFaults, DelayedSegmentsChangeNothing) {
    ExpectThreeExchangesUnchanged(Fault{Kind::Delay, Direction::Both, 0, 80}, 20, 20, 0, 4000);
}

TEST_F(ChannelFaults, EveryCutOfTheClientsBytesEndsBothSidesWithAChannelStatus) {
    // The handshake is 7 bytes, the request 2,094 (its last byte, the wait for the acknowledge,
    // is byte 2,101): cut inside the handshake, inside each kind of field, at the first full
    // buffer and just before the end of the request. The server may also meet the end inside
    // a request's parameters.
    SweepCuts(Kind::Truncate, Direction::ClientToServer,
              {0, 1, 3, 4, 6, 7, 8, 9, 10, 15, 30, 60, 90, 100, 120, 200, 700, 1467, 1468, 1500, 2100},
              MakePayload(3, 2000), 0x2001002Du);
}

TEST_F(ChannelFaults, EveryCutOfTheServersBytesEndsTheClientWithAChannelStatus) {
    // The handshake answer is 3 bytes, the answer 3,095 with its end as byte 3,098: cut inside
    // the handshake, inside the fields, at the first full buffer and just before the end.
    SweepCuts(Kind::Truncate, Direction::ServerToClient,
              {0, 2, 3, 4, 5, 6, 10, 40, 100, 1460, 1463, 1470, 3000, 3097}, MakePayload(4, 3000));
}

TEST_F(ChannelFaults, AResetInsideARequestEndsBothSidesWithACloseOrSocketError) {
    for (size_t after : {20u, 600u, 1800u})
        ExpectResetInsideTheRequest(after, MakePayload(30, 1800));
    ExpectServerStillServes();
}

TEST_F(ChannelFaults, ASilentServerEndsTheWaitForTheAcknowledgeWithTheSocketTimeOut) {
    ExpectASilentServerTimesTheHandshakeOut();
}

// --- TLS -------------------------------------------------------------------------------------

TEST_F(TlsChannelFaults, SingleByteSegmentsThroughBothHandshakesAndExchangesChangeNothing) {
    // A reader gives a TLS socket up after 800 wake-ups in a row without a whole record, so
    // over single bytes only records shorter than that are within the socket's contract: these
    // requests and answers fit into one small record each. The handshake's records (the
    // certificate among them) are longer; the handshake has no such limit.
    ExpectThreeExchangesUnchanged(Fault{Kind::SingleBytes, Direction::Both, 0, 0}, 10, 0, 100, 200);
}

TEST_F(TlsChannelFaults, DelayedSegmentsChangeNothing) {
    ExpectThreeExchangesUnchanged(Fault{Kind::Delay, Direction::Both, 0, 60}, 20, 20, 0, 20000);
}

TEST_F(TlsChannelFaults, EveryCutOfTheClientsBytesEndsBothSidesWithAStatus) {
    const Payload p = MakePayload(3, 20000); // the request spans two TLS records
    const Sizes sizes = Measure(p);
    ASSERT_GT(sizes.upOpen, 100u);
    ASSERT_GT(sizes.upTotal, sizes.upOpen + p.block.size());
    // The client sends nothing after its request until the goodbye, so its last byte is known.
    std::vector<size_t> cuts = CutPoints(sizes.upOpen, p.block.size());
    cuts.push_back(sizes.upTotal - 1);
    SweepCuts(Kind::Truncate, Direction::ClientToServer, cuts, p);
}

TEST_F(TlsChannelFaults, EveryCutOfTheServersBytesEndsBothSidesWithAStatus) {
    const Payload p = MakePayload(4, 20000);
    const Sizes sizes = Measure(p);
    ASSERT_GT(sizes.downOpen, 1000u); // the certificate is in it
    SweepCuts(Kind::Truncate, Direction::ServerToClient, CutPoints(sizes.downOpen, p.block.size()), p);
}

TEST_F(TlsChannelFaults, AResetInsideTheHandshakeOrARecordEndsBothSidesWithAStatus) {
    const Payload p = MakePayload(30, 20000);
    const Sizes sizes = Measure(p);
    SweepCuts(Kind::Reset, Direction::ClientToServer,
              {0, sizes.upOpen / 2, sizes.upOpen + p.block.size() / 2}, p);
    SweepCuts(Kind::Reset, Direction::ServerToClient,
              {sizes.downOpen / 2, sizes.downOpen + p.block.size() / 2}, p);
}

TEST_F(TlsChannelFaults, AResetInsideARequestRecordGivesTheClientACloseOrTheSocketError) {
    const Payload p = MakePayload(31, 20000);
    ExpectResetInsideTheRequest(Measure(p).upOpen + 2000, p);
    ExpectServerStillServes();
}

TEST_F(TlsChannelFaults, ASilentServerEndsTheTlsHandshakeWithTheSocketTimeOut) {
    ExpectASilentServerTimesTheHandshakeOut();
}
