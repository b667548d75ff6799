// TLS sockets: kelbase's CSslSocket next to a plain OpenSSL loop on blocking sockets, with the
// same contexts (so the same protocol and cipher) in the same process, over loopback:
//   - bulk transfer in 16 KiB writes, read back by a second thread in 16 KiB reads;
//   - full handshakes (TCP connect, handshake, close) per second.
// Both sides of each row run the same steps; the ratios are printed at the end.
#include <kel/kelbase.h>

#include "RatioReporter.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <stdexcept>
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
    unsigned short port = 0;
    const int listener = RawListen(port);
    const int clientFd = RawConnect(port);
    const int serverFd = RawAccept(listener);
    SSL* server = nullptr;
    std::thread accept([&] { server = RawSsl(ctx.server, serverFd, true); });
    SSL* client = RawSsl(ctx.client, clientFd, false);
    accept.join();
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
    RawClose(client, clientFd);
    RawClose(server, serverFd);
    ::close(listener);
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

} // namespace

int main(int argc, char** argv) {
    // The raw peer writes through OpenSSL's own socket BIO, which may meet a closed connection.
    std::signal(SIGPIPE, SIG_IGN);
    return kelbench::RunAndReport(argc, argv, [](const kelbench::CRatioReporter& reporter) {
        // Targets: at least 0.9x the peer's rate, i.e. at most 1/0.9 of its time.
        reporter.PrintRatio("BM_KelTlsBulk16K", "BM_RawTlsBulk16K", 1.0 / 0.9);
        reporter.PrintRatio("BM_KelTlsHandshake", "BM_RawTlsHandshake", 1.0 / 0.9);
    });
}
