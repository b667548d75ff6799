// kelbase - Src/Socket/Socket.cpp
//
// The parts of CSocket that need no system call of their own: the complete and partial
// read and write loops, connecting through an address list and the socket's waits.
#define KEL_SOURCE_FILE "Src/Socket"
#include <kel/Exceptions.h>
#include <kel/Functions.h>
#include <kel/Sockets.h>
#include <kel/Trace.h>

#include "Posix/Socket_Posix.h"
#include "threads/ThreadCB.h"

#include <cerrno>

namespace KEL {
namespace Sockets {

namespace {

constexpr unsigned int kTraceSocketIo = 0x20000000u;

[[noreturn]] void RaiseSocketError(unsigned int error) {
    errno = static_cast<int>(error);
    KEL_RAISE_NATIVE(0x2001001Fu, Functions::GetOsError(), "Error in socket function (error=%d)", error);
}

} // namespace

unsigned int CSocket::Wait() {
    const unsigned int r = Wait(m_uTimeout);
    if (r == URET_Timeout) KEL_RAISE(0x20010022u, "Socket timeout (%d ms)", m_uTimeout);
    return r;
}

unsigned int CSocket::Wait(unsigned int timeoutMs) {
    if (m_hSocket == kNoHandle) KEL_RAISE(0x2001001Eu, "Socket is not connected");
    // A socket alone needs no wait list: its descriptor is polled beside the thread's parker
    // directly (interrupts still end the wait), with the mask a list wait would arm.
    Threading::CThrowState state;
    try {
        unsigned int mask = m_uWaitMask;
        if (mask == 0) {
            const bool connecting = !IsConnected() && !m_bClosedByPeer;
            mask = connecting ? (ST_IsConnected | ST_Close) : (ST_CanRead | ST_Close);
        }
        SetMask(mask);
        short revents = 0;
        const unsigned int r =
            Internals::CThreadCB::Current().WaitDescriptor(m_iPollFd, m_sPollEvents, revents, timeoutMs);
        if (r != URET_Ok) return r;
        m_sPollResult = revents;
        SignaledAfterWait(mask);
        return URET_Ok;
    } catch (const Exceptions::CKelException&) {
        return state.ThrowNext(KEL_SITE());
    }
}

unsigned int CSocket::DoWait(unsigned int mask) {
    m_uWaitMask = mask;
    try {
        const unsigned int r = Wait();
        m_uWaitMask = 0;
        return r;
    } catch (...) {
        m_uWaitMask = 0;
        throw;
    }
}

CSocket::operator Threading::CWaitHandle() {
    unsigned int mask = m_uWaitMask;
    if (mask == 0) {
        // Before the connect completes only the connect (or its failure) is worth waking for;
        // afterwards a waiter of a list wants input or the close.
        const bool connecting = m_hSocket != kNoHandle && !IsConnected() && !m_bClosedByPeer;
        mask = connecting ? (ST_IsConnected | ST_Close) : (ST_CanRead | ST_Close);
    }
    return Threading::CWaitHandle(this, mask);
}

unsigned int CSocket::CheckNegotiation() { return URET_Ok; }

unsigned int CSocket::Connect(const Strings::CSubStringRef& host, unsigned int port) {
    CSocketAddr address;
    address.Resolve(host, port);
    return Connect(address);
}

unsigned int CSocket::Connect(const std::string& host, unsigned int port) {
    return Connect(Strings::CSubStringRef(host), port);
}

unsigned int CSocket::Connect(CSocketAddr& address) {
    const size_t n = address.Count();
    if (n == 0) KEL_RAISE(0x2001001Du, "No address information available");
    bool timedOut = false;
    for (size_t i = 0; i < n; ++i) {
        CSocketAddr one = address[i];
        const unsigned int r = StartConnect(one);
        if (r == URET_Ok && IsConnected()) return URET_Ok;
        if (r == URET_WouldBlock) {
            m_uWaitMask = ST_IsConnected | ST_Close;
            unsigned int w;
            try {
                w = Wait(m_uTimeout);
            } catch (...) {
                m_uWaitMask = 0;
                throw;
            }
            m_uWaitMask = 0;
            if (w == URET_Timeout) {
                timedOut = true;
            } else if (IsConnected() && m_uError == 0) {
                return URET_Ok;
            }
        }
        // This address failed: the next one gets a fresh socket.
        ReleaseHandle(true);
    }
    if (timedOut && m_uError == 0) KEL_RAISE(0x20010022u, "Socket timeout (%d ms)", m_uTimeout);
    RaiseSocketError(m_uError);
}

unsigned int CSocket::Read(void* buffer, size_t size, size_t* got, READ_MODE mode) {
    if (m_hSocket == kNoHandle) KEL_RAISE(0x2001001Eu, "Socket is not connected");
    if (m_uError != 0) RaiseSocketError(m_uError);
    if (m_bClosedByPeer) KEL_RAISE(0x20010024u, "Socket connection closed by peer");
    if (!IsConnected()) KEL_RAISE(0x2001001Eu, "Socket is not connected");
    const bool peek = mode == RM_Peek;
    char* out = static_cast<char*>(buffer);
    size_t total = 0;
    unsigned int iteration = 0;
    if (got) *got = 0;
    if (size == 0) return URET_Ok;
    for (;;) {
        // A peek cannot collect bytes piecewise: it asks for everything again each time.
        const size_t offset = peek ? 0 : total;
        KEL_TRACE(KEL_MODULE_INFO_KelLib, kTraceSocketIo, "KEL::Sockets::CSocket::Read",
                  "Before recv() to read %d bytes, ReadMode %d")
            << static_cast<long long>(size - offset) << static_cast<int>(mode);
        const long long n = Internals::Posix::SocketRecv(m_hSocket, out + offset, size - offset, peek);
        const unsigned int blocking = n == 0 ? URET_Ok : CheckBlocking(n);
        KEL_TRACE(KEL_MODULE_INFO_KelLib, kTraceSocketIo, "KEL::Sockets::CSocket::Read",
                  "After recv() we have read %d bytes, CheckBlocking() return %d")
            << n << blocking;
        if (n == 0) {
            m_bClosedByPeer = true;
            m_uStatus = (m_uStatus & ~ST_IsConnected) | ST_CanRead;
            if (got) return URET_PeerClosed;
            KEL_RAISE(0x20010024u, "Socket connection closed by peer");
        }
        if (n > 0) {
            if (got) {
                *got = static_cast<size_t>(n);
                return URET_Ok;
            }
            total = offset + static_cast<size_t>(n);
            if (total >= size) {
                KEL_TRACE(KEL_MODULE_INFO_KelLib, kTraceSocketIo, "KEL::Sockets::CSocket::Read",
                          "OK, we have read all (%d) bytes")
                    << static_cast<long long>(size);
                return URET_Ok;
            }
            if (!peek) continue;
        } else if (blocking == URET_WouldBlock) {
            m_uStatus &= ~ST_CanRead;
            if (got) return URET_WouldBlock;
        } else {
            RaiseSocketError(m_uError);
        }
        ++iteration;
        KEL_TRACE(KEL_MODULE_INFO_KelLib, kTraceSocketIo, "KEL::Sockets::CSocket::Read", "URET_WouldBlock iteration = %d")
            << iteration;
        DoWait(ST_CanRead | ST_Close);
        if (m_uError != 0) RaiseSocketError(m_uError);
    }
}

unsigned int CSocket::Write(const void* data, size_t size, size_t* written) {
    if (m_hSocket == kNoHandle) KEL_RAISE(0x2001001Eu, "Socket is not connected");
    if (m_uError != 0) RaiseSocketError(m_uError);
    if (m_bClosedByPeer) KEL_RAISE(0x20010024u, "Socket connection closed by peer");
    if (!IsConnected()) KEL_RAISE(0x2001001Eu, "Socket is not connected");
    const char* in = static_cast<const char*>(data);
    size_t total = 0;
    if (written) *written = 0;
    while (total < size) {
        const long long n = Internals::Posix::SocketSend(m_hSocket, in + total, size - total);
        const unsigned int blocking = CheckBlocking(n);
        if (n >= 0) {
            if (written) {
                *written = static_cast<size_t>(n);
                return URET_Ok;
            }
            total += static_cast<size_t>(n);
            continue;
        }
        if (blocking != URET_WouldBlock) RaiseSocketError(m_uError);
        m_uStatus &= ~ST_CanWrite;
        if (written) return URET_WouldBlock;
        DoWait(ST_CanWrite | ST_Close);
        if (m_uError != 0) RaiseSocketError(m_uError);
    }
    return URET_Ok;
}

} // namespace Sockets
} // namespace KEL
