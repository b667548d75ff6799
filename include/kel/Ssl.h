// kelbase - Ssl.h
//
// TLS contexts, keys, certificates and sessions (KEL::Sockets), on OpenSSL.
//
// Each class owns one OpenSSL object and frees it in its destructor: CSslContext an SSL_CTX,
// CSslKey an EVP_PKEY, CSslCertificate an X509, CSslSession an SSL_SESSION. Attach takes a
// pointer over (freeing what the handle held), Release gives it up, and each handle converts
// to its raw pointer for direct OpenSSL calls. Copying a handle shares the object (OpenSSL's
// reference count), so copies stay valid on their own.
//
// A context carries the suite's TLS policy, chosen by its method value (MakeContext):
//
//     SSLM_Strict      TLS 1.2 cipher suites only, no ECDSA, no weak or medium ciphers
//     SSLM_Compatible  every default cipher except the unauthenticated and broken ones
//     SSLM_Custom      the caller's cipher list and option names (computeOptions)
//     anything else    HIGH ciphers without TLS 1.0 ones, MD5, RC4, PSK, SRP, ECDSA, DSS
//
// Operations return 1 or fail with the status in the calling thread's error log (or thrown,
// by the thread's throw mode; see Exceptions.h). OpenSSL's error queue is attached to the
// log: its first entry is the native error (module 4, "OpenSSL"), every entry a message line.
// Status codes: 0x20010042 to 0x2001005F; an empty handle where an object is needed 0x20010037.
//
// A handle is used by one thread at a time; different handles may share objects freely.
//
// CSslSocket is a CSocket that a context makes secure after it connected or was accepted:
//
//     CSslSocket socket;                    CSslSocket accepted;
//     socket.Connect(host, port);           listener.Accept(accepted);
//     socket.MakeSecure(clientContext);     accepted.MakeSecure(serverContext);
//
// From then on Read and Write go through TLS with the plain socket's results and time-out.
#pragma once

#include <kel/Sockets.h>
#include <kel/Strings.h>

#include <string>
#include <vector>

struct ssl_ctx_st;
struct evp_pkey_st;
struct x509_st;
struct ssl_session_st;
struct ssl_st;

namespace KEL {
namespace Sockets {

/// Sets up the TLS library's process state (error texts, the lock array). Counted: each
/// successful call needs one UninitSslLibrary. 1, or 0x20010042. Contexts can be made without
/// it; OpenSSL initialises itself on first use.
KEL_API unsigned int InitSslLibrary();
/// Undoes one InitSslLibrary; the last one removes the lock array.
KEL_API void UninitSslLibrary() noexcept;
/// Releases the calling thread's state inside OpenSSL (its error queue among it); call it on a
/// thread that used TLS before the thread ends.
KEL_API void PrepareSslShutdown() noexcept;

/// The TLS policy of a context (MakeContext). Only the values carry behaviour.
enum SSL_METHOD : unsigned int {
    SSLM_Default = 0,    ///< HIGH ciphers, no TLS 1.0 suites (the policy of any unnamed value)
    SSLM_Strict = 1,     ///< TLS 1.2 suites, no ECDSA, no LOW or MEDIUM
    SSLM_Compatible = 2, ///< all default suites except the unauthenticated and broken ones
    SSLM_Custom = 4,     ///< the caller's cipher list and option names
};

/// Peer verification of a context (bits; the values of OpenSSL's SSL_VERIFY_* flags).
enum SSL_VERIFY : unsigned int {
    SSLV_None = 0,              ///< no check of the peer's certificate
    SSLV_Peer = 1,              ///< check the peer's certificate against the trusted ones
    SSLV_RequirePeerCert = 2,   ///< with SSLV_Peer on a server: a client without certificate fails
};

class CSslKey;
class CSslCertificate;
class CSslSession;

/// An SSL_CTX with the suite's policy.
class KEL_API CSslContext {
public:
    CSslContext() noexcept = default;
    explicit CSslContext(ssl_ctx_st* context) noexcept : m_pCtx(context) {}
    CSslContext(const CSslContext& other) noexcept;
    CSslContext(CSslContext&& other) noexcept : m_pCtx(other.Release()) {}
    CSslContext& operator=(const CSslContext& other) noexcept;
    CSslContext& operator=(CSslContext&& other) noexcept;
    ~CSslContext();

    /// Takes `context` over, freeing the one held before.
    void Attach(ssl_ctx_st* context) noexcept;
    /// Gives the context up (the caller frees it); the handle is empty afterwards.
    ssl_ctx_st* Release() noexcept;
    operator ssl_ctx_st*() const noexcept { return m_pCtx; }
    bool IsEmpty() const noexcept { return m_pCtx == nullptr; }

    /// Makes a new context (freeing any held) with the policy of `method`; `verify` is a set of
    /// SSL_VERIFY bits (with SSLV_Peer the system's trusted certificates are loaded too). For
    /// SSLM_Custom `cipherList` is the cipher list and `optionKeys` the option names (see
    /// computeOptions); the other methods ignore both. Failures: 0x20010052 (no context, or a
    /// cipher list OpenSSL refuses).
    unsigned int MakeContext(SSL_METHOD method, unsigned int verify = SSLV_None,
                             const std::string& cipherList = std::string(),
                             const std::vector<std::string>& optionKeys = std::vector<std::string>());
    /// The same, then installs a server identity: `key`, `certificate`, and `intermediate`
    /// when it is not empty. A key that does not belong to the certificate fails 0x20010051.
    unsigned int MakeContext(SSL_METHOD method, unsigned int verify, const std::string& cipherList,
                             const std::vector<std::string>& optionKeys, CSslKey& key, CSslCertificate& certificate,
                             CSslCertificate& intermediate);

    /// The private key of the context's identity. 0x2001004F when OpenSSL refuses it (a key
    /// that does not match the certificate already set is refused).
    unsigned int SetPrivateKey(CSslKey& key);
    /// The certificate of the context's identity. 0x20010050 when OpenSSL refuses it;
    /// 0x20010051 when it does not belong to the private key already set.
    unsigned int SetCertificate(CSslCertificate& certificate);
    /// Adds a certificate to the chain sent with the identity. 0x20010050 on failure.
    unsigned int SetIntermCertificate(CSslCertificate& certificate);
    /// Trusts `certificate` as an issuer when peers are verified. 0x20010050 on failure.
    unsigned int AddTrustedCertificate(CSslCertificate& certificate);
    /// Puts a session into the context's session cache (a server resumes it from there).
    /// 0x20010053 when OpenSSL does not take it (the same session twice among others).
    unsigned int Add(CSslSession& session);

    /// The OpenSSL option bits named by `keys`, starting from 0, in order: each key is trimmed
    /// of white space; "!NAME" clears the option's bits, "NAME" sets them. An empty key and an
    /// unknown name are skipped with a trace entry (category 0x40000000). The names and values
    /// are those of OpenSSL 1.1.1 (0 where an option no longer has an effect).
    static unsigned long computeOptions(const std::vector<std::string>& keys);

private:
    void Create(SSL_METHOD method, unsigned int verify, const std::string& cipherList,
                const std::vector<std::string>& optionKeys);
    ssl_ctx_st* Checked() const;
    ssl_ctx_st* m_pCtx = nullptr;
};

/// A private key (RSA when made here; PEM reading takes any kind OpenSSL knows).
class KEL_API CSslKey {
public:
    CSslKey() noexcept = default;
    explicit CSslKey(evp_pkey_st* key) noexcept : m_pKey(key) {}
    CSslKey(const CSslKey& other) noexcept;
    CSslKey(CSslKey&& other) noexcept : m_pKey(other.Release()) {}
    CSslKey& operator=(const CSslKey& other) noexcept;
    CSslKey& operator=(CSslKey&& other) noexcept;
    ~CSslKey();

    void Attach(evp_pkey_st* key) noexcept;
    evp_pkey_st* Release() noexcept;
    operator evp_pkey_st*() const noexcept { return m_pKey; }
    /// The key without giving it up.
    evp_pkey_st* GetEvpKey() const noexcept { return m_pKey; }
    bool IsEmpty() const noexcept { return m_pKey == nullptr; }
    /// Size of the key in bits, 0 for an empty handle.
    unsigned int GetBits() const noexcept;

    /// Generates an RSA key of `bits` bits (0: 2048) with public exponent `exponent` (0: 65537),
    /// replacing the one held. Failures: 0x20010043 (no key object), 0x20010044 (OpenSSL
    /// refuses size or exponent), 0x20010045 (generation failed, e.g. an even exponent or
    /// fewer than 512 bits).
    unsigned int MakeKey(unsigned int bits = 2048, unsigned int exponent = 65537);
    /// Reads a PEM private key (PKCS#8, encrypted PKCS#8 or the traditional forms), using
    /// `passPhrase` when it is encrypted. A wrong or missing pass phrase or a corrupt text
    /// fails 0x20010046; the handle is unchanged then.
    unsigned int Read(const Strings::CSubStringRef& pem,
                      const Strings::CSubStringRef& passPhrase = Strings::CSubStringRef());
    /// Writes the key as PKCS#8 PEM ("PRIVATE KEY"), encrypted with AES-256-CBC under
    /// `passPhrase` when one is given ("ENCRYPTED PRIVATE KEY"). Replaces `pem`. 0x20010047.
    unsigned int Write(Strings::CStringVar& pem,
                       const Strings::CSubStringRef& passPhrase = Strings::CSubStringRef()) const;
    /// Writes an RSA key in the traditional form ("RSA PRIVATE KEY"), encrypted with
    /// AES-256-CBC under `passPhrase` when one is given. 0x20010047, also for a key not RSA.
    unsigned int WriteRSA(Strings::CStringVar& pem,
                          const Strings::CSubStringRef& passPhrase = Strings::CSubStringRef()) const;
    /// Writes the public key as PEM ("PUBLIC KEY"). 0x20010047.
    unsigned int WritePublic(Strings::CStringVar& pem) const;

    /// OpenSSL's pass-phrase callback (pem_password_cb): `userData` points to the
    /// Strings::CSubStringRef holding the pass phrase. Copies it into `buffer` and returns its
    /// length; returns -1 when there is none or it does not fit into `size` bytes, so that
    /// OpenSSL never asks on a terminal and never uses a cut pass phrase.
    static int PasswordCallback(char* buffer, int size, int rwflag, void* userData);

private:
    evp_pkey_st* m_pKey = nullptr;
};

/// What MakeCertificate puts into a new X.509 v3 certificate. Empty name fields are left out;
/// at least one must be set.
struct KEL_API CERTIFICATE_DATA {
    std::string country;            ///< C: two letters
    std::string state;              ///< ST
    std::string locality;           ///< L
    std::string organization;       ///< O
    std::string organizationalUnit; ///< OU
    std::string commonName;         ///< CN: normally the host name
    std::string email;              ///< emailAddress
    /// subjectAltName entries: "DNS:name", "IP:address", "email:...", "URI:..."; an entry
    /// without a type is an IP address when it parses as one, else a DNS name.
    std::vector<std::string> subjectAltNames;
    /// Serial number; 0 has MakeCertificate choose a random positive 63-bit one and store it here.
    unsigned long long serial = 0;
    /// Validity from the moment of making; 0 is refused.
    unsigned int daysValid = 365;
    /// Public exponent of a key that MakeCertificate generates (0: 65537).
    unsigned int exponent = 65537;
    /// A certificate authority (basicConstraints CA:TRUE, keyUsage keyCertSign and cRLSign) or
    /// an end entity (CA:FALSE, digitalSignature and keyEncipherment, serverAuth and
    /// clientAuth).
    bool isCA = false;
    /// The issuer: both null for a self-signed certificate, else the issuer's certificate and
    /// its private key (which must belong together).
    const CSslCertificate* issuerCertificate = nullptr;
    const CSslKey* issuerKey = nullptr;
};

/// An X.509 certificate.
class KEL_API CSslCertificate {
public:
    /// Forms of Write.
    enum WRITE_FORMAT : unsigned int {
        WF_PEM = 0,  ///< the PEM text only
        WF_Text = 1, ///< the readable dump (as `openssl x509 -text`) followed by the PEM text
    };

    CSslCertificate() noexcept = default;
    explicit CSslCertificate(x509_st* certificate) noexcept : m_pCert(certificate) {}
    CSslCertificate(const CSslCertificate& other) noexcept;
    CSslCertificate(CSslCertificate&& other) noexcept : m_pCert(other.Release()) {}
    CSslCertificate& operator=(const CSslCertificate& other) noexcept;
    CSslCertificate& operator=(CSslCertificate&& other) noexcept;
    ~CSslCertificate();

    void Attach(x509_st* certificate) noexcept;
    x509_st* Release() noexcept;
    operator x509_st*() const noexcept { return m_pCert; }
    bool IsEmpty() const noexcept { return m_pCert == nullptr; }

    /// Reads the first PEM certificate of `pem`. A corrupt text fails 0x20010049 and leaves the
    /// handle unchanged.
    unsigned int Read(const Strings::CSubStringRef& pem);
    /// Writes the certificate in `format` (WRITE_FORMAT), replacing `text`. 0x2001004D.
    unsigned int Write(Strings::CStringVar& text, unsigned int format = WF_PEM) const;
    /// The subject's / issuer's distinguished name in RFC 2253 form ("CN=host,O=Org,C=DE").
    unsigned int GetSubjectName(Strings::CStringVar& name) const;
    unsigned int GetIssuerName(Strings::CStringVar& name) const;

    /// Makes and signs a certificate for `key` from `data` (SHA-256 signature), replacing the
    /// one held. When `key` is empty, an RSA key of `keyBits` bits (0: 2048) and
    /// data.exponent is generated into it first. Self-signed when data names no issuer, else
    /// signed by data.issuerKey in the name of data.issuerCertificate. data.serial is set
    /// when it was 0. Failures: 0x2001004E bad data (no name, 0 days, an issuer certificate
    /// without its key or one that does not belong to it), 0x20010048 no certificate object,
    /// 0x2001004A a name field OpenSSL refuses (e.g. a country not two letters long),
    /// 0x2001004C an extension OpenSSL refuses, 0x2001004B signing failed, and those of
    /// CSslKey::MakeKey.
    unsigned int MakeCertificate(CERTIFICATE_DATA& data, CSslKey& key, unsigned int keyBits = 2048);

private:
    x509_st* m_pCert = nullptr;
};

/// A TLS session that a client offers again to resume it, or a server keeps in its cache.
class KEL_API CSslSession {
public:
    CSslSession() noexcept = default;
    explicit CSslSession(ssl_session_st* session) noexcept : m_pSession(session) {}
    CSslSession(const CSslSession& other) noexcept;
    CSslSession(CSslSession&& other) noexcept : m_pSession(other.Release()) {}
    CSslSession& operator=(const CSslSession& other) noexcept;
    CSslSession& operator=(CSslSession&& other) noexcept;
    ~CSslSession();

    void Attach(ssl_session_st* session) noexcept;
    ssl_session_st* Release() noexcept;
    operator ssl_session_st*() const noexcept { return m_pSession; }
    bool IsEmpty() const noexcept { return m_pSession == nullptr; }
    /// Whether the session can be offered for resumption.
    bool IsResumable() const noexcept;

private:
    ssl_session_st* m_pSession = nullptr;
};

/// The OpenSSL call whose result CSslSocket::CheckSslCall judges; it selects the status
/// raised when the call failed.
enum SSL_FUNCTIONS : unsigned int {
    SSLF_Accept = 0,   ///< 0x20010057 "SSL can't accept"
    SSLF_Connect = 1,  ///< 0x20010058 "SSL can't connect"
    SSLF_Read = 2,     ///< 0x20010059 "SSL can't read"
    SSLF_Shutdown = 3, ///< 0x2001005A "SSL can't shutdown"
    SSLF_Write = 4,    ///< 0x2001005B "SSL can't write"
};

/// A TCP socket that reads and writes through TLS once MakeSecure succeeded (IsSecure); until
/// then it is a plain CSocket. The handshake runs as server on a socket that was accepted
/// (Attach, CSocketListener::Accept) and as client on one that connected. Every OpenSSL call
/// that cannot finish waits on the socket for what OpenSSL asked for and is repeated; the waits
/// end on interrupts and honour the socket's time-out (0x20010022).
///
/// Failures are raised like those of CSocket. Besides the plain socket's codes: 0x2001005D the
/// socket is already secure, 0x2001005E no SSL object, 0x2001005F a session OpenSSL does not
/// take, 0x20010057 / 0x20010058 the handshake failed as server / client, 0x20010059 and
/// 0x2001005B reading / writing failed, 0x2001005A the TLS close failed, 0x20010024 the peer
/// dropped the connection without a TLS close (or kept a read waiting 800 times without a
/// byte). OpenSSL's error queue is attached to the error log.
///
/// Shutdown modes (SetShutdownMode) say how Close ends the TLS layer:
///     SM_Send     one-way: sends the close alert and does not wait for the peer's (default)
///     SM_Both     two-way: sends the close alert and waits for the peer's
///     SM_Receive  quiet: sends nothing (a peer that is known to be gone)
/// Shutdown(how) ends the TLS layer one-way (SM_Send) or two-way (SM_Both) and then the TCP
/// side `how`; SM_Receive shuts the TCP receiving side only.
///
/// OpenSSL may hold decrypted bytes the descriptor no longer shows: Wait sees them, a list wait
/// (CWaiter) does not, so a reader empties the socket with partial reads until 131 before it
/// joins a list wait. One thread uses a socket at a time.
class KEL_API CSslSocket : public CSocket {
public:
    /// How many times in a row a read may be repeated without getting a byte.
    static constexpr unsigned int kMaxReadRetries = 800;

    CSslSocket() noexcept;
    /// Frees the SSL object without a TLS close; the base closes the handle.
    ~CSslSocket() override;

    /// Makes the connected socket secure with `context`: creates the SSL object, binds it to the
    /// handle and runs the handshake. 0x2001005D when already secure, 0x2001001E when not
    /// connected. A socket whose handshake failed keeps its SSL object until Close or Abort; one
    /// whose handshake timed out can finish it with CheckNegotiation.
    unsigned int MakeSecure(CSslContext& context);
    /// The same, offering `session` for resumption first (an empty handle offers nothing).
    /// 0x2001005F when OpenSSL does not take the session.
    unsigned int MakeSecure(CSslContext& context, CSslSession& session);
    /// Completes a handshake that is still in progress (1; plain sockets: 1 at once).
    unsigned int CheckNegotiation() override;

    /// As CSocket::Read, through TLS. Partial (with `got`): the bytes of one TLS record, or 131
    /// while no record is complete (never waits for input). Complete: waits as needed. A TLS
    /// close of the peer gives 134 (partial) or 0x20010024 (complete); a read that was woken
    /// 800 times in a row without a byte gives the socket up (0x20010024). A complete peek
    /// sees one TLS record at most.
    unsigned int Read(void* buffer, size_t size, size_t* got, READ_MODE mode) override;
    /// As CSocket::Write, through TLS. TLS cannot take back a record it started, so the partial
    /// form also waits until its records are out (it never returns 131).
    unsigned int Write(const void* data, size_t size, size_t* written) override;
    /// 1 at once when OpenSSL holds decrypted bytes and the wait is for input.
    unsigned int Wait(unsigned int timeoutMs) override;
    /// On a secure socket, shutting down the sending side (or both) first ends the TLS layer
    /// (sends the close alert; for both it also waits for the peer's); then as CSocket::Shutdown.
    unsigned int Shutdown(unsigned int how) override;
    /// Ends the TLS layer as the shutdown mode says, frees the SSL object and closes the handle.
    /// A failing TLS close is traced and dropped: always 1.
    unsigned int Close() override;
    /// Like Close, and hands the connection's session to `session` for a later MakeSecure. The
    /// tickets a TLS 1.3 server sent after the handshake are read first (for at most the socket
    /// time-out, and no longer than 2 s), so that the session can be resumed. `session` is empty
    /// when the socket was not secure.
    unsigned int Close(CSslSession& session);
    /// Frees the SSL object and closes at once, without a TLS close.
    unsigned int Abort() override;

    /// Judges the result of the OpenSSL call `function`: 0 when it finished, 1 when it must be
    /// repeated (after waiting for the readiness OpenSSL asked for), or raises.
    unsigned int CheckSslCall(int result, SSL_FUNCTIONS function);

    /// Sets how Close ends the TLS layer; returns the previous mode.
    SHUTDOWN_MODE SetShutdownMode(SHUTDOWN_MODE mode) noexcept {
        const SHUTDOWN_MODE old = m_eShutdownMode;
        m_eShutdownMode = mode;
        return old;
    }
    SHUTDOWN_MODE GetShutdownMode() const noexcept { return m_eShutdownMode; }
    /// The SSL object (null before MakeSecure and after Close), for direct OpenSSL queries.
    ssl_st* GetSslHandle() const noexcept { return m_pSsl; }

    using CSocket::Read;
    using CSocket::Shutdown;
    using CSocket::Wait;

private:
    void Secure(CSslContext& context, CSslSession* session);
    void Handshake();
    void EndTls(SHUTDOWN_MODE mode);
    void ReadTickets();
    void WaitFor(unsigned int bit);
    void CountRetry();
    void FreeSsl() noexcept;
    void CheckUsable();

    ssl_st* m_pSsl = nullptr;
    SHUTDOWN_MODE m_eShutdownMode = SM_Send;
    unsigned int m_uRetries = 0;
    bool m_bBroken = false; ///< OpenSSL reported a fatal error: no TLS close any more
};

} // namespace Sockets
} // namespace KEL
