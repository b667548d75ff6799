// kelbase - Src/OpenSSL/SslSocket.cpp
//
// The TLS socket: OpenSSL on the socket's non-blocking descriptor. Every OpenSSL call that
// cannot finish is judged by CheckSslCall, which waits on the socket for the readiness OpenSSL
// asked for (through the library's waits, so interrupts and the socket time-out end it) and
// has the call repeated.
#define KEL_SOURCE_FILE "Src/OpenSSL"
#include <kel/Exceptions.h>
#include <kel/Functions.h>
#include <kel/Ssl.h>
#include <kel/Trace.h>

#include "OpenSSL/SslModuleInfo.h"
#include "Posix/Socket_Posix.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <cerrno>
#include <climits>

namespace KEL {
namespace Sockets {

namespace {

constexpr unsigned int kTraceTls = 0x40000000u;
constexpr const char kCheckSslCall[] = "KEL::Sockets::CSslSocket::CheckSslCall";
constexpr const char kRead[] = "KEL::Sockets::CSslSocket::Read";
constexpr const char kShutdown[] = "KEL::Sockets::CSslSocket::Shutdown";
constexpr const char kClose[] = "KEL::Sockets::CSslSocket::Close";

// How long Close(CSslSession&) waits at most for a TLS 1.3 server's session tickets. The
// server sends them right after the handshake, so they are normally there long before.
constexpr unsigned int kTicketWaitMs = 2000;

// The status of a failed call, by the OpenSSL function it came from.
unsigned int FunctionStatus(SSL_FUNCTIONS function) noexcept {
    switch (function) {
    case SSLF_Accept:
        return 0x20010057u;
    case SSLF_Connect:
        return 0x20010058u;
    case SSLF_Read:
        return 0x20010059u;
    case SSLF_Shutdown:
        return 0x2001005Au;
    case SSLF_Write:
        return 0x2001005Bu;
    }
    return 0x2001005Cu;
}

int Clamped(size_t size) noexcept { return size > static_cast<size_t>(INT_MAX) ? INT_MAX : static_cast<int>(size); }

bool WouldBlockOrInterrupted(int error) noexcept {
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR || error == EINPROGRESS;
}

// OpenSSL 3 reports a connection that ends without a TLS close as a protocol error of its own
// (1.1 gave SSL_ERROR_SYSCALL with an empty queue); both mean the peer went away.
bool IsUnexpectedEof(unsigned long code) noexcept {
#ifdef SSL_R_UNEXPECTED_EOF_WHILE_READING
    return ERR_GET_LIB(code) == ERR_LIB_SSL && ERR_GET_REASON(code) == SSL_R_UNEXPECTED_EOF_WHILE_READING;
#else
    (void)code;
    return false;
#endif
}

// OpenSSL's socket BIO writes with write(), which raises SIGPIPE once the peer has gone and
// would end the process; a library must not change the process's signal disposition. This
// socket BIO is OpenSSL's in everything but the write, which goes through the library's send.
int SendNoSignal(BIO* bio, const char* data, int size) {
    int fd = -1;
    BIO_get_fd(bio, &fd);
    const long long n = Internals::Posix::SocketSend(static_cast<unsigned long long>(fd), data,
                                                    size > 0 ? static_cast<size_t>(size) : 0);
    BIO_clear_retry_flags(bio);
    if (n <= 0 && BIO_sock_should_retry(static_cast<int>(n))) BIO_set_retry_write(bio);
    return static_cast<int>(n);
}

BIO_METHOD* SocketBioMethod() {
    static BIO_METHOD* const s_pMethod = [] {
        const BIO_METHOD* socket = BIO_s_socket();
        BIO_METHOD* method = BIO_meth_new(BIO_TYPE_SOCKET, "kelbase socket");
        if (!method) return method;
        BIO_meth_set_write(method, SendNoSignal);
        BIO_meth_set_read(method, BIO_meth_get_read(socket));
        BIO_meth_set_puts(method, BIO_meth_get_puts(socket));
        BIO_meth_set_ctrl(method, BIO_meth_get_ctrl(socket));
        BIO_meth_set_create(method, BIO_meth_get_create(socket));
        BIO_meth_set_destroy(method, BIO_meth_get_destroy(socket));
        return method;
    }();
    return s_pMethod;
}

[[noreturn]] void RaiseSocketError(int error, const Strings::CStringVar& queue) {
    errno = error;
    KEL_RAISE_NATIVE(0x2001001Fu, Functions::GetOsError(), "Error in socket function (SSL, error=%d)%s%s", error,
                     queue.Length() ? "\n" : "", queue.C_Str());
}

} // namespace

CSslSocket::CSslSocket() noexcept = default;

CSslSocket::~CSslSocket() { FreeSsl(); }

void CSslSocket::FreeSsl() noexcept {
    if (m_pSsl) SSL_free(m_pSsl);
    m_pSsl = nullptr;
    m_bBroken = false;
    m_uRetries = 0;
    m_uStatus &= ~ST_IsSecure;
}

// ---- judging one call ---------------------------------------------------------------------

void CSslSocket::WaitFor(unsigned int bit) {
    m_uStatus &= ~bit;
    // A close also ends the wait: the repeated call then meets it and reports it.
    while ((m_uStatus & (bit | ST_Close)) == 0) {
        DoWait(bit | ST_Close);
        if (m_uError != 0) {
            const int error = static_cast<int>(m_uError);
            errno = error;
            KEL_RAISE_NATIVE(0x2001001Fu, Functions::GetOsError(), "Error in socket function (error=%d)", error);
        }
    }
}

unsigned int CSslSocket::CheckSslCall(int result, SSL_FUNCTIONS function) {
    // The socket's own error of the call, before anything else can change it.
    const int lastError = errno;
    KEL_TRACE(KEL_MODULE_INFO_KelLib, kTraceTls, kCheckSslCall,
              "Begin CheckSslCall() sslFunctionReturnValue=%d, sslFunction=%d")
        << result << static_cast<unsigned int>(function);
    if (!m_pSsl) KEL_RAISE(FunctionStatus(function), "The socket has no SSL object");
    const int error = SSL_get_error(m_pSsl, result);
    KEL_TRACE(KEL_MODULE_INFO_KelLib, kTraceTls, kCheckSslCall, "SSL_get_error returns=%d") << error;
    // The peer went without a close alert: the socket is broken, readable and no longer
    // connected, like a plain socket whose peer closed.
    const auto MarkClosedByPeer = [this] {
        m_bBroken = true;
        m_bClosedByPeer = true;
        m_uStatus = (m_uStatus & ~ST_IsConnected) | ST_CanRead;
    };
    switch (error) {
    case SSL_ERROR_NONE:
        return 0;
    case SSL_ERROR_WANT_READ:
        WaitFor(ST_CanRead);
        return 1;
    case SSL_ERROR_WANT_WRITE:
        WaitFor(ST_CanWrite);
        return 1;
    case SSL_ERROR_SYSCALL: {
        if (ERR_peek_error() == 0) {
            KEL_TRACE(KEL_MODULE_INFO_KelLib, kTraceTls, kCheckSslCall,
                      "Unexpected EOF from the peer happend (SSL_ERROR_SYSCALL and ERR_get_error == 0).");
            MarkClosedByPeer();
            KEL_RAISE(0x20010024u, "Socket connection closed by peer (SSL function %d, error=%d)",
                      static_cast<unsigned int>(function), lastError);
        }
        if (WouldBlockOrInterrupted(lastError)) {
            KEL_TRACE(KEL_MODULE_INFO_KelLib, kTraceTls, kCheckSslCall,
                      "Ups, normal a SSL_write will throw an exception for this case but all is good!");
            ERR_clear_error();
            return 1;
        }
        m_bBroken = true;
        StoreError(lastError);
        Strings::TString<256> queue;
        Internals::CSslModuleInfo::GetErrorMsg(queue);
        RaiseSocketError(lastError, queue);
    }
    case SSL_ERROR_ZERO_RETURN:
    case SSL_ERROR_SSL: {
        if (error == SSL_ERROR_SSL && IsUnexpectedEof(ERR_peek_last_error())) {
            KEL_TRACE(KEL_MODULE_INFO_KelLib, kTraceTls, kCheckSslCall,
                      "Unexpected EOF from the peer happend (SSL_ERROR_SYSCALL and ERR_get_error == 0).");
            MarkClosedByPeer();
            KEL_RAISE_SSL(0x20010024u, "Socket connection closed by peer (SSL function %d)",
                          static_cast<unsigned int>(function));
        }
        if (error == SSL_ERROR_SSL) m_bBroken = true;
        // The queue goes into the trace entry by entry and, as text, into the error log.
        Strings::TString<512> text;
        text.Format("SSL function %d failed (SSL_get_error %d)") << static_cast<unsigned int>(function) << error;
        const unsigned long first = Internals::CSslModuleInfo::GetErrorMsg(
            text, [](unsigned long code, const char* reason, const char* file, int line) {
                KEL_TRACE(KEL_MODULE_INFO_KelLib, kTraceTls, kCheckSslCall, "SSL_ERROR %d:%s:%s:%d")
                    << code << reason << file << line;
            });
        Exceptions::NATIVE_ERROR native;
        native.kind = 4;
        native.value = static_cast<unsigned int>(first);
        Exceptions::Raise(KEL_SITE(), FunctionStatus(function), first ? &native : nullptr, "%s",
                          static_cast<const Strings::CSubStringRef&>(text));
    }
    default:
        KEL_RAISE_SSL(FunctionStatus(function), "SSL function %d failed (SSL_get_error %d)",
                      static_cast<unsigned int>(function), error);
    }
}

// ---- making secure --------------------------------------------------------------------------

unsigned int CSslSocket::MakeSecure(CSslContext& context) {
    Secure(context, nullptr);
    return URET_Ok;
}

unsigned int CSslSocket::MakeSecure(CSslContext& context, CSslSession& session) {
    Secure(context, &session);
    return URET_Ok;
}

void CSslSocket::Secure(CSslContext& context, CSslSession* session) {
    if (IsSecure()) KEL_RAISE(0x2001005Du, "Socket is already secure");
    if (m_hSocket == kNoHandle || !IsConnected()) KEL_RAISE(0x2001001Eu, "Socket is not connected");
    if (context.IsEmpty()) KEL_RAISE(0x20010037u, "The SSL context handle is empty");
    // What is left of an earlier attempt cannot go on: its handshake state is lost.
    FreeSsl();
    ERR_clear_error();
    m_pSsl = SSL_new(context);
    if (!m_pSsl) KEL_RAISE_SSL(0x2001005Eu, "SSL_new failed");
    SSL_ctrl(m_pSsl, SSL_CTRL_MODE, SSL_MODE_AUTO_RETRY, nullptr);
    // The SSL_set_fd binding, with a socket BIO that never raises SIGPIPE.
    BIO_METHOD* method = SocketBioMethod();
    BIO* bio = method ? BIO_new(method) : nullptr;
    if (!bio) KEL_RAISE_SSL(0x2001005Eu, "Can't bind the SSL handle to the socket");
    BIO_set_fd(bio, static_cast<int>(m_hSocket), BIO_NOCLOSE);
    SSL_set_bio(m_pSsl, bio, bio);
    if (session && !session->IsEmpty() && SSL_set_session(m_pSsl, *session) != 1)
        KEL_RAISE_SSL(0x2001005Fu, "SSL_set_session failed");
    if (m_bAccepted)
        SSL_set_accept_state(m_pSsl);
    else
        SSL_set_connect_state(m_pSsl);
    Handshake();
}

void CSslSocket::Handshake() {
    const SSL_FUNCTIONS function = m_bAccepted ? SSLF_Accept : SSLF_Connect;
    for (;;) {
        ERR_clear_error();
        const int r = m_bAccepted ? SSL_accept(m_pSsl) : SSL_connect(m_pSsl);
        if (r == 1) break;
        if (CheckSslCall(r, function) == 0)
            KEL_RAISE_SSL(FunctionStatus(function), "The handshake ended without result (%d)", r);
    }
    m_uStatus |= ST_IsSecure;
}

unsigned int CSslSocket::CheckNegotiation() {
    if (!m_pSsl) return URET_Ok;
    if (IsSecure() && SSL_is_init_finished(m_pSsl)) return URET_Ok;
    if (m_bBroken) KEL_RAISE(FunctionStatus(m_bAccepted ? SSLF_Accept : SSLF_Connect), "The TLS connection failed before");
    if (m_hSocket == kNoHandle) KEL_RAISE(0x2001001Eu, "Socket is not connected");
    Handshake();
    return URET_Ok;
}

// ---- input and output -------------------------------------------------------------------------

void CSslSocket::CheckUsable() {
    if (m_hSocket == kNoHandle) KEL_RAISE(0x2001001Eu, "Socket is not connected");
    if (m_uError != 0) {
        const int error = static_cast<int>(m_uError);
        errno = error;
        KEL_RAISE_NATIVE(0x2001001Fu, Functions::GetOsError(), "Error in socket function (error=%d)", error);
    }
    if (m_bClosedByPeer) KEL_RAISE(0x20010024u, "Socket connection closed by peer");
    if (!IsConnected()) KEL_RAISE(0x2001001Eu, "Socket is not connected");
}

unsigned int CSslSocket::Wait(unsigned int timeoutMs) {
    if (m_pSsl && (m_uWaitMask == 0 || (m_uWaitMask & ST_CanRead)) && SSL_pending(m_pSsl) > 0) {
        m_uStatus |= ST_CanRead;
        return URET_Ok;
    }
    return CSocket::Wait(timeoutMs);
}

unsigned int CSslSocket::Read(void* buffer, size_t size, size_t* got, READ_MODE mode) {
    if (!m_pSsl) return CSocket::Read(buffer, size, got, mode);
    CheckUsable();
    if (!IsSecure()) CheckNegotiation();
    KEL_TRACE(KEL_MODULE_INFO_KelLib, kTraceTls, kRead, "Begin Read() on socket=0x%x for max (%d) bytes")
        << m_hSocket << static_cast<long long>(size);
    if (got) *got = 0;
    if (size == 0) return URET_Ok;
    const bool peek = mode == RM_Peek;
    // Whether the socket had said it has input: only then does a read without a byte count
    // against the socket.
    const bool signalled = CanRead();
    char* out = static_cast<char*>(buffer);
    size_t total = 0;
    for (;;) {
        const size_t offset = peek ? 0 : total;
        ERR_clear_error();
        errno = 0;
        const int n = peek ? SSL_peek(m_pSsl, out + offset, Clamped(size - offset))
                           : SSL_read(m_pSsl, out + offset, Clamped(size - offset));
        const int callError = errno;
        if (peek)
            KEL_TRACE(KEL_MODULE_INFO_KelLib, kTraceTls, kRead, "SSL_peek() returns=%d") << n;
        else
            KEL_TRACE(KEL_MODULE_INFO_KelLib, kTraceTls, kRead, "SSL_read() returns=%d") << n;
        if (n > 0) {
            m_uRetries = 0;
            if (got) {
                *got = static_cast<size_t>(n);
                // The next partial read looks at the socket again instead of trusting an old sign.
                if (SSL_pending(m_pSsl) == 0) m_uStatus &= ~ST_CanRead;
                KEL_TRACE(KEL_MODULE_INFO_KelLib, kTraceTls, kRead, "return(URET_Ok)");
                return URET_Ok;
            }
            total = offset + static_cast<size_t>(n);
            if (total >= size) return URET_Ok;
            if (!peek) continue;
            // A peek cannot look past the current record: wait for the socket and look again.
            WaitFor(ST_CanRead);
        } else if (SSL_get_error(m_pSsl, n) == SSL_ERROR_ZERO_RETURN) {
            // The peer's TLS close: the end of the stream, as a plain socket reports it.
            m_bClosedByPeer = true;
            m_uStatus = (m_uStatus & ~ST_IsConnected) | ST_CanRead;
            ERR_clear_error();
            if (got) return URET_PeerClosed;
            KEL_RAISE(0x20010024u, "Socket connection closed by peer");
        } else if (got && SSL_get_error(m_pSsl, n) == SSL_ERROR_WANT_READ) {
            // No record is complete (or the input held only handshake messages): the caller
            // waits for more and comes back.
            if (signalled) CountRetry();
            m_uStatus &= ~ST_CanRead;
            ERR_clear_error();
            KEL_TRACE(KEL_MODULE_INFO_KelLib, kTraceTls, kRead, "return(URET_WouldBlock)");
            return URET_WouldBlock;
        } else {
            errno = callError;
            if (CheckSslCall(n, SSLF_Read) == 0) KEL_RAISE_SSL(0x20010059u, "SSL_read returned %d", n);
        }
        CountRetry();
    }
}

void CSslSocket::CountRetry() {
    if (++m_uRetries >= kMaxReadRetries) {
        KEL_TRACE(KEL_MODULE_INFO_KelLib, kTraceTls, kRead,
                  "No we have enough from this lazy socket=0x%x after %d retries so we assume that she is dead!")
            << m_hSocket << m_uRetries;
        m_bClosedByPeer = true;
        m_uStatus &= ~ST_IsConnected;
        KEL_RAISE(0x20010024u, "Socket connection closed by peer (no data after %d retries)", m_uRetries);
    }
}

unsigned int CSslSocket::Write(const void* data, size_t size, size_t* written) {
    if (!m_pSsl) return CSocket::Write(data, size, written);
    CheckUsable();
    if (!IsSecure()) CheckNegotiation();
    const char* in = static_cast<const char*>(data);
    size_t total = 0;
    if (written) *written = 0;
    while (total < size) {
        ERR_clear_error();
        errno = 0;
        const int n = SSL_write(m_pSsl, in + total, Clamped(size - total));
        if (n > 0) {
            total += static_cast<size_t>(n);
            if (written) {
                *written = static_cast<size_t>(n);
                return URET_Ok;
            }
            continue;
        }
        if (CheckSslCall(n, SSLF_Write) == 0) KEL_RAISE_SSL(0x2001005Bu, "SSL_write returned %d", n);
    }
    return URET_Ok;
}

// ---- closing ------------------------------------------------------------------------------------

void CSslSocket::EndTls(SHUTDOWN_MODE mode) {
    if (mode == SM_Receive) {
        // Marks the connection closed without telling the peer; the session stays good.
        SSL_set_quiet_shutdown(m_pSsl, 1);
        SSL_shutdown(m_pSsl);
        ERR_clear_error();
        return;
    }
    int r;
    for (;;) {
        ERR_clear_error();
        errno = 0;
        r = SSL_shutdown(m_pSsl);
        if (r >= 0) break;
        if (CheckSslCall(r, SSLF_Shutdown) == 0) KEL_RAISE_SSL(0x2001005Au, "SSL_shutdown returned %d", r);
    }
    if (mode != SM_Both) return;
    for (unsigned int dropped = 0; r != 1; ++dropped) {
        if (dropped >= kMaxReadRetries) KEL_RAISE(0x2001005Au, "No close from the peer after %d records", dropped);
        ERR_clear_error();
        errno = 0;
        r = SSL_shutdown(m_pSsl);
        const int callError = errno;
        KEL_TRACE(KEL_MODULE_INFO_KelLib, kTraceTls, kShutdown, "2. SSL_shutdown() returns %d ... ") << r;
        // 0: a record that came before the peer's close was dropped; look again.
        if (r < 0) {
            errno = callError;
            if (CheckSslCall(r, SSLF_Shutdown) == 0) KEL_RAISE_SSL(0x2001005Au, "SSL_shutdown returned %d", r);
        }
    }
}

unsigned int CSslSocket::Shutdown(unsigned int how) {
    if (!m_pSsl || !IsSecure() || how == SM_Receive) return CSocket::Shutdown(how);
    if (m_hSocket == kNoHandle) KEL_RAISE(0x2001001Eu, "Socket is not connected");
    EndTls(how == SM_Both ? SM_Both : SM_Send);
    return CSocket::Shutdown(how);
}

void CSslSocket::ReadTickets() {
    // A TLS 1.3 client learns its resumable session only from the tickets the server sends
    // after the handshake; OpenSSL processes them while reading, and drops them once this end
    // has sent its close.
    if (m_bAccepted || SSL_version(m_pSsl) < TLS1_3_VERSION) return;
    const unsigned long long start = Functions::GetTickTime(1000);
    const unsigned int limit = m_uTimeout < kTicketWaitMs ? m_uTimeout : kTicketWaitMs;
    char scratch[512];
    while (!SSL_SESSION_is_resumable(SSL_get0_session(m_pSsl))) {
        ERR_clear_error();
        const int n = SSL_read(m_pSsl, scratch, sizeof scratch);
        if (n > 0) continue; // the caller is closing: late application data has no reader
        if (SSL_get_error(m_pSsl, n) != SSL_ERROR_WANT_READ) break;
        const unsigned long long spent = Functions::GetTickTime(1000) - start;
        if (spent >= limit) break;
        if (CSocket::Wait(static_cast<unsigned int>(limit - spent)) != URET_Ok) break;
    }
    ERR_clear_error();
}

unsigned int CSslSocket::Close() {
    if (m_pSsl) {
        if (IsSecure() && !m_bBroken && m_hSocket != kNoHandle) {
            try {
                EndTls(m_eShutdownMode);
            } catch (const Exceptions::CKelException& e) {
                KEL_TRACE(KEL_MODULE_INFO_KelLib, kTraceTls, kClose, "TLS close failed with 0x%X, socket closed anyway")
                    << e.GetCode();
            }
        }
        FreeSsl();
    }
    return CSocket::Close();
}

unsigned int CSslSocket::Close(CSslSession& session) {
    session.Attach(nullptr);
    if (m_pSsl && IsSecure() && !m_bBroken && m_hSocket != kNoHandle) {
        try {
            ReadTickets();
            // A session is resumable only when this end closed the connection properly.
            EndTls(m_eShutdownMode == SM_Both ? SM_Both : SM_Send);
        } catch (const Exceptions::CKelException& e) {
            KEL_TRACE(KEL_MODULE_INFO_KelLib, kTraceTls, kClose, "TLS close failed with 0x%X, socket closed anyway")
                << e.GetCode();
        }
        if (!m_bBroken) session.Attach(SSL_get1_session(m_pSsl));
    }
    FreeSsl();
    return CSocket::Close();
}

unsigned int CSslSocket::Abort() {
    FreeSsl();
    return CSocket::Abort();
}

} // namespace Sockets
} // namespace KEL
