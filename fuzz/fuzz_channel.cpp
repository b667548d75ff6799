// kelbase - fuzz/fuzz_channel.cpp
//
// The message channel's readers on arbitrary bytes. Input layout: byte 0 chooses the end
// (bit 0: server) and whether a valid handshake is put in front of the rest (bit 1); the low
// four bits of byte 1 give the number of operations (1..16), whose codes follow; the remaining
// bytes are what the peer sends, after which it shuts its side down. The channel then runs
// the chosen operations (handshake, requests, integer/string/block/file readers, Skip,
// events) over a socket pair. Checks: no operation hangs or crashes, and the state is always
// a known state with or without the error flag.
#include <kel/Exceptions.h>
#include <kel/Sockets.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

using KEL::Sockets::CKelSocket;

constexpr unsigned int kAppId = 0x4B454C31u;

FILE* Sink() {
    static FILE* sink = std::fopen("/dev/null", "wb");
    return sink;
}

void CheckState(const CKelSocket& c) {
    const unsigned int s = c.GetState() & ~static_cast<unsigned int>(CKelSocket::ST_Error);
    if (s > CKelSocket::ST_Closed) std::abort();
}

// One reader; stream operators throw, the rest return their status.
void Reader(CKelSocket& c, unsigned int op) {
    try {
        switch (op) {
        case 0: { signed char v; c >> v; break; }
        case 1: { unsigned short v; c >> v; break; }
        case 2: { int v; c >> v; break; }
        case 3: { unsigned long long v; c >> v; break; }
        case 4: { std::string s; c >> s; break; }
        case 5: { KEL::Strings::CStringVar s; c >> s; break; }
        case 6: {
            unsigned char buf[7];
            size_t got = 0;
            for (int i = 0; i < 100000 && c.Read(buf, sizeof buf, got) == 132u; ++i) {
                if (got != sizeof buf) std::abort();
            }
            break;
        }
        default: c >> Sink(); break;
        }
    } catch (const KEL::Exceptions::CKelException&) {
    }
}

void RunServer(KEL::Sockets::CSocket& socket, const uint8_t* ops, size_t nops) {
    KEL::Sockets::CKelSocketServer s;
    if (s.Attach(socket, kAppId) != 1u) {
        if (s.IsAttached()) std::abort();
        return;
    }
    for (size_t i = 0; i < nops && s.IsAttached(); ++i) {
        unsigned int code = 0;
        const unsigned int op = ops[i] % 14;
        switch (op) {
        case 0: s.WaitForRequest(code); break;
        case 1: s.CheckRequest(code); break;
        case 9:
            if (s.Skip() == 1u && s.GetState() != CKelSocket::ST_Read) std::abort();
            break;
        case 10:
            if (s.SendAck(3) == 1u) {
                try {
                    s << -77 << "answer";
                } catch (const KEL::Exceptions::CKelException&) {
                }
                s.EndAck();
            }
            break;
        case 11: s.SendKeepAlive(); break;
        case 12: s.SetEvents(1ull << (ops[i] & 63)); break;
        case 13: s.Close(); break;
        default: Reader(s, op - 2); break;
        }
        CheckState(s);
    }
    if (s.IsAttached()) s.Abort();
}

void RunClient(KEL::Sockets::CSocket& socket, const uint8_t* ops, size_t nops) {
    KEL::Sockets::CKelSocketClient c;
    if (c.Attach(socket, kAppId) != 1u) {
        if (c.IsAttached()) std::abort();
        return;
    }
    for (size_t i = 0; i < nops && c.IsAttached(); ++i) {
        unsigned int ack = 0;
        unsigned long long events = 0;
        unsigned int r = 1;
        const unsigned int op = ops[i] % 14;
        switch (op) {
        case 0:
            r = c.StartRequest(ops[i]);
            if (r == 1u) {
                try {
                    c << 12345 << "param";
                } catch (const KEL::Exceptions::CKelException&) {
                }
                r = c.WaitForAck(ack);
            }
            break;
        case 1: r = c.EndRequest(); break;
        case 9:
            r = c.Skip();
            if (r == 1u && c.GetState() != CKelSocket::ST_Read) std::abort();
            break;
        case 10: r = c.GetEvents(events); break;
        case 11: r = c.CanRead(); break;
        case 12: r = c.Wait(0); break;
        case 13: c.Close(); break;
        default: Reader(c, op - 2); break;
        }
        CheckState(c);
        // A failed public operation of the client leaves exactly ST_Idle | ST_Error.
        const bool failed = r != 1u && (r < 130u || r > 134u);
        if (failed && c.IsAttached() && c.GetState() != 129u) std::abort();
    }
    if (c.IsAttached()) c.Abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2 || size > 65536) return 0;
    const bool server = data[0] & 1;
    const bool handshake = data[0] & 2;
    const size_t nops = (data[1] & 15u) + 1;
    if (size < 2 + nops) return 0;
    const uint8_t* ops = data + 2;
    std::vector<unsigned char> wire;
    if (handshake) {
        if (server) wire = {0x4B, 0x45, 0x4C, 0x31};
        wire.insert(wire.end(), {0xA9, 0x01, 0x00});
    }
    wire.insert(wire.end(), data + 2 + nops, data + size);

    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) return 0;
    // Room for the whole input and for everything the channel answers, so nobody blocks.
    const int room = 1 << 20;
    ::setsockopt(fds[1], SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
    ::setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
    size_t done = 0;
    while (done < wire.size()) {
        const ssize_t n = ::send(fds[1], wire.data() + done, wire.size() - done, MSG_NOSIGNAL);
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
    ::shutdown(fds[1], SHUT_WR);
    {
        KEL::Sockets::CSocket socket;
        socket.Attach(static_cast<unsigned long long>(fds[0]));
        socket.SetTimeout(2000); // a hang guard only: the peer's side is shut, reads end at once
        if (server)
            RunServer(socket, ops, nops);
        else
            RunClient(socket, ops, nops);
    }
    ::close(fds[1]);
    return 0;
}
