// kelbase - Sockets.h
//
// TCP stream sockets that can be waited on together with the library's other wait objects
// (KEL::Sockets): resolved socket addresses, connected sockets with non-blocking input and
// output and a time-out, and listeners.
#pragma once

#include <kel/Config.h>
#include <kel/Strings.h>
#include <kel/Threading.h>

#include <cstddef>
#include <string>
#include <vector>

struct sockaddr;
struct sockaddr_storage;

namespace KEL {
namespace Sockets {

/// One or more resolved socket addresses (IPv4 and IPv6).
class KEL_API CSocketAddr {
public:
    CSocketAddr();
    explicit CSocketAddr(const sockaddr& address);
    explicit CSocketAddr(const sockaddr_storage& address);
    CSocketAddr(const CSocketAddr& other);
    CSocketAddr& operator=(const CSocketAddr& other);
    ~CSocketAddr();

    /// Resolves a host name or numeric address and a port into every address the system knows
    /// for them (all families, in the system's order). 0x2001001C when nothing resolves.
    unsigned int Resolve(const std::string& host, unsigned int port);
    unsigned int Resolve(const Strings::CSubStringRef& host, unsigned int port);

    /// Adds the entries of `other` behind this address's own (Connect tries them in order).
    CSocketAddr& Append(const CSocketAddr& other);
    size_t Count() const noexcept;
    /// An address holding only entry `i` (empty when out of range).
    CSocketAddr operator[](size_t i) const;
    bool operator==(const CSocketAddr& other) const noexcept;
    bool operator!=(const CSocketAddr& other) const noexcept { return !(*this == other); }

    /// The first entry; 0x2001001D when there is none.
    unsigned int GetAddress(sockaddr_storage& out) const;
    /// The first entry as "a.b.c.d" or eight hexadecimal groups; 0x2001001D when there is none.
    unsigned int GetAddress(std::string& out) const;
    unsigned int GetAddress(Strings::CStringVar& out) const;
    /// The port of the first entry (0 without one).
    unsigned int GetPort() const noexcept;
    /// The family of the first entry (AF_INET, AF_INET6; 0 without one).
    int GetFamily() const noexcept;

private:
    struct CEntries;
    CEntries* m_pEntries;
};

/// How Read takes the bytes.
enum READ_MODE { RM_Normal = 0, RM_Peek = 1 };
/// Which side Shutdown closes.
enum SHUTDOWN_MODE { SM_Receive = 0, SM_Send = 1, SM_Both = 2 };

/// A connected TCP stream socket; waitable (`operator CWaitHandle`). One thread uses a socket
/// at a time; others may wait on it. The socket is its own wait block: a CWaiter that holds it
/// must not outlive it.
class KEL_API CSocket : protected Internals::Posix::CWaitCB {
public:
    /// Status word bits.
    enum : unsigned int {
        ST_CanRead = 1,
        ST_CanWrite = 2,
        ST_Accept = 8,
        ST_IsConnected = 16,
        ST_Close = 32,
        ST_IsSecure = 0x40000000u,
    };
    static constexpr unsigned long long kNoHandle = ~0ull;

    CSocket() noexcept;
    ~CSocket() override;

    /// Waits with the socket's time-out; a time-out is thrown as 0x20010022.
    unsigned int Wait();
    /// Waits until the socket has what its next operation needs (1 or 130); ends on interrupts.
    unsigned int Wait(unsigned int timeoutMs) override;
    unsigned int SetMask(unsigned int mask) override;
    /// Turns the readiness seen by the last wait into status bits; 0x2001001F on a failure.
    unsigned int SignaledAfterWait(unsigned int mask) override;
    /// Closes the handle (if any); always 1.
    virtual unsigned int Close();
    /// Closes at once, discarding unsent data.
    virtual unsigned int Abort();
    virtual unsigned int Shutdown(unsigned int how);
    /// Tries the addresses in order; the first that connects wins.
    virtual unsigned int Connect(CSocketAddr& address);
    virtual unsigned int Connect(const Strings::CSubStringRef& host, unsigned int port);
    virtual unsigned int Connect(const std::string& host, unsigned int port);
    /// Connects to the IPv4 loopback address.
    virtual unsigned int ConnectLocal(unsigned int port);
    /// Starts a non-blocking connect to the first address; 0x20010020 when connected.
    virtual unsigned int StartConnect(CSocketAddr& address);
    /// Takes over an accepted native socket.
    virtual unsigned int Attach(unsigned long long handle);
    /// With `got`: one receive (1, 131 nothing there, 134 the peer closed). Without: all
    /// `size` bytes, waiting as needed (0x20010022 time-out, 0x20010024 peer closed).
    virtual unsigned int Read(void* buffer, size_t size, size_t* got, READ_MODE mode);
    /// With `written`: one send (1 or 131). Without: all bytes, waiting as needed.
    virtual unsigned int Write(const void* data, size_t size, size_t* written);
    /// Plain sockets have nothing to negotiate: 1.
    virtual unsigned int CheckNegotiation();
    virtual CSocketAddr GetPeerAddr();
    virtual CSocketAddr GetLocalAddr();

    unsigned int Shutdown(SHUTDOWN_MODE mode) { return Shutdown(static_cast<unsigned int>(mode)); }
    unsigned int Read(void* buffer, size_t size, size_t* got = nullptr) { return Read(buffer, size, got, RM_Normal); }
    /// Maps a socket call's result: 1, 131 (would block) or 0 (failure, error stored).
    unsigned int CheckBlocking(long long result);
    unsigned int TCP_NoSendDelay(bool on);

    unsigned int SetTimeout(unsigned int ms) noexcept {
        const unsigned int old = m_uTimeout;
        m_uTimeout = ms;
        return old;
    }
    unsigned int GetTimeout() const noexcept { return m_uTimeout; }
    unsigned int GetStatus() const noexcept { return m_uStatus; }
    unsigned int GetSocketError() const noexcept { return m_uError; }
    bool CanRead() const noexcept { return (m_uStatus & ST_CanRead) != 0; }
    bool CanWrite() const noexcept { return (m_uStatus & ST_CanWrite) != 0; }
    bool IsConnected() const noexcept { return (m_uStatus & ST_IsConnected) != 0; }
    bool IsClosed() const noexcept { return !IsConnected(); }
    bool IsSecure() const noexcept { return (m_uStatus & ST_IsSecure) != 0; }
    bool IsClosedByPeer() const noexcept { return m_bClosedByPeer; }
    unsigned long long GetNativeHandle() const noexcept { return m_hSocket; }

    /// A wait handle for CWaiter lists (mask: what the socket's next operation waits for).
    operator Threading::CWaitHandle();

protected:
    CSocket(const CSocket&) = delete;
    CSocket& operator=(const CSocket&) = delete;

    /// Wait() with the time-out, used by the complete Read and Write.
    unsigned int DoWait(unsigned int mask);
    void StoreError(int error) noexcept { m_uError = static_cast<unsigned int>(error); }
    void ReleaseHandle(bool abortive) noexcept;

    unsigned long long m_hSocket = kNoHandle;
    unsigned int m_uStatus = 0;
    bool m_bClosedByPeer = false;
    unsigned int m_uError = 0;
    unsigned int m_uTimeout = 0xFFFFFFFFu;
    int m_iFamily = 2;
    unsigned int m_uWaitMask = 0; ///< what the next wait waits for; 0: chosen from the state
    bool m_bAccepted = false;     ///< the handle came from Attach (an accepted connection), not Connect
};

/// Accepts incoming TCP connections; waitable.
class KEL_API CSocketListener : protected Internals::Posix::CWaitCB {
public:
    CSocketListener() noexcept;
    ~CSocketListener() override;

    unsigned int Wait(unsigned int timeoutMs) override;
    unsigned int SetMask(unsigned int mask) override;
    unsigned int SignaledAfterWait(unsigned int mask) override;

    /// Binds (SO_REUSEADDR; IPv6 only for IPv6 addresses) and listens with a backlog of 200.
    unsigned int StartListen(CSocketAddr& address);
    /// The same on the any-address of IPv4 (`ipv6` 0) or IPv6.
    unsigned int StartListen(unsigned int port, unsigned int ipv6);
    unsigned int StopListen();
    unsigned int Abort() { return StopListen(); }
    /// Accepts one connection into `socket`; 0x20010025 without a listening socket, 131 when
    /// none is pending.
    unsigned int Accept(CSocket& socket);
    unsigned int Accept(unsigned long long& handle);
    bool CanAccept() const noexcept { return (m_uStatus & CSocket::ST_Accept) != 0; }
    bool IsListening() const noexcept { return m_hSocket != CSocket::kNoHandle; }
    /// The address actually bound (port 0 chooses a free port).
    CSocketAddr GetLocalAddr();

    operator Threading::CWaitHandle();

protected:
    CSocketListener(const CSocketListener&) = delete;
    CSocketListener& operator=(const CSocketListener&) = delete;

    unsigned long long m_hSocket = CSocket::kNoHandle;
    unsigned int m_uStatus = 0;
};

} // namespace Sockets
} // namespace KEL
