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

// ---- the message channel --------------------------------------------------------------------
//
// CKelSocket turns a connected CSocket (or a TLS socket derived from it) into a typed,
// half-duplex request/acknowledge channel: a stream of one-byte commands, most followed by a
// big-endian number of one to eight bytes, some by raw payload. CKelSocketClient sends requests,
// CKelSocketServer answers them and can push an "events pending" notice. The channel does not
// own its socket; it only uses the socket's virtual operations, so any CSocket runs it.
//
//     client: Attach, StartRequest(code), << params, WaitForAck(ack), >> results, EndRequest
//     server: Attach, WaitForRequest(code), >> params, SendAck(ack), << results, EndAck
//
// Public operations return a status (or throw it, by the thread's throw mode) and set the
// error flag (128) over the channel state when they fail; stream operators throw the library
// exception and set the same flag. Once flagged, every operation that checks the state fails
// with 0x2001002A until Skip clears the flag or the channel is closed.

#include <cstdio>
#include <cstring>

namespace KEL {
namespace Sockets {

/// The shared half of both channel ends: framing, buffering, typed values and the state.
/// One thread uses a channel at a time.
class KEL_API CKelSocket {
public:
    /// One TCP segment's payload on Ethernet: a full buffer leaves as one segment.
    static constexpr size_t BUFFER_SIZE = 1460;

    /// Command codes on the wire (the low three bits of the ranged codes give the length of
    /// the number that follows, minus one).
    enum STC : unsigned int {
        STC_Close = 0x00,
        STC_WaitAck = 0x01,
        STC_EndAck = 0x02,
        STC_EventsPending = 0x03,
        STC_GetEvents = 0x04,
        STC_KeepAlive = 0x05,
        STC_EmptyString = 0x06,
        STC_File = 0x70,
        STC_BinBlockStart = 0x78,
        STC_BinBlockCont = 0x80,
        STC_Request = 0x88,
        STC_Ack = 0x90,
        STC_String = 0x98,
        STC_Events = 0xA0,
        STC_Version = 0xA8,
        STC_UInt = 0xB0,
        STC_NegInt = 0xB8,
        STC_SmallUInt = 0xC0,
        STC_SmallNegInt = 0xE0,
    };
    /// Channel states; ST_Error is a flag laid over the current state.
    enum STATE : unsigned int {
        ST_Detached = 0,
        ST_Idle = 1,
        ST_Send = 2,
        ST_Read = 3,
        ST_ReadBlock = 4,
        ST_Closed = 5,
        ST_Error = 128,
    };
    /// `m_peekCmd` when nothing was put back.
    static constexpr unsigned int NO_PEEK = 256;
    /// The protocol version this library speaks (version byte 1).
    static constexpr unsigned int PROTOCOL_VERSION = 0x0100;
    /// Files travel in pieces of at most this many bytes.
    static constexpr size_t FILE_PIECE = 4096;

    CKelSocket() noexcept;
    virtual ~CKelSocket();
    CKelSocket(const CKelSocket&) = delete;
    CKelSocket& operator=(const CKelSocket&) = delete;

    /// Writes a binary block: STC_BinBlockCont when `continued` is non-zero (it extends the
    /// block just written), else STC_BinBlockStart, with `size`, then the bytes. Needs ST_Send.
    CKelSocket& Write(const void* data, size_t size, unsigned int continued = 0);
    /// Reads (part of) a binary block and its continuations into `buffer`: 1 when the block
    /// is complete (got = bytes of this call; a zero-length block gives 1 and got 0 at once),
    /// 132 (URET_MoreData) when `buffer` is full and the block goes on (call again).
    /// 0x20010028 when no block comes (the command is put back), 0x2001002F when the
    /// connection ends inside the block. Needs ST_Read or ST_ReadBlock.
    unsigned int Read(void* buffer, size_t size, size_t& got);

    /// Integers in the fewest bytes: 0..31 and -1..-31 as one byte, others as a number of
    /// one to eight bytes. -32 goes out as 0xE0, which every reader takes as 0.
    CKelSocket& operator<<(signed char v) { return PutSigned(v); }
    CKelSocket& operator<<(short v) { return PutSigned(v); }
    CKelSocket& operator<<(int v) { return PutSigned(v); }
    CKelSocket& operator<<(long v) { return PutSigned(v); }
    CKelSocket& operator<<(long long v) { return PutSigned(v); }
    CKelSocket& operator<<(unsigned char v) { return PutUnsigned(v); }
    CKelSocket& operator<<(unsigned short v) { return PutUnsigned(v); }
    CKelSocket& operator<<(unsigned int v) { return PutUnsigned(v); }
    CKelSocket& operator<<(unsigned long v) { return PutUnsigned(v); }
    CKelSocket& operator<<(unsigned long long v) { return PutUnsigned(v); }
    /// Strings: an empty one is the single byte STC_EmptyString; a null pointer is empty.
    CKelSocket& operator<<(const std::string& text) { return PutString(text.data(), text.size()); }
    CKelSocket& operator<<(const Strings::CSubStringRef& text) { return PutString(text.data(), text.Length()); }
    CKelSocket& operator<<(const char* text) { return PutString(text, text ? std::strlen(text) : 0); }
    /// The whole content of an open file (from its start), as STC_File with the size and
    /// 4096-byte pieces. 0x20010017 when the file cannot be sized or read to the end.
    CKelSocket& operator<<(FILE* file);

    /// Integers: 0x20010028 when the next command is no integer (it is put back), 0x20010029
    /// when the value does not fit the type (negative values become the two's complement in
    /// unsigned types). Need ST_Read.
    CKelSocket& operator>>(signed char& v) { return GetSigned(v); }
    CKelSocket& operator>>(short& v) { return GetSigned(v); }
    CKelSocket& operator>>(int& v) { return GetSigned(v); }
    CKelSocket& operator>>(long& v) { return GetSigned(v); }
    CKelSocket& operator>>(long long& v) { return GetSigned(v); }
    CKelSocket& operator>>(unsigned char& v) { return GetUnsigned(v); }
    CKelSocket& operator>>(unsigned short& v) { return GetUnsigned(v); }
    CKelSocket& operator>>(unsigned int& v) { return GetUnsigned(v); }
    CKelSocket& operator>>(unsigned long& v) { return GetUnsigned(v); }
    CKelSocket& operator>>(unsigned long long& v) { return GetUnsigned(v); }
    /// Strings: 0x20010028 when the next command is no string (it is put back).
    CKelSocket& operator>>(std::string& text);
    CKelSocket& operator>>(Strings::CStringVar& text);
    /// Writes a received file to `file` (opened for writing): 0x20010028 without STC_File,
    /// 0x2001002F "%d Bytes missing" when something else arrives before the announced size,
    /// 0x20010017 when the file cannot be written.
    CKelSocket& operator>>(FILE* file);

    /// Closes the socket at once (no goodbye) and detaches: ST_Detached. Always 1.
    unsigned int Abort();
    /// The attached socket's wait handle (ready when input or the close is there), so a
    /// channel joins list waits; 0x2001001E when detached.
    operator Threading::CWaitHandle();

    unsigned int GetState() const noexcept { return m_state; }
    /// The peer's protocol version byte agreed in the handshake.
    unsigned int GetPeerVersion() const noexcept { return m_peerVersion; }
    bool IsAttached() const noexcept { return m_socket != nullptr; }

protected:
    // Output. Every byte goes through m_buffer (output is appended at m_buffer + m_count); a
    // full buffer is sent before the next byte.
    void WriteByte(unsigned char byte) {
        if (m_count == BUFFER_SIZE) Flush();
        const size_t pos = static_cast<size_t>(m_count);
        m_buffer[pos] = byte;
        m_count = pos + 1;
    }
    /// `cmd` (low three bits clear) with `value` in the fewest big-endian bytes.
    void WriteCmd(unsigned int cmd, unsigned long long value) {
        if (BUFFER_SIZE - m_count < 9) Flush();
        const size_t pos = static_cast<size_t>(m_count);
        m_count = pos + EncodeCmd(&m_buffer[pos], cmd, value);
    }
    /// Raw bytes; large ones go to the socket from the caller's memory.
    void WriteBlock(const void* data, size_t size);
    void WriteINT(long long value) {
        if (BUFFER_SIZE - m_count < 9) Flush();
        const size_t pos = static_cast<size_t>(m_count);
        m_count = pos + EncodeINT(&m_buffer[pos], value);
    }
    void WriteUINT(unsigned long long value) {
        if (BUFFER_SIZE - m_count < 9) Flush();
        const size_t pos = static_cast<size_t>(m_count);
        m_count = pos + EncodeUINT(&m_buffer[pos], value);
    }
    /// Sends what the buffer holds (all of it, blocking) and empties it.
    void Flush();
    /// Before a side starts writing: unread input may only be STC_EventsPending (noted) or
    /// STC_KeepAlive (dropped); anything else is 0x2001002C. Leaves the buffer empty.
    void PrepareBufferForSend();

    // Input.
    /// Refills the empty buffer with one partial read, waiting with the socket's time-out
    /// (0x20010022). When the peer has closed, the buffer holds the single byte STC_Close and
    /// 134 is returned; else 1.
    unsigned int ReadData();
    /// `size` raw bytes; 0x2001002F when the connection ends first.
    void ReadBlock(void* dest, size_t size);
    /// The next command (keep-alives and events-pending notices skipped), its number in `value`.
    /// 0x20010026 for a byte that is no command.
    unsigned int ReadCmd(unsigned long long& value);
    /// Reads the next command into the put-back slot (if empty) and returns it.
    unsigned int PeekCmd(unsigned long long& value);
    void PutBack(unsigned int cmd, unsigned long long value) noexcept {
        m_peekCmd = cmd;
        m_peekValue = value;
    }
    /// A big-endian number of `bytes` raw bytes.
    unsigned long long ReadInteger(unsigned int bytes);
    /// An integer for a signed / unsigned type of `size` bytes (1, 2, 4, 8).
    long long ReadINT(unsigned int size);
    unsigned long long ReadUINT(unsigned int size);
    /// Discards the rest of a block and every command up to `cmd`, which is put back.
    void Skip(unsigned int cmd);
    /// Discards `size` raw input bytes.
    void SkipBytes(unsigned long long size);

    void SetState(unsigned int state) noexcept {
        m_state = state;
        m_writeLimit = state == ST_Send ? BUFFER_SIZE - 8 : 0;
    }
    /// 0x2001002A when flagged, 0x20010027 "Current=%d, expected=<name>" when not `expected`.
    void CheckState(unsigned int expected, const char* name) const {
        if (m_state != expected) StateError(name);
    }
    [[noreturn]] void StateError(const char* name) const;
    /// Raises 0x20010028 "<what> expected, %d received" after putting the command back.
    [[noreturn]] void OutOfSync(const char* what, unsigned int cmd, unsigned long long value);
    /// Attaches (refusing a second attachment), clears buffer and put-back: ST_Idle.
    void BeginAttach(CSocket& socket);
    /// After a failed Attach: abort the socket (or `passed` when not yet taken over), detach.
    void FailAttach(CSocket& passed) noexcept;
    void Detach() noexcept;
    bool InputBuffered() const noexcept { return m_count != 0 || m_peekCmd != NO_PEEK; }

    // Encoders: write at `p` (at least 9 bytes free) and return the bytes written. A number
    // always takes one 8-byte store of which only its own bytes count; its size comes from a
    // bit scan rather than a chain of comparisons, so a stream of mixed sizes costs no
    // mispredicted or taken branches.
    static size_t EncodeCmd(unsigned char* p, unsigned int cmd, unsigned long long value) noexcept {
        const unsigned int top = HighestBit(value | 1) >> 3; // bytes - 1
        *p = static_cast<unsigned char>(cmd | top);
        // A multiplication by a power of two from a table: a shift by a variable count is
        // several micro-operations on x86 without BMI2.
        const unsigned long long be = __builtin_bswap64(value * kByteShift[top]);
        std::memcpy(p + 1, &be, 8);
        return 2 + top;
    }
    static size_t EncodeUINT(unsigned char* p, unsigned long long value) noexcept {
        if (value < 32) {
            *p = static_cast<unsigned char>(STC_SmallUInt | value);
            return 1;
        }
        return EncodeCmd(p, STC_UInt, value);
    }
    static size_t EncodeINT(unsigned char* p, long long value) noexcept {
        // The sign picks STC_SmallNegInt (STC_SmallUInt | 0x20) or STC_NegInt (STC_UInt | 8)
        // through a mask, not a branch.
        const unsigned long long sign = static_cast<unsigned long long>(value >> 63);
        const unsigned long long magnitude = (static_cast<unsigned long long>(value) ^ sign) - sign;
        if (static_cast<unsigned long long>(value) + 32 < 64) {
            // -32 gives 0xE0 | 32 = 0xE0: kept so, peers depend on the exact bytes.
            *p = static_cast<unsigned char>(STC_SmallUInt | (sign & (STC_SmallNegInt ^ STC_SmallUInt)) | magnitude);
            return 1;
        }
        return EncodeCmd(p, STC_UInt | static_cast<unsigned int>(sign & (STC_NegInt ^ STC_UInt)), magnitude);
    }
    /// Moves the low `k + 1` bytes of a number to the top of 64 bits.
    static constexpr unsigned long long kByteShift[8] = {1ull << 56, 1ull << 48, 1ull << 40, 1ull << 32,
                                                         1ull << 24, 1ull << 16, 1ull << 8,  1ull};
    /// The index of the highest set bit of `v`, which is not 0. Without LZCNT the compiler's
    /// bit scan (BSR) leaves its destination alone for a zero source, so the processor waits
    /// for the register's old value: each number's size would wait for the previous one's.
    /// Clearing the register first breaks that chain.
    static unsigned int HighestBit(unsigned long long v) noexcept {
#if defined(__x86_64__) && !defined(__LZCNT__) && defined(__GNUC__)
        if (!__builtin_constant_p(v)) {
            unsigned long long bit;
            __asm__("xorl %k0, %k0\n\tbsrq %1, %0" : "=&r"(bit) : "r"(v) : "cc");
            return static_cast<unsigned int>(bit);
        }
#endif
        return 63u - static_cast<unsigned int>(__builtin_clzll(v));
    }

    // Stream-operator bodies: the fast path stays inline, the rest marks the error flag.
    CKelSocket& PutSigned(long long v) {
        // The position is read once: stores into the buffer could alias m_count. One compare
        // checks both the state and the room (m_writeLimit).
        const size_t pos = static_cast<size_t>(m_count);
        if (__builtin_expect(pos < m_writeLimit, 1)) {
            m_count = pos + EncodeINT(&m_buffer[pos], v);
            return *this;
        }
        return PutSignedSlow(v);
    }
    CKelSocket& PutUnsigned(unsigned long long v) {
        const size_t pos = static_cast<size_t>(m_count);
        if (__builtin_expect(pos < m_writeLimit, 1)) {
            m_count = pos + EncodeUINT(&m_buffer[pos], v);
            return *this;
        }
        return PutUnsignedSlow(v);
    }
    CKelSocket& PutString(const char* text, size_t length) {
        const size_t pos = static_cast<size_t>(m_count);
        if (length < BUFFER_SIZE - 9 && pos + length < m_writeLimit) {
            if (length == 0) {
                m_buffer[pos] = STC_EmptyString;
                m_count = pos + 1;
            } else {
                const size_t head = EncodeCmd(&m_buffer[pos], STC_String, length);
                std::memcpy(&m_buffer[pos + head], text, length);
                m_count = pos + head + length;
            }
            return *this;
        }
        return PutStringSlow(text, length);
    }
    [[gnu::cold]] CKelSocket& PutSignedSlow(long long v);
    [[gnu::cold]] CKelSocket& PutUnsignedSlow(unsigned long long v);
    [[gnu::cold]] CKelSocket& PutStringSlow(const char* text, size_t length);
    template <class T>
    CKelSocket& GetSigned(T& v) {
        v = static_cast<T>(GetInteger(sizeof(T), true));
        return *this;
    }
    template <class T>
    CKelSocket& GetUnsigned(T& v) {
        v = static_cast<T>(GetInteger(sizeof(T), false));
        return *this;
    }
    unsigned long long GetInteger(unsigned int size, bool isSigned);
    /// Marks the error flag, notes the site in the thread's log and rethrows.
    [[noreturn]] void StreamFailed();

    CSocket* m_socket = nullptr;
    unsigned int m_peerVersion = 0;
    unsigned int m_state = ST_Detached; ///< changed only through SetState
    unsigned int m_peekCmd = NO_PEEK;
    unsigned long long m_peekValue = 0;
    unsigned int m_eventsPending = 0;
    unsigned long long m_blockLeft = 0;
    unsigned long long m_count = 0;
    /// The stream operators' fast path writes while m_count < m_writeLimit: room for a whole
    /// number (9 bytes) in ST_Send, nothing in any other state.
    unsigned long long m_writeLimit = 0;
    unsigned char* m_cursor; ///< next input byte (output goes to m_buffer + m_count)
    unsigned char m_buffer[BUFFER_SIZE];
};

/// The requesting end of a channel. A failed public operation leaves the state at exactly
/// ST_Idle | ST_Error (129).
class KEL_API CKelSocketClient : public CKelSocket {
public:
    /// Handshake on a connected socket: sends `applicationId` and the protocol version and
    /// reads the server's answer. 0x2001002B when already attached, 0x2001002E when the server
    /// refuses the identifier or version, 0x2001002C on a wrong answer. On failure the socket
    /// is aborted and the channel stays detached.
    unsigned int Attach(CSocket& socket, unsigned int applicationId);
    /// Starts a request (ST_Idle → ST_Send); parameters follow with <<.
    unsigned int StartRequest(unsigned int requestCode);
    /// Ends the request, sends it and waits for the acknowledge (ST_Send → ST_Read);
    /// 0x2001002C when the answer does not start with one.
    unsigned int WaitForAck(unsigned int& ackCode);
    /// After the answer was read: ST_Read → ST_Idle. 0x20010028 when the answer has more (the
    /// command is put back: Skip, then EndRequest).
    unsigned int EndRequest();
    /// Clears the error flag and discards the rest of the answer up to its end.
    unsigned int Skip();
    /// Idle only: 1 when events are announced or input is buffered, else 131. Does not block.
    unsigned int CanRead();
    /// Idle only: 1 at once when events are announced or input is buffered, else the socket's
    /// wait (1 or 130 after `timeoutMs`).
    unsigned int Wait(unsigned int timeoutMs);
    /// Idle only: the events the server announced since the last call (0 without a notice);
    /// asks the server only when it announced some.
    unsigned int GetEvents(unsigned long long& events);
    /// Says goodbye, waits for the server's close, closes the socket and detaches. Always 1.
    unsigned int Close();

private:
    template <class F>
    unsigned int Op(Exceptions::SOURCE_INFO& site, F&& body);
    void AwaitAnswer();
};

/// The serving end of a channel. A failed public operation sets the error flag over the state.
class KEL_API CKelSocketServer : public CKelSocket {
public:
    /// Handshake on an accepted socket: reads the client's identifier and version; answers
    /// with the version when the identifier equals `applicationId`, else refuses, waits until
    /// the client has closed and fails with 0x2001002D. On failure the socket is aborted.
    unsigned int Attach(CSocket& socket, unsigned int applicationId);
    /// Waits for the next request: 1 with its code (ST_Idle → ST_Read), 133 when the client
    /// closed (ST_Closed), 130 after answering an events query (no request yet).
    unsigned int WaitForRequest(unsigned int& requestCode);
    /// As WaitForRequest, but 131 when no input is ready (does not block for the first byte).
    unsigned int CheckRequest(unsigned int& requestCode);
    /// Consumes the client's end of request and starts the answer (ST_Read → ST_Send); results
    /// follow with <<. 0x20010028 when parameters are left unread (Skip first).
    unsigned int SendAck(unsigned int ackCode);
    /// Ends and sends the answer (ST_Send → ST_Idle).
    unsigned int EndAck();
    /// Idle only: sends a keep-alive byte, which every reader skips.
    unsigned int SendKeepAlive();
    /// Idle only: adds `events` to the mask the client fetches; the client is told once per
    /// batch (the first call after a fetch sends the notice).
    unsigned int SetEvents(unsigned long long events);
    /// Clears the error flag and discards the rest of the request up to its end.
    unsigned int Skip();
    /// Shuts the sending side down, closes the socket and detaches. 1.
    unsigned int Close();

    /// Events set but not yet fetched by the client.
    unsigned long long GetPendingEvents() const noexcept { return m_events; }

protected:
    unsigned long long m_events = 0;

private:
    template <class F>
    unsigned int Op(Exceptions::SOURCE_INFO& site, F&& body);
    unsigned int TakeRequest(unsigned int& requestCode);
};

} // namespace Sockets
} // namespace KEL
