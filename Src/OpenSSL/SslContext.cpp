// kelbase - Src/OpenSSL/SslContext.cpp
//
// The TLS context: the suite's policy tables (method values, cipher lists, option names) and
// the server identity and session cache of a context.
#define KEL_SOURCE_FILE "Src/OpenSSL"
#include <kel/Ssl.h>
#include <kel/Trace.h>

#include "OpenSSL/SslModuleInfo.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <cctype>

namespace KEL {
namespace Sockets {

namespace {

// OpenSSL 1.1.1's SSL_OP_ALL; the suite's contexts have always set exactly this value.
constexpr unsigned long kSslOpAll = 0x80000854ul;

constexpr const char kStrictCiphers[] =
    "ALL:!COMPLEMENTOFDEFAULT:!eNULL:!SSLv2:!SSLv3:!TLSv1:!RC4:!PSK:!SRP:!EXP:!ECDSA:!ADH:!LOW:!MEDIUM:@STRENGTH";
constexpr const char kCompatibleCiphers[] = "ALL:!COMPLEMENTOFDEFAULT:!eNULL:!RC4:!PSK:!SRP:!EXP:!ECDSA:!DSS:@STRENGTH";
constexpr const char kDefaultCiphers[] =
    "HIGH:!SSLv2:!SSLv3:!TLSv1:!aNULL:!eNULL:!MD5:!RC4:!PSK:!SRP:!ECDSA:!DSS:@STRENGTH";

// Distinguishes this library's sessions in a shared cache; a server that verifies clients
// needs one set to resume at all.
constexpr unsigned char kSessionIdContext[] = "kelbase";

struct SSL_OPTION {
    const char* name;
    unsigned long value;
};

// The option names of the configuration with OpenSSL 1.1.1's values, kept as data: names of
// options that no longer exist still parse, with no effect. The blank inside
// "SSL_OP_NO_ENCRYPT_THEN MAC" is part of the name configurations use.
constexpr SSL_OPTION kOptions[] = {
    {"SSL_OP_ALL", 0x80000854ul},
    {"SSL_OP_LEGACY_SERVER_CONNECT", 4},
    {"SSL_OP_TLSEXT_PADDING", 16},
    {"SSL_OP_MICROSOFT_BIG_SSLV3_BUFFER", 0},
    {"SSL_OP_SAFARI_ECDHE_ECDSA_BUG", 64},
    {"SSL_OP_SSLEAY_080_CLIENT_DH_BUG", 0},
    {"SSL_OP_TLS_D5_BUG", 0},
    {"SSL_OP_TLS_BLOCK_PADDING_BUG", 0},
    {"SSL_OP_DONT_INSERT_EMPTY_FRAGMENTS", 2048},
    {"SSL_OP_CRYPTOPRO_TLSEXT_BUG", 0x80000000ul},
    {"SSL_OP_MICROSOFT_SESS_ID_BUG", 0},
    {"SSL_OP_NETSCAPE_CHALLENGE_BUG", 0},
    {"SSL_OP_SSLREF2_REUSE_CERT_TYPE_BUG", 0},
    {"SSL_OP_MSIE_SSLV2_RSA_PADDING", 0},
    {"SSL_OP_NETSCAPE_REUSE_CIPHER_CHANGE_BUG", 0},
    {"SSL_OP_EPHEMERAL_RSA", 0},
    {"SSL_OP_ALLOW_NO_DHE_KEX", 1024},
    {"SSL_OP_NO_QUERY_MTU", 4096},
    {"SSL_OP_COOKIE_EXCHANGE", 8192},
    {"SSL_OP_NO_TICKET", 16384},
    {"SSL_OP_CISCO_ANYCONNECT", 32768},
    {"SSL_OP_NO_SESSION_RESUMPTION_ON_RENEGOTIATION", 0x10000},
    {"SSL_OP_NO_COMPRESSION", 0x20000},
    {"SSL_OP_ALLOW_UNSAFE_LEGACY_RENEGOTIATION", 0x40000},
    {"SSL_OP_SINGLE_ECDH_USE", 0},
    {"SSL_OP_NO_ENCRYPT_THEN MAC", 0x80000},
    {"SSL_OP_SINGLE_DH_USE", 0},
    {"SSL_OP_PRIORITIZE_CHACHA", 0x200000},
    {"SSL_OP_CIPHER_SERVER_PREFERENCE", 0x400000},
    {"SSL_OP_TLS_ROLLBACK_BUG", 0x800000},
    {"SSL_OP_NETSCAPE_CA_DN_BUG", 0},
    {"SSL_OP_NETSCAPE_DEMO_CIPHER_CHANGE_BUG", 0},
    {"SSL_OP_NO_RENEGOTIATION", 0x40000000ul},
    {"SSL_OP_PKCS1_CHECK_1", 0},
    {"SSL_OP_PKCS1_CHECK_2", 0},
    {"SSL_OP_NO_SSL_MASK", 0x3E000000ul},
};

const SSL_OPTION* FindOption(const std::string& name) {
    for (const SSL_OPTION& o : kOptions)
        if (name == o.name) return &o;
    return nullptr;
}

std::string Trimmed(const std::string& key) {
    size_t begin = 0;
    size_t end = key.size();
    while (begin < end && std::isspace(static_cast<unsigned char>(key[begin]))) ++begin;
    while (end > begin && std::isspace(static_cast<unsigned char>(key[end - 1]))) --end;
    return key.substr(begin, end - begin);
}

void UsePrivateKey(SSL_CTX* context, CSslKey& key) {
    if (key.IsEmpty()) KEL_RAISE(0x20010037u, "The SSL key handle is empty");
    X509* certificate = SSL_CTX_get0_certificate(context);
    if (certificate && X509_check_private_key(certificate, key) != 1)
        KEL_RAISE_SSL(0x20010051u, "The private key does not belong to the context's certificate");
    if (SSL_CTX_use_PrivateKey(context, key) != 1) KEL_RAISE_SSL(0x2001004Fu, "SSL_CTX_use_PrivateKey failed");
}

void UseCertificate(SSL_CTX* context, CSslCertificate& certificate) {
    if (certificate.IsEmpty()) KEL_RAISE(0x20010037u, "The SSL certificate handle is empty");
    // OpenSSL would silently drop a key that does not match; say so instead.
    EVP_PKEY* key = SSL_CTX_get0_privatekey(context);
    if (key && X509_check_private_key(certificate, key) != 1)
        KEL_RAISE_SSL(0x20010051u, "The certificate does not belong to the context's private key");
    if (SSL_CTX_use_certificate(context, certificate) != 1) KEL_RAISE_SSL(0x20010050u, "SSL_CTX_use_certificate failed");
}

void UseChainCertificate(SSL_CTX* context, CSslCertificate& certificate) {
    if (certificate.IsEmpty()) KEL_RAISE(0x20010037u, "The SSL certificate handle is empty");
    if (SSL_CTX_add1_chain_cert(context, static_cast<X509*>(certificate)) != 1)
        KEL_RAISE_SSL(0x20010050u, "SSL_CTX_add1_chain_cert failed");
}

} // namespace

CSslContext::CSslContext(const CSslContext& other) noexcept : m_pCtx(other.m_pCtx) {
    if (m_pCtx) SSL_CTX_up_ref(m_pCtx);
}

CSslContext& CSslContext::operator=(const CSslContext& other) noexcept {
    if (other.m_pCtx) SSL_CTX_up_ref(other.m_pCtx);
    Attach(other.m_pCtx);
    return *this;
}

CSslContext& CSslContext::operator=(CSslContext&& other) noexcept {
    if (this != &other) Attach(other.Release());
    return *this;
}

CSslContext::~CSslContext() { SSL_CTX_free(m_pCtx); }

void CSslContext::Attach(ssl_ctx_st* context) noexcept {
    SSL_CTX* old = m_pCtx;
    m_pCtx = context;
    SSL_CTX_free(old);
}

ssl_ctx_st* CSslContext::Release() noexcept {
    SSL_CTX* context = m_pCtx;
    m_pCtx = nullptr;
    return context;
}

ssl_ctx_st* CSslContext::Checked() const {
    if (!m_pCtx) KEL_RAISE(0x20010037u, "The SSL context handle is empty");
    return m_pCtx;
}

unsigned long CSslContext::computeOptions(const std::vector<std::string>& keys) {
    unsigned long options = 0;
    for (const std::string& raw : keys) {
        std::string key = Trimmed(raw);
        if (key.empty()) {
            KEL_TRACE(KEL_MODULE_INFO_KelLib, 0x40000000, "KEL::Sockets::CSslContext::computeOptions",
                      "ERROR : Parse SSLSecurityOptions - empty key not expected");
            continue;
        }
        const bool clear = key[0] == '!';
        const SSL_OPTION* option = FindOption(clear ? key.substr(1) : key);
        if (!option) {
            KEL_TRACE(KEL_MODULE_INFO_KelLib, 0x40000000, "KEL::Sockets::CSslContext::computeOptions",
                      "ERROR : Parse SSLSecurityOptions - key %s not found")
                << key;
            continue;
        }
        if (clear)
            options &= ~option->value;
        else
            options |= option->value;
    }
    return options;
}

void CSslContext::Create(SSL_METHOD method, unsigned int verify, const std::string& cipherList,
                         const std::vector<std::string>& optionKeys) {
    Attach(nullptr);
    SSL_CTX* context = SSL_CTX_new(TLS_method());
    if (!context) {
        OPENSSL_init_ssl(0, nullptr);
        context = SSL_CTX_new(TLS_method());
        if (!context) KEL_RAISE_SSL(0x20010052u, "SSL_CTX_new failed");
    }
    CSslContext hold(context);
    unsigned long options = kSslOpAll;
    const char* ciphers = kDefaultCiphers;
    switch (method) {
    case SSLM_Strict:
        ciphers = kStrictCiphers;
        break;
    case SSLM_Compatible:
        ciphers = kCompatibleCiphers;
        break;
    case SSLM_Custom:
        options = computeOptions(optionKeys);
        ciphers = cipherList.c_str();
        break;
    default:
        break;
    }
    SSL_CTX_set_options(context, options);
    if (SSL_CTX_set_cipher_list(context, ciphers) != 1)
        KEL_RAISE_SSL(0x20010052u, "Cipher list \"%s\" refused for method %d", ciphers, static_cast<unsigned int>(method));
    SSL_CTX_set_session_id_context(context, kSessionIdContext, sizeof kSessionIdContext - 1);
    int mode = SSL_VERIFY_NONE;
    if (verify & SSLV_Peer) {
        mode = SSL_VERIFY_PEER;
        if (verify & SSLV_RequirePeerCert) mode |= SSL_VERIFY_FAIL_IF_NO_PEER_CERT;
        // A system without a trust store still verifies against AddTrustedCertificate's ones.
        if (SSL_CTX_set_default_verify_paths(context) != 1) ERR_clear_error();
    }
    SSL_CTX_set_verify(context, mode, nullptr);
    *this = std::move(hold);
}

unsigned int CSslContext::MakeContext(SSL_METHOD method, unsigned int verify, const std::string& cipherList,
                                      const std::vector<std::string>& optionKeys) {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        Create(method, verify, cipherList, optionKeys);
        return 1u;
    });
}

unsigned int CSslContext::MakeContext(SSL_METHOD method, unsigned int verify, const std::string& cipherList,
                                      const std::vector<std::string>& optionKeys, CSslKey& key,
                                      CSslCertificate& certificate, CSslCertificate& intermediate) {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        Create(method, verify, cipherList, optionKeys);
        // A half-made identity is worse than none: the context goes again on any failure.
        CSslContext made(Release());
        UseCertificate(made, certificate);
        UsePrivateKey(made, key);
        if (!intermediate.IsEmpty()) UseChainCertificate(made, intermediate);
        *this = std::move(made);
        return 1u;
    });
}

unsigned int CSslContext::SetPrivateKey(CSslKey& key) {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        UsePrivateKey(Checked(), key);
        return 1u;
    });
}

unsigned int CSslContext::SetCertificate(CSslCertificate& certificate) {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        UseCertificate(Checked(), certificate);
        return 1u;
    });
}

unsigned int CSslContext::SetIntermCertificate(CSslCertificate& certificate) {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        UseChainCertificate(Checked(), certificate);
        return 1u;
    });
}

unsigned int CSslContext::AddTrustedCertificate(CSslCertificate& certificate) {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        SSL_CTX* context = Checked();
        if (certificate.IsEmpty()) KEL_RAISE(0x20010037u, "The SSL certificate handle is empty");
        if (X509_STORE_add_cert(SSL_CTX_get_cert_store(context), certificate) != 1)
            KEL_RAISE_SSL(0x20010050u, "X509_STORE_add_cert failed");
        return 1u;
    });
}

unsigned int CSslContext::Add(CSslSession& session) {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        SSL_CTX* context = Checked();
        if (session.IsEmpty()) KEL_RAISE(0x20010037u, "The SSL session handle is empty");
        if (SSL_CTX_add_session(context, session) != 1)
            KEL_RAISE_SSL(0x20010053u, "SSL_CTX_add_session refused the session");
        return 1u;
    });
}

// The session handle is small enough to live beside the context that caches it.

CSslSession::CSslSession(const CSslSession& other) noexcept : m_pSession(other.m_pSession) {
    if (m_pSession) SSL_SESSION_up_ref(m_pSession);
}

CSslSession& CSslSession::operator=(const CSslSession& other) noexcept {
    if (other.m_pSession) SSL_SESSION_up_ref(other.m_pSession);
    Attach(other.m_pSession);
    return *this;
}

CSslSession& CSslSession::operator=(CSslSession&& other) noexcept {
    if (this != &other) Attach(other.Release());
    return *this;
}

CSslSession::~CSslSession() { SSL_SESSION_free(m_pSession); }

void CSslSession::Attach(ssl_session_st* session) noexcept {
    SSL_SESSION* old = m_pSession;
    m_pSession = session;
    SSL_SESSION_free(old);
}

ssl_session_st* CSslSession::Release() noexcept {
    SSL_SESSION* session = m_pSession;
    m_pSession = nullptr;
    return session;
}

bool CSslSession::IsResumable() const noexcept { return m_pSession && SSL_SESSION_is_resumable(m_pSession) == 1; }

} // namespace Sockets
} // namespace KEL
