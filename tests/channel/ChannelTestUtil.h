// kelbase - tests/channel/ChannelTestUtil.h
//
// Helpers of the channel tests: a socket pair whose one end is a CSocket for a channel and
// whose other end is a raw descriptor that writes and reads exact bytes, so the tests see the
// wire; the first message of the thread's error log.
#pragma once

#include "../common/TestUtil.h"

#include <kel/Exceptions.h>
#include <kel/Sockets.h>
#include <kel/Threading.h>

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

namespace kel_channel_test {

using Bytes = std::vector<unsigned char>;

constexpr unsigned int kAppId = 0x4B454C31u;
constexpr int kHangGuardMs = 20000;

using kel_test::RaisedCode;

/// The message the last failure of this thread was raised with.
inline std::string LastMessage() {
    const char* m = KEL::Exceptions::ThreadErrorLog().GetErrorMsg(0);
    return m ? m : "";
}

/// A connected pair: `socket` for a channel, `raw` for the test's own bytes.
class CRawPair {
public:
    CRawPair() {
        int fds[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) ADD_FAILURE() << "socketpair";
        raw = fds[1];
        socket.Attach(static_cast<unsigned long long>(fds[0]));
    }
    ~CRawPair() { CloseRaw(); }

    void Send(const Bytes& bytes) const {
        size_t done = 0;
        while (done < bytes.size()) {
            const ssize_t n = ::send(raw, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
            if (n <= 0) {
                ADD_FAILURE() << "raw send failed, errno " << errno;
                return;
            }
            done += static_cast<size_t>(n);
        }
    }
    /// Exactly `n` bytes (fewer when the channel closed or the hang guard ran out).
    Bytes Recv(size_t n) const {
        Bytes out;
        unsigned char chunk[4096];
        while (out.size() < n) {
            pollfd p{raw, POLLIN, 0};
            if (::poll(&p, 1, kHangGuardMs) <= 0) break;
            const ssize_t got = ::recv(raw, chunk, std::min(sizeof chunk, n - out.size()), 0);
            if (got <= 0) break;
            out.insert(out.end(), chunk, chunk + got);
        }
        return out;
    }
    /// Everything until the channel's side closes.
    Bytes RecvToEnd() const { return Recv(static_cast<size_t>(-1)); }
    void ShutdownRaw() const { ::shutdown(raw, SHUT_WR); }
    void CloseRaw() {
        if (raw >= 0) ::close(raw);
        raw = -1;
    }

    KEL::Sockets::CSocket socket;
    int raw = -1;
};

inline Bytes IdBytes(unsigned int id) {
    return {static_cast<unsigned char>(id >> 24), static_cast<unsigned char>(id >> 16),
            static_cast<unsigned char>(id >> 8), static_cast<unsigned char>(id)};
}

inline Bytes Cat(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

/// A client attached to a raw server that accepted it.
class RawServerTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_Pair.Send({0xA9, 0x01, 0x00});
        ASSERT_EQ(m_Client.Attach(m_Pair.socket, kAppId), 1u);
        ASSERT_EQ(m_Pair.Recv(7), Cat(IdBytes(kAppId), {0xA9, 0x01, 0x00}));
    }
    /// The client starts request 1, which the raw `answer` acknowledges; the acknowledge.
    unsigned int Acknowledged(const Bytes& answer) {
        m_Pair.Send(answer);
        unsigned int ack = 0;
        EXPECT_EQ(m_Client.StartRequest(1), 1u);
        EXPECT_EQ(m_Client.WaitForAck(ack), 1u);
        return ack;
    }
    /// Sends a request through the client with `params`, answered by the raw `answer`
    /// (written first, so one thread does both sides); returns the request's bytes.
    template <class Params>
    Bytes Request(unsigned int code, const Bytes& answer, Params&& params, size_t requestSize) {
        m_Pair.Send(answer);
        EXPECT_EQ(m_Client.StartRequest(code), 1u);
        params(m_Client);
        unsigned int ack = 0;
        EXPECT_EQ(m_Client.WaitForAck(ack), 1u);
        return m_Pair.Recv(requestSize);
    }

    CRawPair m_Pair;
    KEL::Sockets::CKelSocketClient m_Client;
};

/// A server attached to a raw client.
class RawClientTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_Pair.Send(Cat(IdBytes(kAppId), {0xA9, 0x01, 0x00}));
        ASSERT_EQ(m_Server.Attach(m_Pair.socket, kAppId), 1u);
        ASSERT_EQ(m_Pair.Recv(3), (Bytes{0xA9, 0x01, 0x00}));
    }
    /// The raw client sends a request (code 5) whose parameters are `params` and waits.
    void RawRequest(const Bytes& params) {
        m_Pair.Send(Cat(Cat({0x88, 0x05}, params), {0x01}));
        unsigned int code = 0;
        ASSERT_EQ(m_Server.WaitForRequest(code), 1u);
        ASSERT_EQ(code, 5u);
    }

    CRawPair m_Pair;
    KEL::Sockets::CKelSocketServer m_Server;
};

} // namespace kel_channel_test
