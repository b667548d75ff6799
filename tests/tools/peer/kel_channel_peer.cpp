// kel_channel_peer PORT: a message channel server and client of the library on loopback, for
// the dissector test's capture. Two connections:
//   1. an exchange that uses every kind of value the channel carries: request 50108 with the
//      integers 5, -1, -32, 32, -33 and 2^56, the strings "hello" and "", an empty block and a
//      block continued; the answer 1 and "ok"; a keep-alive; events 1 and 4 fetched as one
//      mask; request 7 with a file of 10 bytes and a block of 3000 bytes; close.
//   2. a client whose application id the server does not accept.
// Every step is checked; the exit status is 0 only when both sides saw what they should.
#include <kel/kelbase.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

using namespace KEL;

namespace {

constexpr unsigned int kAppId = 0x4B454C01;
constexpr unsigned int kTimeoutMs = 20000;

int g_failures = 0;

void Check(bool ok, const char* what) {
    if (!ok) {
        std::fprintf(stderr, "kel_channel_peer: %s\n", what);
        ++g_failures;
    }
}

std::vector<unsigned char> BigBlock() {
    std::vector<unsigned char> big(3000);
    for (size_t i = 0; i < big.size(); ++i)
        big[i] = static_cast<unsigned char>(i % 251);
    return big;
}

void Serve(Sockets::CSocketListener& listener) {
    Threading::CThrowState::SetThrow(1);
    try {
        Sockets::CSocket socket;
        socket.SetTimeout(kTimeoutMs);
        Check(listener.Wait(kTimeoutMs) == URET_Ok && listener.Accept(socket) == URET_Ok, "accept 1");
        Sockets::CKelSocketServer server;
        server.Attach(socket, kAppId);

        unsigned int request = 0;
        Check(server.WaitForRequest(request) == URET_Ok && request == 50108, "request 50108");
        int a = 0, b = 0, c = 0, d = 0, e = 0;
        long long f = 0;
        std::string hello, empty;
        server >> a >> b >> c >> d >> e >> f >> hello >> empty;
        Check(a == 5 && b == -1 && c == 0 && d == 32 && e == -33 && f == (1ll << 56), "integers");
        Check(hello == "hello" && empty.empty(), "strings");
        char block[8];
        size_t got = 1;
        Check(server.Read(block, sizeof block, got) == URET_Ok && got == 0, "empty block");
        Check(server.Read(block, sizeof block, got) == URET_Ok && got == 5 &&
                  std::memcmp(block, "abcde", 5) == 0,
              "continued block");
        server.SendAck(0);
        server << 1 << "ok";
        server.EndAck();

        server.SendKeepAlive();
        server.SetEvents(1);
        server.SetEvents(4);
        // The client's event query is answered inside WaitForRequest, which then reports 130.
        Check(server.WaitForRequest(request) == URET_Timeout, "event query");

        Check(server.WaitForRequest(request) == URET_Ok && request == 7, "request 7");
        FILE* file = std::tmpfile();
        server >> file;
        std::rewind(file);
        char content[16] = {};
        Check(std::fread(content, 1, sizeof content, file) == 10 &&
                  std::memcmp(content, "0123456789", 10) == 0,
              "file");
        std::fclose(file);
        std::vector<unsigned char> big(3000);
        Check(server.Read(big.data(), big.size(), got) == URET_Ok && got == 3000 && big == BigBlock(),
              "big block");
        server.SendAck(0);
        server.EndAck();
        Check(server.WaitForRequest(request) == URET_Closed, "close");
        server.Close();
    } catch (const Exceptions::CKelException& e) {
        std::fprintf(stderr, "kel_channel_peer: server failed with 0x%08X\n", e.GetCode());
        ++g_failures;
    }

    // The second client brings another application id: the server refuses it.
    Threading::CThrowState::SetThrow(0);
    Sockets::CSocket socket;
    socket.SetTimeout(kTimeoutMs);
    Check(listener.Wait(kTimeoutMs) == URET_Ok && listener.Accept(socket) == URET_Ok, "accept 2");
    Sockets::CKelSocketServer server;
    Check(server.Attach(socket, kAppId) == 0x2001002Du, "server refuses application 2");
}

void Ask(unsigned int port) {
    Threading::CThrowState::SetThrow(1);
    try {
        Sockets::CSocket socket;
        socket.SetTimeout(kTimeoutMs);
        socket.ConnectLocal(port);
        Sockets::CKelSocketClient client;
        client.Attach(socket, kAppId);

        client.StartRequest(50108);
        client << 5 << -1 << -32 << 32 << -33 << (1ll << 56) << "hello"
               << "";
        client.Write(nullptr, 0);
        client.Write("abc", 3);
        client.Write("de", 2, 1);
        unsigned int ack = 99;
        client.WaitForAck(ack);
        int one = 0;
        std::string ok;
        client >> one >> ok;
        client.EndRequest();
        Check(ack == 0 && one == 1 && ok == "ok", "answer");

        // Events arrive on their own; GetEvents asks only once it has seen the notice.
        unsigned long long events = 0;
        for (int i = 0; i < 100 && events == 0; ++i) {
            if (client.Wait(kTimeoutMs) != URET_Ok) break;
            client.GetEvents(events);
        }
        Check(events == 5, "events");

        client.StartRequest(7);
        FILE* file = std::tmpfile();
        std::fputs("0123456789", file);
        client << file;
        std::fclose(file);
        const std::vector<unsigned char> big = BigBlock();
        client.Write(big.data(), big.size());
        client.WaitForAck(ack);
        client.EndRequest();
        client.Close();
    } catch (const Exceptions::CKelException& e) {
        std::fprintf(stderr, "kel_channel_peer: client failed with 0x%08X\n", e.GetCode());
        ++g_failures;
    }

    Threading::CThrowState::SetThrow(0);
    Sockets::CSocket socket;
    socket.SetTimeout(kTimeoutMs);
    Check(socket.ConnectLocal(port) == URET_Ok, "connect 2");
    Sockets::CKelSocketClient client;
    Check(client.Attach(socket, 2) == 0x2001002Eu, "client with application 2 is refused");
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: kel_channel_peer PORT\n");
        return 2;
    }
    const unsigned int port = static_cast<unsigned int>(std::strtoul(argv[1], nullptr, 10));
    Sockets::CSocketListener listener;
    Sockets::CSocketAddr address;
    if (address.Resolve(std::string("127.0.0.1"), port) != URET_Ok ||
        listener.StartListen(address) != URET_Ok) {
        std::fprintf(stderr, "kel_channel_peer: cannot listen on 127.0.0.1:%u\n", port);
        return 1;
    }
    std::thread server([&] { Serve(listener); });
    Ask(port);
    server.join();
    return g_failures == 0 ? 0 : 1;
}
