// TLS sockets: kelbase's CSslSocket next to a plain OpenSSL loop on blocking sockets, with the
// same contexts (so the same protocol and cipher) in the same process, over loopback:
//   - bulk transfer in 16 KiB writes, read back by a second thread in 16 KiB reads;
//   - full handshakes (TCP connect, handshake, close) per second;
//   - message channel round trips (CKelSocketClient/Server) over TLS next to a raw ping-pong
//     that moves the same numbers of bytes each way.
// Both sides of each row run the same steps; the ratios are printed at the end.
#include <kel/kelbase.h>

#include "RatioReporter.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <linux/tcp.h> // TCP_NODELAY and tcp_info with the byte counters
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace KEL::Sockets;

constexpr size_t kChunk = 16 * 1024;
constexpr unsigned int kGuardMs = 30000;

// One server identity and the two contexts, made once (RSA generation takes a while).
struct CContexts {
    CSslContext server, client;
    CContexts() {
        CSslKey key;
        CSslCertificate certificate, none;
        CERTIFICATE_DATA data;
        data.commonName = "localhost";
        if (certificate.MakeCertificate(data, key) != 1 ||
            server.MakeContext(SSLM_Default, SSLV_None, "", {}, key, certificate, none) != 1 ||
            client.MakeContext(SSLM_Default) != 1)
            throw std::runtime_error("cannot make the TLS contexts");
    }
    static CContexts& Get() {
        static CContexts s_Contexts;
        return s_Contexts;
    }
};

void Check(bool ok, const char* what) {
    if (!ok) throw std::runtime_error(what);
}

// ---- raw OpenSSL on blocking sockets -------------------------------------------------------

int RawListen(unsigned short& port) {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    Check(::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 && ::listen(fd, 200) == 0, "listen");
    socklen_t len = sizeof a;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    port = ntohs(a.sin_port);
    return fd;
}

int RawConnect(unsigned short port) {
    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(port);
    Check(::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0, "connect");
    return fd;
}

int RawAccept(int listener) {
    int fd = ::accept(listener, nullptr, nullptr);
    int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return fd;
}

SSL* RawSsl(SSL_CTX* ctx, int fd, bool server) {
    SSL* ssl = SSL_new(ctx);
    SSL_set_mode(ssl, SSL_MODE_AUTO_RETRY);
    SSL_set_fd(ssl, fd);
    Check((server ? SSL_accept(ssl) : SSL_connect(ssl)) == 1, "raw handshake");
    return ssl;
}

void RawClose(SSL* ssl, int fd) {
    SSL_shutdown(ssl);
    SSL_free(ssl);
    ::close(fd);
}

// Two raw OpenSSL ends connected over loopback, handshake done; closed on destruction.
struct CRawTlsPair {
    explicit CRawTlsPair(CContexts& ctx) {
        unsigned short port = 0;
        listener = RawListen(port);
        clientFd = RawConnect(port);
        serverFd = RawAccept(listener);
        std::thread accept([&] { server = RawSsl(ctx.server, serverFd, true); });
        client = RawSsl(ctx.client, clientFd, false);
        accept.join();
    }
    ~CRawTlsPair() {
        RawClose(client, clientFd);
        RawClose(server, serverFd);
        ::close(listener);
    }
    CRawTlsPair(const CRawTlsPair&) = delete;
    CRawTlsPair& operator=(const CRawTlsPair&) = delete;
    int listener = -1, clientFd = -1, serverFd = -1;
    SSL* client = nullptr;
    SSL* server = nullptr;
};

bool RawReadAll(SSL* ssl, char* buffer, size_t size) {
    size_t total = 0;
    while (total < size) {
        int n = SSL_read(ssl, buffer + total, static_cast<int>(size - total));
        if (n <= 0) return false;
        total += static_cast<size_t>(n);
    }
    return true;
}

void BM_RawTlsBulk16K(benchmark::State& state) {
    CContexts& ctx = CContexts::Get();
    CRawTlsPair pair(ctx);
    SSL* const client = pair.client;
    SSL* const server = pair.server;
    const long long chunks = static_cast<long long>(state.max_iterations);
    std::thread reader([&] {
        std::vector<char> in(kChunk);
        for (long long i = 0; i < chunks; ++i)
            if (!RawReadAll(server, in.data(), kChunk)) break;
    });
    std::vector<char> out(kChunk, 'x');
    for (auto _ : state) SSL_write(client, out.data(), static_cast<int>(kChunk));
    reader.join();
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(kChunk));
    state.SetLabel(SSL_get_version(client) + std::string(" ") + SSL_get_cipher_name(client));
}
BENCHMARK(BM_RawTlsBulk16K)->UseRealTime();

void BM_RawTlsHandshake(benchmark::State& state) {
    CContexts& ctx = CContexts::Get();
    unsigned short port = 0;
    const int listener = RawListen(port);
    const long long count = static_cast<long long>(state.max_iterations);
    std::thread server([&] {
        for (long long i = 0; i < count; ++i) {
            const int fd = RawAccept(listener);
            SSL* ssl = SSL_new(ctx.server);
            SSL_set_fd(ssl, fd);
            if (SSL_accept(ssl) == 1) SSL_shutdown(ssl);
            SSL_free(ssl);
            ::close(fd);
        }
    });
    for (auto _ : state) {
        const int fd = RawConnect(port);
        SSL* ssl = RawSsl(ctx.client, fd, false);
        RawClose(ssl, fd);
    }
    server.join();
    ::close(listener);
}
BENCHMARK(BM_RawTlsHandshake)->UseRealTime();

// ---- kelbase ----------------------------------------------------------------------------------

// A connected pair of CSslSockets over loopback, made secure.
struct CKelPair {
    CSocketListener listener;
    CSslSocket client, server;
    CKelPair() {
        listener.StartListen(0, 0);
        client.SetTimeout(kGuardMs);
        client.ConnectLocal(listener.GetLocalAddr().GetPort());
        listener.Wait(kGuardMs);
        listener.Accept(server);
        server.SetTimeout(kGuardMs);
        CContexts& ctx = CContexts::Get();
        std::thread accept([&] { server.MakeSecure(ctx.server); });
        client.MakeSecure(ctx.client);
        accept.join();
    }
};

void BM_KelTlsBulk16K(benchmark::State& state) {
    KEL::Threading::CThrowState::SetThrow(1);
    CKelPair pair;
    const long long chunks = static_cast<long long>(state.max_iterations);
    std::thread reader([&] {
        KEL::Threading::CThrowState::SetThrow(1);
        std::vector<char> in(kChunk);
        for (long long i = 0; i < chunks; ++i) pair.server.Read(in.data(), kChunk);
    });
    std::vector<char> out(kChunk, 'x');
    for (auto _ : state) pair.client.Write(out.data(), kChunk, nullptr);
    reader.join();
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(kChunk));
    state.SetLabel(SSL_get_version(pair.client.GetSslHandle()) + std::string(" ") +
                   SSL_get_cipher_name(pair.client.GetSslHandle()));
}
BENCHMARK(BM_KelTlsBulk16K)->UseRealTime();

void BM_KelTlsHandshake(benchmark::State& state) {
    KEL::Threading::CThrowState::SetThrow(1);
    CContexts& ctx = CContexts::Get();
    CSocketListener listener;
    listener.StartListen(0, 0);
    const unsigned int port = listener.GetLocalAddr().GetPort();
    const long long count = static_cast<long long>(state.max_iterations);
    std::thread server([&] {
        KEL::Threading::CThrowState::SetThrow(1);
        for (long long i = 0; i < count; ++i) {
            CSslSocket s;
            s.SetTimeout(kGuardMs);
            listener.Wait(kGuardMs);
            listener.Accept(s);
            s.MakeSecure(ctx.server);
            s.Close();
        }
    });
    for (auto _ : state) {
        CSslSocket s;
        s.SetTimeout(kGuardMs);
        s.ConnectLocal(port);
        s.MakeSecure(ctx.client);
        s.Close();
    }
    server.join();
}
BENCHMARK(BM_KelTlsHandshake)->UseRealTime();

// ---- message channel round trips ------------------------------------------------------------

constexpr unsigned int kApplication = 0x4B454C53;

void ChannelRequest(CKelSocketClient& client) {
    client.StartRequest(1000);
    client << 123456 << -42 << std::string("status of adapter 0");
    unsigned int ack = 0;
    client.WaitForAck(ack);
    int result = 0;
    client >> result;
    client.EndRequest();
}

bool ChannelAnswer(CKelSocketServer& server) {
    unsigned int code = 0;
    if (server.WaitForRequest(code) != 1) return false;
    int a = 0, b = 0;
    std::string text;
    server >> a >> b >> text;
    server.SendAck(1);
    server << 654321;
    server.EndAck();
    return true;
}

unsigned long long BytesReceived(unsigned long long handle) {
    tcp_info info{};
    socklen_t len = sizeof info;
    getsockopt(static_cast<int>(handle), IPPROTO_TCP, TCP_INFO, &info, &len);
    return info.tcpi_bytes_received;
}

// The bytes one round trip puts on the wire each way, measured once on plain loopback, so that
// the raw peer moves exactly as many.
struct CRoundTripBytes {
    size_t request = 0, answer = 0;
    static const CRoundTripBytes& Get() {
        static const CRoundTripBytes s_Bytes = [] {
            CRoundTripBytes bytes;
            CSocketListener listener;
            listener.StartListen(0, 0);
            CSocket client, server;
            client.SetTimeout(kGuardMs);
            client.ConnectLocal(listener.GetLocalAddr().GetPort());
            listener.Wait(kGuardMs);
            listener.Accept(server);
            server.SetTimeout(kGuardMs);
            CKelSocketServer serverChannel;
            CKelSocketClient clientChannel;
            std::thread t([&] {
                KEL::Threading::CThrowState::SetThrow(1);
                serverChannel.Attach(server, kApplication);
                for (int i = 0; i < 2; ++i) ChannelAnswer(serverChannel);
            });
            clientChannel.Attach(client, kApplication);
            ChannelRequest(clientChannel); // the first one may differ (buffers, first waits)
            const unsigned long long toServer = BytesReceived(server.GetNativeHandle());
            const unsigned long long toClient = BytesReceived(client.GetNativeHandle());
            ChannelRequest(clientChannel);
            t.join();
            bytes.request = static_cast<size_t>(BytesReceived(server.GetNativeHandle()) - toServer);
            bytes.answer = static_cast<size_t>(BytesReceived(client.GetNativeHandle()) - toClient);
            return bytes;
        }();
        return s_Bytes;
    }
};

void BM_RawTlsPingPong(benchmark::State& state) {
    CContexts& ctx = CContexts::Get();
    const CRoundTripBytes& bytes = CRoundTripBytes::Get();
    CRawTlsPair pair(ctx);
    SSL* const client = pair.client;
    SSL* const server = pair.server;
    const long long rounds = static_cast<long long>(state.max_iterations);
    std::thread peer([&] {
        std::vector<char> in(bytes.request), out(bytes.answer, 'a');
        for (long long i = 0; i < rounds; ++i) {
            if (!RawReadAll(server, in.data(), in.size())) break;
            SSL_write(server, out.data(), static_cast<int>(out.size()));
        }
    });
    std::vector<char> out(bytes.request, 'r'), in(bytes.answer);
    for (auto _ : state) {
        SSL_write(client, out.data(), static_cast<int>(out.size()));
        RawReadAll(client, in.data(), in.size());
    }
    peer.join();
    state.SetLabel(std::to_string(bytes.request) + "+" + std::to_string(bytes.answer) + " bytes");
}
BENCHMARK(BM_RawTlsPingPong)->UseRealTime();

void BM_KelTlsChannelRoundTrip(benchmark::State& state) {
    KEL::Threading::CThrowState::SetThrow(1);
    CKelPair pair;
    const long long rounds = static_cast<long long>(state.max_iterations);
    CKelSocketServer serverChannel;
    CKelSocketClient clientChannel;
    std::thread peer([&] {
        KEL::Threading::CThrowState::SetThrow(1);
        serverChannel.Attach(pair.server, kApplication);
        for (long long i = 0; i < rounds; ++i)
            if (!ChannelAnswer(serverChannel)) break;
    });
    clientChannel.Attach(pair.client, kApplication);
    for (auto _ : state) ChannelRequest(clientChannel);
    peer.join();
}
BENCHMARK(BM_KelTlsChannelRoundTrip)->UseRealTime();

} // namespace

int main(int argc, char** argv) {
    // The raw peer writes through OpenSSL's own socket BIO, which may meet a closed connection.
    std::signal(SIGPIPE, SIG_IGN);
    return kelbench::RunAndReport(argc, argv, [](const kelbench::CRatioReporter& reporter) {
        // Targets: at least 0.9x the peer's rate, i.e. at most 1/0.9 of its time.
        reporter.PrintRatio("BM_KelTlsBulk16K", "BM_RawTlsBulk16K", 1.0 / 0.9);
        reporter.PrintRatio("BM_KelTlsHandshake", "BM_RawTlsHandshake", 1.0 / 0.9);
        reporter.PrintRatio("BM_KelTlsChannelRoundTrip", "BM_RawTlsPingPong", 1.0 / 0.9);
    });
}
