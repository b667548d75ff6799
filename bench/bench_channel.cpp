// The message channel next to its peers: request round trips on TCP loopback against a raw
// blocking-socket ping-pong of the same byte counts, a 64 MiB binary block in 64 KiB writes
// against raw TCP with 64 KiB writes, and encoding 20 integers and 3 short strings into the
// channel buffer against msgpack-c packing the same values.
#include <kel/kelbase.h>

#include "RatioReporter.h"

#include <msgpack.hpp>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

using namespace KEL::Sockets;

namespace {

constexpr unsigned int kAppId = 0x42454E43u;
constexpr size_t kBulkBytes = 64u << 20;
constexpr size_t kBulkWrite = 64u << 10;

// ---- a loopback pair of channels, the server answering on its own thread -------------------

class CChannelPair {
public:
    template <class Serve>
    explicit CChannelPair(Serve serve) {
        m_Listener.StartListen(0, 0);
        m_Client.ConnectLocal(m_Listener.GetLocalAddr().GetPort());
        m_Listener.Wait(10000);
        m_Listener.Accept(m_Server);
        m_Thread = std::thread([this, serve] {
            if (m_ServerChannel.Attach(m_Server, kAppId) != 1u) return;
            unsigned int code = 0;
            for (;;) {
                const unsigned int r = m_ServerChannel.WaitForRequest(code);
                if (r != 1u) break;
                serve(m_ServerChannel);
            }
            m_ServerChannel.Close();
        });
        m_ClientChannel.Attach(m_Client, kAppId);
    }
    ~CChannelPair() {
        m_ClientChannel.Close();
        m_Thread.join();
    }
    CKelSocketClient& Client() { return m_ClientChannel; }

private:
    CSocketListener m_Listener;
    CSocket m_Client, m_Server;
    CKelSocketClient m_ClientChannel;
    CKelSocketServer m_ServerChannel;
    std::thread m_Thread;
};

// ---- a loopback pair of raw blocking TCP sockets -------------------------------------------

class CRawPair {
public:
    CRawPair() {
        const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof a;
        ::bind(listener, reinterpret_cast<sockaddr*>(&a), sizeof a);
        ::listen(listener, 1);
        ::getsockname(listener, reinterpret_cast<sockaddr*>(&a), &len);
        client = ::socket(AF_INET, SOCK_STREAM, 0);
        ::connect(client, reinterpret_cast<sockaddr*>(&a), sizeof a);
        server = ::accept(listener, nullptr, nullptr);
        ::close(listener);
        const int one = 1;
        // The channel's sockets send at once too.
        ::setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        ::setsockopt(server, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    }
    ~CRawPair() {
        ::close(client);
        ::close(server);
    }
    static bool SendAll(int fd, const void* data, size_t size) {
        const char* p = static_cast<const char*>(data);
        while (size) {
            const ssize_t n = ::send(fd, p, size, MSG_NOSIGNAL);
            if (n <= 0) return false;
            p += n;
            size -= static_cast<size_t>(n);
        }
        return true;
    }
    static bool RecvAll(int fd, void* data, size_t size) {
        char* p = static_cast<char*>(data);
        while (size) {
            const ssize_t n = ::recv(fd, p, size, 0);
            if (n <= 0) return false;
            p += n;
            size -= static_cast<size_t>(n);
        }
        return true;
    }
    int client = -1, server = -1;
};

// ---- request round trips -------------------------------------------------------------------

// One request: 88 64 | B1 03 E8 | FB | 98 06 "status" | 01 = 15 bytes; its answer:
// 90 01 | B0 4D | 02 = 5 bytes.
constexpr size_t kRequestBytes = 15;
constexpr size_t kAnswerBytes = 5;

void BM_Channel_RequestRoundTrip(benchmark::State& state) {
    CChannelPair pair([](CKelSocketServer& s) {
        int a = 0, b = 0;
        std::string text;
        s >> a >> b >> text;
        s.SendAck(1);
        s << a / 13;
        s.EndAck();
    });
    CKelSocketClient& c = pair.Client();
    for (auto _ : state) {
        c.StartRequest(100);
        c << 1000 << -5 << "status";
        unsigned int ack = 0;
        c.WaitForAck(ack);
        int result = 0;
        c >> result;
        c.EndRequest();
        benchmark::DoNotOptimize(result);
    }
}
BENCHMARK(BM_Channel_RequestRoundTrip)->UseRealTime()->Unit(benchmark::kMicrosecond);

void BM_RawTcp_PingPong(benchmark::State& state) {
    CRawPair pair;
    std::thread server([&] {
        char in[kRequestBytes], out[kAnswerBytes] = {};
        while (CRawPair::RecvAll(pair.server, in, sizeof in) && CRawPair::SendAll(pair.server, out, sizeof out)) {
        }
    });
    char out[kRequestBytes] = {}, in[kAnswerBytes];
    for (auto _ : state) {
        CRawPair::SendAll(pair.client, out, sizeof out);
        CRawPair::RecvAll(pair.client, in, sizeof in);
    }
    ::shutdown(pair.client, SHUT_WR);
    server.join();
}
BENCHMARK(BM_RawTcp_PingPong)->UseRealTime()->Unit(benchmark::kMicrosecond);

// ---- bulk block ----------------------------------------------------------------------------

void BM_Channel_Bulk64MiB(benchmark::State& state) {
    CChannelPair pair([](CKelSocketServer& s) {
        static std::vector<unsigned char> buf(kBulkWrite);
        size_t got = 0;
        while (s.Read(buf.data(), buf.size(), got) == KEL::URET_MoreData) {
        }
        s.SendAck(1);
        s.EndAck();
    });
    CKelSocketClient& c = pair.Client();
    std::vector<unsigned char> data(kBulkWrite, 0x5A);
    for (auto _ : state) {
        c.StartRequest(2);
        for (size_t i = 0; i < kBulkBytes / kBulkWrite; ++i) c.Write(data.data(), data.size(), i != 0);
        unsigned int ack = 0;
        c.WaitForAck(ack);
        c.EndRequest();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBulkBytes));
}
BENCHMARK(BM_Channel_Bulk64MiB)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_RawTcp_Bulk64MiB(benchmark::State& state) {
    CRawPair pair;
    std::thread server([&] {
        std::vector<char> buf(kBulkWrite);
        for (;;) {
            size_t left = kBulkBytes;
            while (left) {
                const ssize_t n = ::recv(pair.server, buf.data(), std::min(left, buf.size()), 0);
                if (n <= 0) return;
                left -= static_cast<size_t>(n);
            }
            const char ack = 1;
            if (!CRawPair::SendAll(pair.server, &ack, 1)) return;
        }
    });
    std::vector<char> data(kBulkWrite, 0x5A);
    for (auto _ : state) {
        for (size_t i = 0; i < kBulkBytes / kBulkWrite; ++i) CRawPair::SendAll(pair.client, data.data(), data.size());
        char ack;
        CRawPair::RecvAll(pair.client, &ack, 1);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBulkBytes));
    ::shutdown(pair.client, SHUT_WR);
    server.join();
}
BENCHMARK(BM_RawTcp_Bulk64MiB)->UseRealTime()->Unit(benchmark::kMillisecond);

// ---- encoding ------------------------------------------------------------------------------

const long long kValues[20] = {0,    1,          -1,          31,          32,         -33,      100,
                               255,  256,        -1000,       65535,       70000,      -70000,   1 << 30,
                               -(1 << 30), 5000000000ll, -5000000000ll, 7, 12, 123456789};
const char* const kTexts[3] = {"name", "volume-01", "ok"};

// A channel that only encodes: the buffer is emptied before each message, never sent.
class CEncoder : public CKelSocketClient {
public:
    void Begin() {
        SetState(ST_Send);
        m_count = 0;
        m_cursor = m_buffer;
    }
    const unsigned char* Data() const { return m_buffer; }
};

void BM_Channel_Encode20Ints3Strings(benchmark::State& state) {
    CEncoder c;
    for (auto _ : state) {
        c.Begin();
        CKelSocket& s = c;
        for (long long v : kValues) s << v;
        s << kTexts[0] << kTexts[1] << kTexts[2];
        benchmark::DoNotOptimize(c.Data());
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_Channel_Encode20Ints3Strings);

void BM_Msgpack_Encode20Ints3Strings(benchmark::State& state) {
    msgpack::sbuffer buffer(2048);
    // Like the channel, the buffer is an object others know of (a connection's), not one the
    // compiler may keep in registers for the whole loop.
    benchmark::DoNotOptimize(&buffer);
    for (auto _ : state) {
        buffer.clear();
        msgpack::packer<msgpack::sbuffer> pk(buffer);
        for (long long v : kValues) pk.pack(v);
        pk.pack(kTexts[0]).pack(kTexts[1]).pack(kTexts[2]);
        benchmark::DoNotOptimize(buffer.data());
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_Msgpack_Encode20Ints3Strings);

} // namespace

int main(int argc, char** argv) {
    return kelbench::RunAndReport(argc, argv, [](const kelbench::CRatioReporter& reporter) {
        // Times: 0.9 of the peer's rate is 1/0.9 of its time, 0.8 is 1/0.8.
        reporter.PrintRatio("BM_Channel_RequestRoundTrip", "BM_RawTcp_PingPong", 1.0 / 0.9);
        reporter.PrintRatio("BM_Channel_Bulk64MiB", "BM_RawTcp_Bulk64MiB", 1.0 / 0.8);
        reporter.PrintRatio("BM_Channel_Encode20Ints3Strings", "BM_Msgpack_Encode20Ints3Strings", 1.0);
    });
}
