// kelbase - Src/Posix/Socket_Posix.cpp
//
// Sockets on the BSD socket calls. Every socket is non-blocking; a wait on it polls its
// descriptor beside the waiting thread's parker (see the list wait), and the poll result is
// turned into the status bits the rest of the library knows (read 1, write 2, accept 8,
// connect 16, close 32).
#define KEL_SOURCE_FILE "Src/Posix"
#include <kel/Exceptions.h>
#include <kel/Functions.h>
#include <kel/Sockets.h>
#include <kel/Trace.h>

#include "Posix/Socket_Posix.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace KEL {
namespace Sockets {

namespace {

[[noreturn]] void RaiseErrno(int error, const char* call) {
    errno = error;
    KEL_RAISE_NATIVE(0x2001001Fu, Functions::GetOsError(), "Error in socket function (%s, error=%d)", call, error);
}

int Fd(unsigned long long handle) noexcept { return static_cast<int>(handle); }

socklen_t AddressLength(const sockaddr_storage& a) noexcept {
    return a.ss_family == AF_INET6 ? static_cast<socklen_t>(sizeof(sockaddr_in6))
                                   : static_cast<socklen_t>(sizeof(sockaddr_in));
}

void SetIntOption(int fd, int level, int name, int value, const char* what) {
    if (::setsockopt(fd, level, name, &value, sizeof value) != 0) RaiseErrno(errno, what);
}

short PollEventsFor(unsigned int mask) noexcept {
    short events = 0;
    if (mask & (CSocket::ST_CanRead | CSocket::ST_Accept)) events |= POLLIN;
    if (mask & (CSocket::ST_CanWrite | CSocket::ST_IsConnected)) events |= POLLOUT;
    if (mask & CSocket::ST_Close) events |= POLLRDHUP;
    return events;
}

} // namespace

// ---- CSocketAddr --------------------------------------------------------------------------

struct CSocketAddr::CEntries {
    std::vector<sockaddr_storage> list;
};

CSocketAddr::CSocketAddr() : m_pEntries(new CEntries) {}

CSocketAddr::CSocketAddr(const sockaddr& address) : m_pEntries(new CEntries) {
    sockaddr_storage s{};
    const size_t n = address.sa_family == AF_INET6 ? sizeof(sockaddr_in6)
                     : address.sa_family == AF_INET ? sizeof(sockaddr_in)
                                                    : sizeof(sockaddr);
    std::memcpy(&s, &address, n);
    m_pEntries->list.push_back(s);
}

CSocketAddr::CSocketAddr(const sockaddr_storage& address) : m_pEntries(new CEntries) {
    m_pEntries->list.push_back(address);
}

CSocketAddr::CSocketAddr(const CSocketAddr& other) : m_pEntries(new CEntries(*other.m_pEntries)) {}

CSocketAddr& CSocketAddr::operator=(const CSocketAddr& other) {
    if (this != &other) m_pEntries->list = other.m_pEntries->list;
    return *this;
}

CSocketAddr::~CSocketAddr() { delete m_pEntries; }

unsigned int CSocketAddr::Resolve(const std::string& host, unsigned int port) {
    return Resolve(Strings::CSubStringRef(host), port);
}

unsigned int CSocketAddr::Resolve(const Strings::CSubStringRef& host, unsigned int port) {
    const std::string name(host.data(), host.Length());
    char service[16];
    std::snprintf(service, sizeof service, "%u", port);
    // An embedded NUL would silently shorten the name; an empty one would mean "any address".
    if (name.empty() || name.find('\0') != std::string::npos || port > 65535)
        KEL_RAISE(0x2001001Cu, "CSocketAddr::Resolve(%s, %s)", name.c_str(), service);
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const int rc = ::getaddrinfo(name.c_str(), service, &hints, &found);
    if (rc != 0 || found == nullptr) {
        if (found) ::freeaddrinfo(found);
        KEL_RAISE(0x2001001Cu, "CSocketAddr::Resolve(%s, %s)", name.c_str(), service);
    }
    std::vector<sockaddr_storage> list;
    for (addrinfo* a = found; a; a = a->ai_next) {
        if (a->ai_family != AF_INET && a->ai_family != AF_INET6) continue;
        if (a->ai_addrlen > sizeof(sockaddr_storage)) continue;
        sockaddr_storage s{};
        std::memcpy(&s, a->ai_addr, a->ai_addrlen);
        list.push_back(s);
    }
    ::freeaddrinfo(found);
    if (list.empty()) KEL_RAISE(0x2001001Cu, "CSocketAddr::Resolve(%s, %s)", name.c_str(), service);
    m_pEntries->list.swap(list);
    return URET_Ok;
}

CSocketAddr& CSocketAddr::Append(const CSocketAddr& other) {
    const std::vector<sockaddr_storage> add = other.m_pEntries->list; // other may be *this
    m_pEntries->list.insert(m_pEntries->list.end(), add.begin(), add.end());
    return *this;
}

size_t CSocketAddr::Count() const noexcept { return m_pEntries->list.size(); }

CSocketAddr CSocketAddr::operator[](size_t i) const {
    CSocketAddr one;
    if (i < m_pEntries->list.size()) one.m_pEntries->list.push_back(m_pEntries->list[i]);
    return one;
}

bool CSocketAddr::operator==(const CSocketAddr& other) const noexcept {
    const auto& a = m_pEntries->list;
    const auto& b = other.m_pEntries->list;
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (a[i].ss_family != b[i].ss_family) return false;
        if (std::memcmp(&a[i], &b[i], AddressLength(a[i])) != 0) return false;
    }
    return true;
}

unsigned int CSocketAddr::GetAddress(sockaddr_storage& out) const {
    if (m_pEntries->list.empty()) KEL_RAISE(0x2001001Du, "No address information available");
    out = m_pEntries->list.front();
    return URET_Ok;
}

unsigned int CSocketAddr::GetAddress(std::string& out) const {
    if (m_pEntries->list.empty()) KEL_RAISE(0x2001001Du, "No address information available");
    const sockaddr_storage& s = m_pEntries->list.front();
    char text[64];
    if (s.ss_family == AF_INET) {
        const auto* b = reinterpret_cast<const unsigned char*>(&reinterpret_cast<const sockaddr_in&>(s).sin_addr);
        std::snprintf(text, sizeof text, "%d.%d.%d.%d", b[0], b[1], b[2], b[3]);
    } else if (s.ss_family == AF_INET6) {
        const auto* b = reinterpret_cast<const unsigned char*>(&reinterpret_cast<const sockaddr_in6&>(s).sin6_addr);
        unsigned int g[8];
        for (int i = 0; i < 8; ++i) g[i] = static_cast<unsigned int>(b[2 * i] << 8 | b[2 * i + 1]);
        std::snprintf(text, sizeof text, "%x:%x:%x:%x:%x:%x:%x:%x", g[0], g[1], g[2], g[3], g[4], g[5], g[6], g[7]);
    } else {
        KEL_RAISE(0x2001001Du, "No address information available");
    }
    out = text;
    return URET_Ok;
}

unsigned int CSocketAddr::GetAddress(Strings::CStringVar& out) const {
    std::string text;
    GetAddress(text);
    out = text;
    return URET_Ok;
}

unsigned int CSocketAddr::GetPort() const noexcept {
    if (m_pEntries->list.empty()) return 0;
    const sockaddr_storage& s = m_pEntries->list.front();
    if (s.ss_family == AF_INET) return ntohs(reinterpret_cast<const sockaddr_in&>(s).sin_port);
    if (s.ss_family == AF_INET6) return ntohs(reinterpret_cast<const sockaddr_in6&>(s).sin6_port);
    return 0;
}

int CSocketAddr::GetFamily() const noexcept {
    return m_pEntries->list.empty() ? 0 : m_pEntries->list.front().ss_family;
}

// ---- CSocket ------------------------------------------------------------------------------

CSocket::CSocket() noexcept = default;

CSocket::~CSocket() { ReleaseHandle(false); }

void CSocket::ReleaseHandle(bool abortive) noexcept {
    if (m_hSocket == kNoHandle) return;
    if (abortive) {
        linger l{1, 0};
        ::setsockopt(Fd(m_hSocket), SOL_SOCKET, SO_LINGER, &l, sizeof l);
    }
    ::close(Fd(m_hSocket));
    m_hSocket = kNoHandle;
    m_iPollFd = -1;
    m_uStatus &= ~ST_IsConnected;
}

unsigned int CSocket::SetMask(unsigned int mask) {
    m_sPollEvents = PollEventsFor(mask);
    return URET_Ok;
}

unsigned int CSocket::SignaledAfterWait(unsigned int mask) {
    const short seen = m_sPollResult;
    m_sPollResult = 0;
    if (seen == 0 || m_hSocket == kNoHandle) return URET_Ok;
    unsigned int bits = 0;
    const bool connecting = !IsConnected() && !m_bClosedByPeer;
    if (connecting && (mask & ST_IsConnected) && (seen & (POLLOUT | POLLERR | POLLHUP))) {
        int error = 0;
        socklen_t len = sizeof error;
        if (::getsockopt(Fd(m_hSocket), SOL_SOCKET, SO_ERROR, &error, &len) != 0) {
            StoreError(errno);
            Abort();
            return 0x2001001Fu;
        }
        StoreError(error);
        if (error == 0) bits |= ST_IsConnected | (seen & POLLOUT ? ST_CanWrite : 0u);
    } else {
        if ((seen & (POLLIN | POLLERR)) && (mask & ST_CanRead)) bits |= ST_CanRead;
        if ((seen & POLLOUT) && (mask & ST_CanWrite)) bits |= ST_CanWrite;
        // The reader wakes and meets the close (or the error) in its next receive.
        if ((seen & (POLLRDHUP | POLLHUP)) && (mask & ST_Close)) bits |= ST_Close | ST_CanRead;
    }
    m_uStatus |= bits;
    return URET_Ok;
}

unsigned int CSocket::Close() {
    ReleaseHandle(false);
    return URET_Ok;
}

unsigned int CSocket::Abort() {
    ReleaseHandle(true);
    return URET_Ok;
}

unsigned int CSocket::Shutdown(unsigned int how) {
    if (m_hSocket == kNoHandle) KEL_RAISE(0x2001001Eu, "Socket is not connected");
    const int mode = how == SM_Receive ? SHUT_RD : how == SM_Send ? SHUT_WR : SHUT_RDWR;
    if (::shutdown(Fd(m_hSocket), mode) != 0) {
        StoreError(errno);
        RaiseErrno(errno, "shutdown");
    }
    return URET_Ok;
}

unsigned int CSocket::ConnectLocal(unsigned int port) {
    // The IPv4 loopback exists on every host, also where IPv6 is switched off.
    CSocketAddr address;
    address.Resolve(std::string("127.0.0.1"), port);
    return Connect(address);
}

unsigned int CSocket::StartConnect(CSocketAddr& address) {
    if (IsConnected()) KEL_RAISE(0x20010020u, "Socket already connected");
    sockaddr_storage target{};
    address.GetAddress(target);
    ReleaseHandle(false);
    m_uStatus = 0;
    m_uError = 0;
    m_bClosedByPeer = false;
    m_bAccepted = false;
    const int fd = ::socket(target.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP);
    if (fd < 0) RaiseErrno(errno, "socket");
    m_hSocket = static_cast<unsigned long long>(fd);
    m_iPollFd = fd;
    m_iFamily = target.ss_family;
    SetIntOption(fd, IPPROTO_TCP, TCP_NODELAY, 1, "setsockopt(TCP_NODELAY)");
    if (target.ss_family == AF_INET6) SetIntOption(fd, IPPROTO_IPV6, IPV6_V6ONLY, 1, "setsockopt(IPV6_V6ONLY)");
    const int rc = ::connect(fd, reinterpret_cast<const sockaddr*>(&target), AddressLength(target));
    if (rc == 0) {
        m_uStatus |= ST_IsConnected | ST_CanWrite;
        return URET_Ok;
    }
    const unsigned int r = CheckBlocking(rc);
    return r;
}

unsigned int CSocket::Attach(unsigned long long handle) {
    if (IsConnected()) KEL_RAISE(0x20010020u, "Socket already connected");
    ReleaseHandle(false);
    const int fd = Fd(handle);
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) RaiseErrno(errno, "fcntl");
    sockaddr_storage local{};
    socklen_t len = sizeof local;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &len) == 0) m_iFamily = local.ss_family;
    m_hSocket = handle;
    m_iPollFd = fd;
    m_uError = 0;
    m_bClosedByPeer = false;
    m_bAccepted = true;
    m_uStatus = ST_IsConnected;
    return URET_Ok;
}

unsigned int CSocket::CheckBlocking(long long result) {
    if (result != -1) return URET_Ok;
    const int e = errno;
    KEL_TRACE(KEL_MODULE_INFO_KelLib, 0x20000000u, "KEL::Sockets::CSocket::CheckBlocking", "::GetLastError = %d") << e;
    if (e == EAGAIN || e == EWOULDBLOCK || e == EINPROGRESS) return URET_WouldBlock;
    if (e == 0) return URET_Ok;
    StoreError(e);
    return URET_Failed;
}

unsigned int CSocket::TCP_NoSendDelay(bool on) {
    if (m_hSocket == kNoHandle) KEL_RAISE(0x2001001Eu, "Socket is not connected");
    SetIntOption(Fd(m_hSocket), IPPROTO_TCP, TCP_NODELAY, on ? 1 : 0, "setsockopt(TCP_NODELAY)");
    return URET_Ok;
}

CSocketAddr CSocket::GetPeerAddr() {
    sockaddr_storage s{};
    socklen_t len = sizeof s;
    if (m_hSocket == kNoHandle || ::getpeername(Fd(m_hSocket), reinterpret_cast<sockaddr*>(&s), &len) != 0)
        RaiseErrno(m_hSocket == kNoHandle ? ENOTCONN : errno, "getpeername");
    return CSocketAddr(s);
}

CSocketAddr CSocket::GetLocalAddr() {
    sockaddr_storage s{};
    socklen_t len = sizeof s;
    if (m_hSocket == kNoHandle || ::getsockname(Fd(m_hSocket), reinterpret_cast<sockaddr*>(&s), &len) != 0)
        RaiseErrno(m_hSocket == kNoHandle ? EBADF : errno, "getsockname");
    return CSocketAddr(s);
}

// ---- CSocketListener ----------------------------------------------------------------------

CSocketListener::CSocketListener() noexcept = default;

CSocketListener::~CSocketListener() { StopListen(); }

unsigned int CSocketListener::StartListen(CSocketAddr& address) {
    sockaddr_storage where{};
    address.GetAddress(where);
    StopListen();
    const int fd = ::socket(where.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP);
    if (fd < 0) RaiseErrno(errno, "socket");
    try {
        SetIntOption(fd, IPPROTO_TCP, TCP_NODELAY, 1, "setsockopt(TCP_NODELAY)");
        SetIntOption(fd, SOL_SOCKET, SO_REUSEADDR, 1, "setsockopt(SO_REUSEADDR)");
        if (where.ss_family == AF_INET6) SetIntOption(fd, IPPROTO_IPV6, IPV6_V6ONLY, 1, "setsockopt(IPV6_V6ONLY)");
        if (::bind(fd, reinterpret_cast<const sockaddr*>(&where), AddressLength(where)) != 0) RaiseErrno(errno, "bind");
        if (::listen(fd, 200) != 0) RaiseErrno(errno, "listen");
    } catch (...) {
        ::close(fd);
        throw;
    }
    m_hSocket = static_cast<unsigned long long>(fd);
    m_iPollFd = fd;
    m_uStatus = 0;
    return URET_Ok;
}

unsigned int CSocketListener::StartListen(unsigned int port, unsigned int ipv6) {
    sockaddr_storage any{};
    if (ipv6) {
        auto& a = reinterpret_cast<sockaddr_in6&>(any);
        a.sin6_family = AF_INET6;
        a.sin6_addr = in6addr_any;
        a.sin6_port = htons(static_cast<uint16_t>(port));
    } else {
        auto& a = reinterpret_cast<sockaddr_in&>(any);
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_ANY);
        a.sin_port = htons(static_cast<uint16_t>(port));
    }
    CSocketAddr address(any);
    return StartListen(address);
}

unsigned int CSocketListener::StopListen() {
    if (m_hSocket != CSocket::kNoHandle) ::close(Fd(m_hSocket));
    m_hSocket = CSocket::kNoHandle;
    m_iPollFd = -1;
    m_uStatus = 0;
    return URET_Ok;
}

unsigned int CSocketListener::Accept(unsigned long long& handle) {
    if (m_hSocket == CSocket::kNoHandle) KEL_RAISE(0x20010025u, "Socket is not listening");
    const int fd = ::accept4(Fd(m_hSocket), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
        const int e = errno;
        if (e == EAGAIN || e == EWOULDBLOCK || e == EINTR || e == ECONNABORTED) {
            m_uStatus &= ~CSocket::ST_Accept;
            return URET_WouldBlock;
        }
        RaiseErrno(e, "accept");
    }
    handle = static_cast<unsigned long long>(fd);
    return URET_Ok;
}

unsigned int CSocketListener::Accept(CSocket& socket) {
    unsigned long long handle = CSocket::kNoHandle;
    const unsigned int r = Accept(handle);
    if (r != URET_Ok) return r;
    try {
        return socket.Attach(handle);
    } catch (...) {
        ::close(Fd(handle));
        throw;
    }
}

unsigned int CSocketListener::Wait(unsigned int timeoutMs) {
    if (m_hSocket == CSocket::kNoHandle) KEL_RAISE(0x20010025u, "Socket is not listening");
    Threading::CWaiter waiter;
    waiter << static_cast<Threading::CWaitHandle>(*this);
    return waiter.Wait(timeoutMs);
}

unsigned int CSocketListener::SetMask(unsigned int mask) {
    m_sPollEvents = PollEventsFor(mask);
    return URET_Ok;
}

unsigned int CSocketListener::SignaledAfterWait(unsigned int mask) {
    const short seen = m_sPollResult;
    m_sPollResult = 0;
    if ((seen & POLLIN) && (mask & CSocket::ST_Accept)) m_uStatus |= CSocket::ST_Accept;
    return URET_Ok;
}

CSocketAddr CSocketListener::GetLocalAddr() {
    sockaddr_storage s{};
    socklen_t len = sizeof s;
    if (m_hSocket == CSocket::kNoHandle) KEL_RAISE(0x20010025u, "Socket is not listening");
    if (::getsockname(Fd(m_hSocket), reinterpret_cast<sockaddr*>(&s), &len) != 0) RaiseErrno(errno, "getsockname");
    return CSocketAddr(s);
}

CSocketListener::operator Threading::CWaitHandle() {
    return Threading::CWaitHandle(this, CSocket::ST_Accept | CSocket::ST_Close);
}

// ---- system calls for the portable part ---------------------------------------------------

} // namespace Sockets

namespace Internals {
namespace Posix {

long long SocketRecv(unsigned long long handle, void* buffer, size_t size, bool peek) noexcept {
    ssize_t n;
    do {
        n = ::recv(static_cast<int>(handle), buffer, size, peek ? MSG_PEEK : 0);
    } while (n < 0 && errno == EINTR);
    return n;
}

long long SocketSend(unsigned long long handle, const void* data, size_t size) noexcept {
    ssize_t n;
    do {
        n = ::send(static_cast<int>(handle), data, size, MSG_NOSIGNAL);
    } while (n < 0 && errno == EINTR);
    return n;
}

} // namespace Posix
} // namespace Internals
} // namespace KEL
