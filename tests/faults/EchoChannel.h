// kelbase - tests/faults/EchoChannel.h
//
// The message-channel side of the fault tests: a request payload with every kind of field, a
// client exchange that checks the answer byte for byte, and a server that echoes each request
// on a thread per connection and records how each session ended. The server speaks plain TCP,
// or TLS when it is given a server context (each session then runs the TLS handshake first).
#pragma once

#include "../common/TestUtil.h"

#include <kel/Exceptions.h>
#include <kel/Sockets.h>
#include <kel/Ssl.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kel_test {

constexpr unsigned int kAppId = 0x4B454C31u;
constexpr unsigned int kGarbled = 0xBADu; // an exchange that "succeeded" with wrong bytes

// What one request carries; the server answers with the same values in the same order.
struct Payload {
    std::vector<long long> numbers;
    std::string text;
    std::string block;
};

/// MakeSecure's status: it raises its failures rather than returning them.
inline unsigned int MakeSecureStatus(KEL::Sockets::CSslSocket& socket, KEL::Sockets::CSslContext& context) {
    try {
        return socket.MakeSecure(context);
    } catch (const KEL::Exceptions::CKelException& e) {
        return e.GetCode();
    }
}

inline Payload MakePayload(unsigned int seed, size_t blockSize) {
    Payload p;
    const long long values[] = {0, 31, 32, -1, -31, -32, -33, 255, 256, 65535, -5000000000ll, 1ll << 56,
                                static_cast<long long>(seed)};
    p.numbers.assign(std::begin(values), std::end(values));
    for (unsigned int i = 0; i < 40 + seed % 50; ++i) p.text.push_back(static_cast<char>('a' + (i * 7 + seed) % 26));
    p.text.push_back('\0');
    p.text += "\x05\x03\xff tail";
    for (size_t i = 0; i < blockSize; ++i) p.block.push_back(static_cast<char>((i * 131 + seed) ^ (i >> 7)));
    return p;
}

// A server: accepts on a listener and serves each connection on its own thread. It records how
// each session ended: 133 for a client's goodbye, else the failing status. With a context, each
// accepted socket is made secure (as server) before the channel starts.
class CEchoServer {
public:
    explicit CEchoServer(const KEL::Sockets::CSslContext* tls = nullptr) : m_pTls(tls) {
        m_Listener.StartListen(0, 0);
        m_nPort = m_Listener.GetLocalAddr().GetPort();
        m_Acceptor = std::thread([this] { AcceptLoop(); });
    }
    ~CEchoServer() {
        m_bStop = true;
        m_Acceptor.join();
        for (std::thread& t : m_Sessions) t.join();
    }
    CEchoServer(const CEchoServer&) = delete;
    CEchoServer& operator=(const CEchoServer&) = delete;
    unsigned int Port() const { return m_nPort; }

    /// Waits until `n` sessions have ended and returns how the n-th ended (0: none in time).
    unsigned int SessionEnd(size_t n) {
        std::unique_lock<std::mutex> hold(m_Lock);
        if (!m_Ended.wait_for(hold, std::chrono::milliseconds(kHangGuardMs), [&] { return m_Ends.size() >= n; }))
            return 0;
        return m_Ends[n - 1];
    }

private:
    void AcceptLoop() {
        while (!m_bStop) {
            if (m_Listener.Wait(50) != 1u) continue;
            auto socket = std::make_shared<KEL::Sockets::CSslSocket>();
            if (m_Listener.Accept(*socket) != 1u) continue;
            if (m_pTls) {
                // A handle of its own per session: a context handle serves one thread at a time.
                auto context = std::make_shared<KEL::Sockets::CSslContext>(*m_pTls);
                m_Sessions.emplace_back([this, socket, context] {
                    End(Serve(*socket, context.get()));
                    KEL::Sockets::PrepareSslShutdown();
                });
            } else {
                m_Sessions.emplace_back([this, socket] { End(Serve(*socket, nullptr)); });
            }
        }
    }

    void End(unsigned int how) {
        std::lock_guard<std::mutex> hold(m_Lock);
        m_Ends.push_back(how);
        m_Ended.notify_all();
    }

    static unsigned int Serve(KEL::Sockets::CSslSocket& socket, KEL::Sockets::CSslContext* tls) {
        socket.SetTimeout(kHangGuardMs);
        unsigned int r = 1u;
        if (tls && (r = MakeSecureStatus(socket, *tls)) != 1u) {
            socket.Abort();
            return r;
        }
        KEL::Sockets::CKelSocketServer s;
        r = s.Attach(socket, kAppId);
        if (r != 1u) return r;
        for (;;) {
            unsigned int code = 0;
            r = s.WaitForRequest(code);
            if (r == 130u) continue;
            if (r == 133u) {
                s.Close();
                return r;
            }
            if (r != 1u) break;
            try {
                Payload p;
                unsigned int count = 0;
                s >> count;
                p.numbers.resize(count);
                for (long long& n : p.numbers) s >> n;
                s >> p.text;
                char piece[700];
                size_t got = 0;
                while ((r = s.Read(piece, sizeof piece, got)) == 132u) p.block.append(piece, got);
                p.block.append(piece, got);
                if (r != 1u) break;
                if ((r = s.SendAck(code + 1)) != 1u) break;
                s << count;
                for (long long n : p.numbers) s << n;
                s << p.text;
                s.Write(p.block.data(), p.block.size());
                if ((r = s.EndAck()) != 1u) break;
                if ((r = s.SendKeepAlive()) != 1u) break;
                if ((r = s.SetEvents(1ull << (code % 64))) != 1u) break;
            } catch (const KEL::Exceptions::CKelException& e) {
                r = e.GetCode();
                break;
            }
        }
        s.Abort();
        return r;
    }

    const KEL::Sockets::CSslContext* m_pTls;
    KEL::Sockets::CSocketListener m_Listener;
    unsigned int m_nPort = 0;
    std::atomic<bool> m_bStop{false};
    std::thread m_Acceptor;
    std::vector<std::thread> m_Sessions; // the acceptor's own until it has ended
    std::mutex m_Lock;
    std::condition_variable m_Ended;
    std::vector<unsigned int> m_Ends;
};

// One request with `p` and its answer; 1 when the answer came back byte-exact, kGarbled when
// it came back different, else the first failing status.
inline unsigned int Exchange(KEL::Sockets::CKelSocketClient& c, unsigned int code, const Payload& p) {
    unsigned int r = c.StartRequest(code);
    if (r != 1u) return r;
    Payload back;
    try {
        c << static_cast<unsigned int>(p.numbers.size());
        for (long long n : p.numbers) c << n;
        c << p.text;
        c.Write(p.block.data(), p.block.size());
        unsigned int ack = 0;
        if ((r = c.WaitForAck(ack)) != 1u) return r;
        if (ack != code + 1) return kGarbled;
        unsigned int count = 0;
        c >> count;
        if (count != p.numbers.size()) return kGarbled;
        back.numbers.resize(count);
        for (long long& n : back.numbers) c >> n;
        c >> back.text;
        char piece[500];
        size_t got = 0;
        while ((r = c.Read(piece, sizeof piece, got)) == 132u) back.block.append(piece, got);
        back.block.append(piece, got);
        if (r != 1u) return r;
    } catch (const KEL::Exceptions::CKelException& e) {
        return e.GetCode();
    }
    if ((r = c.EndRequest()) != 1u) return r;
    // -32 travels as the byte 0xE0, which every reader takes as 0.
    std::vector<long long> expected = p.numbers;
    std::replace(expected.begin(), expected.end(), -32ll, 0ll);
    return back.numbers == expected && back.text == p.text && back.block == p.block ? 1u : kGarbled;
}

} // namespace kel_test
