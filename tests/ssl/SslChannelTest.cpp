// The message channel over TLS: a client and a server channel run unchanged on CSslSockets,
// through the handshake, requests with integers, strings and a block larger than a TLS record,
// keep-alives, and the goodbye that ends in the peers' TLS close.
#include "SslTestUtil.h"

#include "../common/TestUtil.h"

#include <thread>
#include <vector>

using namespace KEL;
using namespace KEL::Sockets;
using kel_test::CIdentities;
using kel_test::ErrorLogText;
using kel_test::kHangGuardMs;
using kel_test::RaisedCode;

namespace {

constexpr unsigned int kApplication = 0x4B454C53;

class TlsChannel : public kel_test::TLoopbackPair<CSslSocket> {
protected:
    void SetUp() override {
        CIdentities& ids = CIdentities::Get();
        ASSERT_EQ(m_ServerCtx.MakeContext(SSLM_Default, SSLV_None, "", {}, ids.serverKey, ids.server, ids.interm), 1u);
        ASSERT_EQ(m_ClientCtx.MakeContext(SSLM_Default), 1u);
        TLoopbackPair::SetUp();
    }
    CSslContext m_ServerCtx, m_ClientCtx;
};

} // namespace

TEST_F(TlsChannel, RequestsRunUnchangedOverTls) {
    std::vector<unsigned char> block(100000);
    for (size_t i = 0; i < block.size(); ++i) block[i] = static_cast<unsigned char>(i * 31 + 7);
    unsigned int serverCode = 1;
    std::vector<unsigned char> echoed;
    std::thread server([&] {
        serverCode = RaisedCode([&] {
            m_Server.MakeSecure(m_ServerCtx);
            CKelSocketServer channel;
            channel.Attach(m_Server, kApplication);
            for (int round = 0; round < 2; ++round) {
                unsigned int request = 0;
                if (channel.WaitForRequest(request) != URET_Ok) throw std::runtime_error("no request");
                int a = 0;
                std::string text;
                channel >> a >> text;
                std::vector<unsigned char> in(block.size());
                size_t got = 0, total = 0;
                unsigned int r = URET_MoreData;
                while (r == URET_MoreData) {
                    r = channel.Read(in.data() + total, in.size() - total, got);
                    total += got;
                }
                in.resize(total);
                echoed = in;
                channel.SendAck(request + 1);
                channel << a * 2 << (text + " back");
                channel.Write(in.data(), in.size());
                channel.EndAck();
                channel.SendKeepAlive(); // the client's next read must pass over it
            }
            unsigned int request = 0;
            if (channel.WaitForRequest(request) != URET_Closed) throw std::runtime_error("no goodbye");
            channel.Close();
        });
    });
    ASSERT_EQ(RaisedCode([&] { m_Client.MakeSecure(m_ClientCtx); }), 0u) << ErrorLogText();
    CKelSocketClient channel;
    ASSERT_EQ(channel.Attach(m_Client, kApplication), 1u) << ErrorLogText();
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(channel.StartRequest(40 + round), 1u);
        channel << 21 << std::string("over tls");
        channel.Write(block.data(), block.size());
        unsigned int ack = 0;
        ASSERT_EQ(channel.WaitForAck(ack), 1u) << ErrorLogText();
        EXPECT_EQ(ack, 41u + round);
        int doubled = 0;
        std::string text;
        channel >> doubled >> text;
        EXPECT_EQ(doubled, 42);
        EXPECT_EQ(text, "over tls back");
        std::vector<unsigned char> back(block.size());
        size_t got = 0, total = 0;
        unsigned int r = URET_MoreData;
        while (r == URET_MoreData) {
            r = channel.Read(back.data() + total, back.size() - total, got);
            total += got;
        }
        EXPECT_EQ(total, block.size());
        EXPECT_TRUE(back == block);
        EXPECT_EQ(channel.EndRequest(), 1u);
    }
    EXPECT_TRUE(m_Client.IsSecure());
    EXPECT_EQ(channel.Close(), 1u);
    server.join();
    EXPECT_EQ(serverCode, 0u);
    EXPECT_TRUE(echoed == block);
}
