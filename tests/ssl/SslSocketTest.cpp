// TLS sockets on loopback: our client and server against each other and against openssl
// s_server / s_client in both protocol versions, the policy refusals seen from outside, session
// resumption, and the failure paths (already secure, dropped peer, stalled and garbled
// handshakes, a read that never completes a record), each with its status and trace.
#include "ChildProcess.h"
#include "SslTestUtil.h"

#include "../common/TestUtil.h"

#include <atomic>
#include <cstring>
#include <thread>

#include <sys/ioctl.h>
#include <sys/socket.h>

using namespace KEL;
using namespace KEL::Sockets;
using kel_test::CChildProcess;
using kel_test::CIdentities;
using kel_test::CTempFile;
using kel_test::CTraceCapture;
using kel_test::ErrorLogText;
using kel_test::kHangGuardMs;
using kel_test::Pem;
using kel_test::RaisedCode;
using kel_test::ServerContext;

namespace {

CSslContext ClientContext(int maxVersion = 0) {
    CSslContext ctx;
    EXPECT_EQ(1u, ctx.MakeContext(SSLM_Default)) << ErrorLogText();
    if (maxVersion) SSL_CTX_set_max_proto_version(ctx, maxVersion);
    return ctx;
}

// A loopback listener with one connected and one accepted CSslSocket, not yet secure.
class TlsPair : public kel_test::TLoopbackPair<CSslSocket> {
protected:
    // Both handshakes, the server's on a thread; the status each raised (0: none).
    void Secure(CSslContext& clientCtx, CSslContext& serverCtx, CSslSession* session = nullptr) {
        std::thread server([&] { m_uServerCode = RaisedCode([&] { m_Server.MakeSecure(serverCtx); }); });
        m_uClientCode = RaisedCode([&] {
            if (session)
                m_Client.MakeSecure(clientCtx, *session);
            else
                m_Client.MakeSecure(clientCtx);
        });
        server.join();
    }
    void SecureDefault() {
        CSslContext c = ClientContext(), s = ServerContext();
        Secure(c, s);
        ASSERT_EQ(m_uClientCode, 0u) << ErrorLogText();
        ASSERT_EQ(m_uServerCode, 0u);
    }

    unsigned int m_uClientCode = 0, m_uServerCode = 0;
};

// The test identity in files, for the openssl command line.
struct CIdentityFiles {
    CTempFile cert{Pem(CIdentities::Get().server) + Pem(CIdentities::Get().interm)};
    CTempFile key{Pem(CIdentities::Get().serverKey)};
};

// openssl s_server on a free port, answering each line with the line reversed.
std::unique_ptr<CChildProcess> StartSServer(CIdentityFiles& files, unsigned int& port, const std::string& version) {
    port = kel_test::FreePort();
    auto child = std::make_unique<CChildProcess>(std::vector<std::string>{
        "openssl", "s_server", "-accept", std::to_string(port), "-cert", files.cert.Path(), "-key", files.key.Path(),
        version, "-rev"});
    EXPECT_TRUE(child->ReadUntil("ACCEPT")) << child->Output();
    return child;
}

std::string ReadLine(CSslSocket& s) {
    std::string line;
    char c = 0;
    while (c != '\n' && line.size() < 1000) {
        s.Read(&c, 1);
        line += c;
    }
    return line;
}

} // namespace

// ---- interoperation -----------------------------------------------------------------------------

class TlsWithOpenssl : public ::testing::TestWithParam<std::pair<const char*, const char*>> {};

TEST_P(TlsWithOpenssl, ClientExchangesLinesWithSServer) {
    CIdentityFiles files;
    unsigned int port = 0;
    auto server = StartSServer(files, port, GetParam().first);
    CSslSocket socket;
    socket.SetTimeout(kHangGuardMs);
    socket.ConnectLocal(port);
    CSslContext ctx = ClientContext();
    EXPECT_EQ(socket.MakeSecure(ctx), 1u) << ErrorLogText();
    EXPECT_TRUE(socket.IsSecure());
    EXPECT_STREQ(SSL_get_version(socket.GetSslHandle()), GetParam().second);
    socket.Write("kelbase\n", 8, nullptr);
    EXPECT_EQ(ReadLine(socket), "esablek\n");
    EXPECT_EQ(socket.Close(), 1u);
    EXPECT_EQ(socket.GetSslHandle(), nullptr);
    EXPECT_FALSE(socket.IsSecure());
}

TEST_P(TlsWithOpenssl, ServerExchangesLinesWithSClient) {
    CSocketListener listener;
    listener.StartListen(0, 0);
    const unsigned int port = listener.GetLocalAddr().GetPort();
    CChildProcess client({"openssl", "s_client", "-connect", "127.0.0.1:" + std::to_string(port), GetParam().first,
                          "-quiet", "-no_ign_eof"});
    ASSERT_EQ(listener.Wait(kHangGuardMs), 1u);
    CSslSocket socket;
    ASSERT_EQ(listener.Accept(socket), 1u);
    socket.SetTimeout(kHangGuardMs);
    CSslContext ctx = ServerContext();
    EXPECT_EQ(socket.MakeSecure(ctx), 1u) << ErrorLogText();
    EXPECT_STREQ(SSL_get_version(socket.GetSslHandle()), GetParam().second);
    client.Write("ping\n");
    EXPECT_EQ(ReadLine(socket), "ping\n");
    socket.Write("pong\n", 5, nullptr);
    EXPECT_TRUE(client.ReadUntil("pong\n")) << client.Output();
    // The client's end of input closes its side cleanly: a partial read reports the close.
    client.CloseInput();
    char c;
    size_t got = 0;
    unsigned int r = URET_WouldBlock;
    for (int i = 0; i < 1000 && r == URET_WouldBlock; ++i) {
        socket.Wait();
        r = socket.Read(&c, 1, &got);
    }
    EXPECT_EQ(r, URET_PeerClosed);
    EXPECT_EQ(RaisedCode([&] { socket.Read(&c, 1, &got); }), 0x20010024u);
}

INSTANTIATE_TEST_SUITE_P(Versions, TlsWithOpenssl,
                         ::testing::Values(std::make_pair("-tls1_2", "TLSv1.2"), std::make_pair("-tls1_3", "TLSv1.3")));

// s_client with an old protocol or excluded suites against our server: the handshake fails as
// server (0x20010057) with OpenSSL's reason in the log. The compatible method takes the same
// suites, so the refusal comes from the policy and not from the test set-up.
TEST(TlsPolicy, DefaultAndStrictServersRefuseOldProtocolsAndExcludedSuites) {
    struct Case {
        Sockets::SSL_METHOD method;
        std::vector<std::string> args;
        bool accepted;
    };
    const std::vector<Case> cases = {
        {SSLM_Default, {"-tls1", "-cipher", "DEFAULT@SECLEVEL=0"}, false},
        {SSLM_Default, {"-tls1_1", "-cipher", "DEFAULT@SECLEVEL=0"}, false},
        {SSLM_Strict, {"-tls1", "-cipher", "DEFAULT@SECLEVEL=0"}, false},
        {SSLM_Strict, {"-tls1_1", "-cipher", "DEFAULT@SECLEVEL=0"}, false},
        {SSLM_Default, {"-tls1_2", "-cipher", "ECDHE-RSA-AES128-SHA:AES128-SHA:DES-CBC3-SHA"}, false},
        {SSLM_Strict, {"-tls1_2", "-cipher", "ECDHE-RSA-AES128-SHA:AES128-SHA:DES-CBC3-SHA"}, false},
        {SSLM_Compatible, {"-tls1_2", "-cipher", "ECDHE-RSA-AES128-SHA:AES128-SHA"}, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.method) + " " + c.args[0] + " " + c.args.back());
        CSocketListener listener;
        listener.StartListen(0, 0);
        std::vector<std::string> argv{"openssl", "s_client", "-connect",
                                      "127.0.0.1:" + std::to_string(listener.GetLocalAddr().GetPort())};
        argv.insert(argv.end(), c.args.begin(), c.args.end());
        CChildProcess client(argv);
        ASSERT_EQ(listener.Wait(kHangGuardMs), 1u);
        CSslSocket socket;
        ASSERT_EQ(listener.Accept(socket), 1u);
        socket.SetTimeout(kHangGuardMs);
        CSslContext ctx = ServerContext(c.method);
        const unsigned int code = RaisedCode([&] { socket.MakeSecure(ctx); });
        if (c.accepted) {
            EXPECT_EQ(code, 0u) << ErrorLogText();
        } else {
            EXPECT_EQ(code, 0x20010057u);
            EXPECT_NE(ErrorLogText().find("SSL routines"), std::string::npos) << ErrorLogText();
            EXPECT_FALSE(socket.IsSecure());
            EXPECT_NE(socket.GetSslHandle(), nullptr); // a failed socket keeps its SSL object
            socket.Abort();
            EXPECT_EQ(socket.GetSslHandle(), nullptr);
        }
    }
}

// ---- sessions -------------------------------------------------------------------------------------

TEST_P(TlsWithOpenssl, SessionTakenAtCloseIsResumedBySServer) {
    CIdentityFiles files;
    unsigned int port = 0;
    auto server = StartSServer(files, port, GetParam().first);
    CSslContext ctx = ClientContext();
    CSslSession session;
    {
        CSslSocket first;
        first.SetTimeout(kHangGuardMs);
        first.ConnectLocal(port);
        ASSERT_EQ(first.MakeSecure(ctx, session), 1u) << ErrorLogText(); // empty: offers nothing
        EXPECT_EQ(SSL_session_reused(first.GetSslHandle()), 0);
        EXPECT_EQ(first.Close(session), 1u);
    }
    ASSERT_TRUE(session.IsResumable());
    CSslSocket second;
    second.SetTimeout(kHangGuardMs);
    second.ConnectLocal(port);
    ASSERT_EQ(second.MakeSecure(ctx, session), 1u) << ErrorLogText();
    EXPECT_EQ(SSL_session_reused(second.GetSslHandle()), 1);
    second.Write("again\n", 6, nullptr);
    EXPECT_EQ(ReadLine(second), "niaga\n");
}

TEST_F(TlsPair, OwnServerResumesTheSessionOfOwnClient) {
    CSslContext clientCtx = ClientContext(), serverCtx = ServerContext();
    CSslSession session;
    Secure(clientCtx, serverCtx);
    ASSERT_EQ(m_uClientCode, 0u) << ErrorLogText();
    m_Client.Close(session);
    m_Server.Close();
    ASSERT_TRUE(session.IsResumable());

    CSslSocket client, server;
    client.SetTimeout(kHangGuardMs);
    server.SetTimeout(kHangGuardMs);
    client.ConnectLocal(m_nPort);
    ASSERT_EQ(m_Listener.Wait(kHangGuardMs), 1u);
    ASSERT_EQ(m_Listener.Accept(server), 1u);
    unsigned int serverCode = 1;
    std::thread t([&] { serverCode = RaisedCode([&] { server.MakeSecure(serverCtx); }); });
    EXPECT_EQ(RaisedCode([&] { client.MakeSecure(clientCtx, session); }), 0u) << ErrorLogText();
    t.join();
    EXPECT_EQ(serverCode, 0u);
    EXPECT_EQ(SSL_session_reused(client.GetSslHandle()), 1);
    EXPECT_EQ(SSL_session_reused(server.GetSslHandle()), 1);
}

// ---- reading and writing ----------------------------------------------------------------------------

TEST_F(TlsPair, MakeSecureOnASecureSocketIsRefused) {
    SecureDefault();
    CSslContext ctx = ClientContext();
    SSL* before = m_Client.GetSslHandle();
    EXPECT_EQ(RaisedCode([&] { m_Client.MakeSecure(ctx); }), 0x2001005Du);
    EXPECT_EQ(m_Client.GetSslHandle(), before);
    EXPECT_TRUE(m_Client.IsSecure());
}

TEST_F(TlsPair, MakeSecureNeedsAConnectionAndAContext) {
    CSslSocket loose;
    CSslContext ctx = ClientContext(), empty;
    EXPECT_EQ(RaisedCode([&] { loose.MakeSecure(ctx); }), 0x2001001Eu);
    EXPECT_EQ(RaisedCode([&] { m_Client.MakeSecure(empty); }), 0x20010037u);
}

TEST_F(TlsPair, BeforeMakeSecureTheSocketIsPlain) {
    EXPECT_EQ(m_Client.CheckNegotiation(), 1u);
    m_Client.Write("clear", 5, nullptr);
    char in[5];
    EXPECT_EQ(m_Server.Read(in, 5), 1u);
    EXPECT_EQ(std::string(in, 5), "clear");
}

TEST_F(TlsPair, PartialReadIsWouldBlockUntilARecordArrives) {
    SecureDefault();
    char in[64];
    size_t got = 7;
    // TLS 1.3 tickets may be all there is: they give no byte and no wait.
    for (int i = 0; i < 4; ++i) m_Client.Read(in, sizeof in, &got);
    EXPECT_EQ(m_Client.Read(in, sizeof in, &got), URET_WouldBlock);
    EXPECT_EQ(got, 0u);
    m_Server.Write("0123456789", 10, nullptr);
    ASSERT_EQ(m_Client.Wait(kHangGuardMs), 1u);
    EXPECT_EQ(m_Client.Read(in, 4, &got), URET_Ok);
    EXPECT_EQ(std::string(in, got), "0123");
    // The rest is decrypted inside OpenSSL, not on the descriptor: Wait must still see it.
    EXPECT_EQ(m_Client.Wait(0u), 1u);
    EXPECT_EQ(m_Client.Read(in, sizeof in, &got), URET_Ok);
    EXPECT_EQ(std::string(in, got), "456789");
    EXPECT_EQ(m_Client.Read(in, sizeof in, &got), URET_WouldBlock);
}

TEST_F(TlsPair, PeekLeavesTheBytesForTheNextRead) {
    SecureDefault();
    m_Server.Write("abcdef", 6, nullptr);
    char in[6];
    EXPECT_EQ(m_Client.Read(in, 4, nullptr, RM_Peek), 1u);
    EXPECT_EQ(std::string(in, 4), "abcd");
    EXPECT_EQ(m_Client.Read(in, 6), 1u);
    EXPECT_EQ(std::string(in, 6), "abcdef");
}

TEST_F(TlsPair, LargeTransfersCrossInBothDirectionsIntact) {
    SecureDefault();
    std::vector<unsigned char> out(3 << 20), back(out.size()), in(out.size());
    for (size_t i = 0; i < out.size(); ++i) out[i] = static_cast<unsigned char>(i * 7 + (i >> 11));
    // Both write before they read: the socket buffers fill and each side must wait to write.
    std::thread server([&] {
        RaisedCode([&] {
            m_Server.Write(out.data(), out.size(), nullptr);
            m_Server.Read(back.data(), back.size());
        });
    });
    EXPECT_EQ(RaisedCode([&] {
                  m_Client.Write(out.data(), out.size(), nullptr);
                  m_Client.Read(in.data(), in.size());
              }),
              0u)
        << ErrorLogText();
    server.join();
    EXPECT_TRUE(in == out);
    EXPECT_TRUE(back == out);
}

TEST_F(TlsPair, CleanTlsCloseReadsAs134ThenThrowsClosedByPeer) {
    SecureDefault();
    m_Server.Write("last", 4, nullptr);
    m_Server.SetShutdownMode(SM_Send);
    m_Server.Close();
    char in[16];
    size_t got = 0;
    ASSERT_EQ(m_Client.Wait(kHangGuardMs), 1u);
    ASSERT_EQ(m_Client.Read(in, sizeof in, &got), URET_Ok);
    EXPECT_EQ(std::string(in, got), "last");
    unsigned int r = URET_WouldBlock;
    for (int i = 0; i < 100 && r == URET_WouldBlock; ++i) {
        m_Client.Wait();
        r = m_Client.Read(in, sizeof in, &got);
    }
    EXPECT_EQ(r, URET_PeerClosed);
    EXPECT_TRUE(m_Client.IsClosedByPeer());
    EXPECT_EQ(RaisedCode([&] { m_Client.Read(in, sizeof in, &got); }), 0x20010024u);
}

TEST_F(TlsPair, TwoWayCloseWaitsForThePeersClose) {
    SecureDefault();
    CTraceCapture trace(0x40000000u);
    std::thread server([&] {
        char c;
        RaisedCode([&] { m_Server.Read(&c, 1); }); // meets the client's close
        m_Server.Close();                          // answers it
    });
    m_Client.SetShutdownMode(SM_Both);
    EXPECT_EQ(m_Client.Shutdown(SM_Both), 1u) << ErrorLogText();
    server.join();
    EXPECT_EQ(SSL_get_shutdown(m_Client.GetSslHandle()), SSL_SENT_SHUTDOWN | SSL_RECEIVED_SHUTDOWN);
    bool traced = false;
    for (const std::string& e : CTraceCapture::Entries()) traced |= kel_test::EndsWith(e, "2. SSL_shutdown() returns 1 ... ");
    EXPECT_TRUE(traced);
}

TEST_F(TlsPair, QuietCloseSendsNoAlertSoThePeerSeesADroppedConnection) {
    SecureDefault();
    EXPECT_EQ(m_Client.SetShutdownMode(SM_Receive), SM_Send); // one-way is the default
    EXPECT_EQ(m_Client.Close(), 1u);
    char in[8];
    size_t got = 0;
    unsigned int r = URET_WouldBlock;
    EXPECT_EQ(RaisedCode([&] {
                  for (int i = 0; i < 100 && r == URET_WouldBlock; ++i) {
                      m_Server.Wait();
                      r = m_Server.Read(in, sizeof in, &got);
                  }
              }),
              0x20010024u);
    EXPECT_EQ(r, URET_WouldBlock); // never 134: no close alert came
}

TEST_F(TlsPair, PeerDroppingTcpWithoutTlsCloseThrowsClosedByPeer) {
    SecureDefault();
    CTraceCapture trace(0x40000000u);
    m_Server.Abort(); // no close alert, the connection is reset
    char in[8];
    size_t got = 0;
    EXPECT_EQ(RaisedCode([&] {
                  for (int i = 0; i < 100; ++i) {
                      m_Client.Wait();
                      m_Client.Read(in, sizeof in, &got);
                  }
              }),
              0x20010024u);
    EXPECT_TRUE(m_Client.IsClosedByPeer());
    bool traced = false;
    for (const std::string& e : CTraceCapture::Entries())
        traced |= kel_test::EndsWith(e, "Unexpected EOF from the peer happend (SSL_ERROR_SYSCALL and ERR_get_error == 0).");
    EXPECT_TRUE(traced);
}

TEST_F(TlsPair, TalkingToAPeerThatLeftRaisesNoSigpipe) {
    SecureDefault();
    m_Server.Abort(); // the connection is reset
    ASSERT_EQ(m_Client.Wait(kHangGuardMs), 1u);
    // The close alert goes to a reset connection: a plain write() there raises SIGPIPE and ends
    // this program.
    EXPECT_EQ(m_Client.Close(), 1u);

    CSslSocket client, server;
    client.SetTimeout(kHangGuardMs);
    client.ConnectLocal(m_nPort);
    ASSERT_EQ(m_Listener.Wait(kHangGuardMs), 1u);
    ASSERT_EQ(m_Listener.Accept(server), 1u);
    CSslContext clientCtx = ClientContext(), serverCtx = ServerContext();
    std::thread t([&] { RaisedCode([&] { server.MakeSecure(serverCtx); }); });
    ASSERT_EQ(RaisedCode([&] { client.MakeSecure(clientCtx); }), 0u);
    t.join();
    // The peer closes its descriptor without a TLS close: the first write draws a reset, the
    // ones after it meet a broken pipe.
    server.CSocket::Close();
    EXPECT_EQ(RaisedCode([&] {
                  for (int i = 0; i < 2000; ++i) {
                      client.Write("w", 1, nullptr);
                      std::this_thread::sleep_for(std::chrono::milliseconds(1));
                  }
              }),
              0x20010024u);
}

TEST_F(TlsPair, PeerClosingTcpWithoutTlsCloseFailsACompleteRead) {
    SecureDefault();
    ::shutdown(static_cast<int>(m_Server.GetNativeHandle()), SHUT_WR); // FIN, no close alert
    char in[8];
    EXPECT_EQ(RaisedCode([&] { m_Client.Read(in, sizeof in); }), 0x20010024u);
    EXPECT_NE(ErrorLogText().find("unexpected eof"), std::string::npos) << ErrorLogText();
}

TEST_F(TlsPair, ReadThatNeverCompletesARecordGivesUpAfter800Retries) {
    SecureDefault();
    CTraceCapture trace(0x40000000u);
    const int reader = static_cast<int>(m_Client.GetNativeHandle());
    const int writer = static_cast<int>(m_Server.GetNativeHandle());
    std::atomic<bool> stop{false};
    std::atomic<int> sent{0};
    // A record header announcing 16 KiB, then its body one byte at a time, each byte sent only
    // after the reader took the one before: every byte wakes the reader without a record.
    std::thread trickle([&] {
        const unsigned char header[5] = {0x17, 0x03, 0x03, 0x40, 0x00};
        ::send(writer, header, sizeof header, MSG_NOSIGNAL);
        for (int i = 0; i < 0x4000 && !stop; ++i) {
            for (int spin = 0; spin < 200000 && !stop; ++spin) {
                int pending = 0;
                if (ioctl(reader, FIONREAD, &pending) != 0 || pending == 0) break;
                std::this_thread::sleep_for(std::chrono::microseconds(50));
            }
            std::this_thread::sleep_for(std::chrono::microseconds(200));
            const unsigned char byte = 0x5A;
            ::send(writer, &byte, 1, MSG_NOSIGNAL);
            ++sent;
        }
    });
    char in[32];
    const unsigned int code = RaisedCode([&] { m_Client.Read(in, sizeof in); });
    stop = true;
    trickle.join();
    EXPECT_EQ(code, 0x20010024u) << ErrorLogText();
    EXPECT_LT(sent.load(), 0x4000);
    bool traced = false;
    for (const std::string& e : CTraceCapture::Entries())
        traced |= e.find("after 800 retries so we assume that she is dead!") != std::string::npos &&
                  e.find("No we have enough from this lazy socket=0x") != std::string::npos;
    EXPECT_TRUE(traced);
    EXPECT_EQ(RaisedCode([&] { m_Client.Read(in, 1); }), 0x20010024u);
}

// ---- handshakes that fail -------------------------------------------------------------------------

TEST_F(TlsPair, StalledHandshakeTimesOutAndCanBeFinishedLater) {
    CSslContext clientCtx = ClientContext(), serverCtx = ServerContext();
    m_Server.SetTimeout(100);
    EXPECT_EQ(RaisedCode([&] { m_Server.MakeSecure(serverCtx); }), 0x20010022u); // the client is silent
    EXPECT_FALSE(m_Server.IsSecure());
    m_Server.SetTimeout(kHangGuardMs);
    unsigned int serverCode = 1;
    std::thread server([&] { serverCode = RaisedCode([&] { m_Server.CheckNegotiation(); }); });
    EXPECT_EQ(RaisedCode([&] { m_Client.MakeSecure(clientCtx); }), 0u) << ErrorLogText();
    server.join();
    EXPECT_EQ(serverCode, 0u);
    EXPECT_TRUE(m_Server.IsSecure());
    m_Client.Write("late", 4, nullptr);
    char in[4];
    EXPECT_EQ(m_Server.Read(in, 4), 1u);
}

TEST_F(TlsPair, ClientWaitingForAServerThatNeverAnswersTimesOut) {
    CSslContext ctx = ClientContext();
    m_Client.SetTimeout(100);
    EXPECT_EQ(RaisedCode([&] { m_Client.MakeSecure(ctx); }), 0x20010022u);
    EXPECT_NE(m_Client.GetSslHandle(), nullptr);
}

TEST_F(TlsPair, GarbageInsteadOfAHandshakeFailsWithOpensslsReason) {
    CSslContext clientCtx = ClientContext(), serverCtx = ServerContext();
    const char garbage[] = "GET / HTTP/1.0\r\n\r\nthis is not a TLS record at all, not even close\r\n";
    m_Client.CSocket::Write(garbage, sizeof garbage - 1, nullptr);
    EXPECT_EQ(RaisedCode([&] { m_Server.MakeSecure(serverCtx); }), 0x20010057u);
    const std::string serverLog = ErrorLogText();
    EXPECT_NE(serverLog.find("SSL routines"), std::string::npos) << serverLog;
    EXPECT_NE(serverLog.find("N-Error : OpenSSL"), std::string::npos) << serverLog;
    EXPECT_NE(serverLog.find("Message : SSL can't accept\n"), std::string::npos) << serverLog;

    m_Server.CSocket::Write(garbage, sizeof garbage - 1, nullptr);
    CTraceCapture trace(0x40000000u);
    EXPECT_EQ(RaisedCode([&] { m_Client.MakeSecure(clientCtx); }), 0x20010058u);
    EXPECT_NE(ErrorLogText().find("SSL routines"), std::string::npos) << ErrorLogText();
    EXPECT_NE(ErrorLogText().find("Message : SSL can't connect\n"), std::string::npos) << ErrorLogText();
    bool begin = false, error = false, kind = false;
    for (const std::string& e : CTraceCapture::Entries()) {
        kind |= kel_test::EndsWith(e, "SSL_get_error returns=1");
        begin |= kel_test::EndsWith(e, "Begin CheckSslCall() sslFunctionReturnValue=-1, sslFunction=1");
        error |= e.find("SSL_ERROR ") != std::string::npos && e.find(":SSL routines:") != std::string::npos;
    }
    EXPECT_TRUE(begin);
    EXPECT_TRUE(error);
    EXPECT_TRUE(kind);
    // A failed socket cannot pretend to finish its handshake.
    EXPECT_EQ(RaisedCode([&] { m_Client.CheckNegotiation(); }), 0x20010058u);
}

TEST_F(TlsPair, CancelEndsAHandshakeWaitWithThreadInterrupt) {
    CSslContext ctx = ClientContext();
    std::atomic<unsigned int> code{0};
    Threading::CEvent waiting = kel_test::NewEvent(true, false);
    Threading::CThread t;
    t.Create(kel_test::Fn([&] {
        waiting.Set();
        code = RaisedCode([&] { m_Client.MakeSecure(ctx); }); // the server never answers
        // The thread's end is signalled before the system runs OpenSSL's thread-exit cleanup;
        // without this the test may finish first and the leak check sees the thread's DRBGs.
        PrepareSslShutdown();
    }));
    ASSERT_EQ(waiting.Wait(kHangGuardMs), 1u);
    t.Cancel();
    ASSERT_EQ(t.Wait(kHangGuardMs), 1u);
    EXPECT_EQ(code.load(), 0x2001003Au);
    EXPECT_FALSE(m_Client.IsSecure());
}

TEST_F(TlsPair, ReadTracesItsStepsWithTheSocketAndSizes) {
    SecureDefault();
    char in[64];
    size_t got = 0;
    while (m_Client.Read(in, sizeof in, &got) == URET_Ok) {
    }
    m_Server.Write("0123456789", 10, nullptr);
    ASSERT_EQ(m_Client.Wait(kHangGuardMs), 1u);
    CTraceCapture trace(0x40000000u);
    ASSERT_EQ(m_Client.Read(in, sizeof in, &got), URET_Ok);
    EXPECT_EQ(m_Client.Read(in, sizeof in, &got), URET_WouldBlock);
    char begin[96];
    std::snprintf(begin, sizeof begin, "Begin Read() on socket=0x%llx for max (64) bytes", m_Client.GetNativeHandle());
    const std::vector<std::string> expected = {begin, "SSL_read() returns=10", "return(URET_Ok)", begin,
                                               "return(URET_WouldBlock)"};
    std::vector<std::string> seen;
    for (const std::string& e : CTraceCapture::Entries())
        for (const char* x : {static_cast<const char*>(begin), "SSL_read() returns=10", "return(URET_Ok)", "return(URET_WouldBlock)"})
            if (kel_test::EndsWith(e, x)) seen.push_back(x);
    EXPECT_EQ(seen, expected);
}
