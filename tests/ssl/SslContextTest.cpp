// TLS contexts: the policy of each method value, the option-name parser, the server identity,
// and handshakes and session resumption between two SSL objects in memory.
#include "SslTestUtil.h"

#include <openssl/x509.h>

#include <set>

using namespace KEL;
using namespace KEL::Sockets;
using kel_test::CIdentities;
using kel_test::CMemoryTls;
using kel_test::CTraceCapture;
using kel_test::ErrorLogText;
using kel_test::LastStatus;
using kel_test::ServerContext;

namespace {

std::vector<std::string> CipherNames(SSL_CTX* ctx) {
    std::vector<std::string> names;
    STACK_OF(SSL_CIPHER)* ciphers = SSL_CTX_get_ciphers(ctx);
    for (int i = 0; i < sk_SSL_CIPHER_num(ciphers); ++i) names.emplace_back(SSL_CIPHER_get_name(sk_SSL_CIPHER_value(ciphers, i)));
    return names;
}

// The TLS 1.2-and-older suites of a context (the cipher list does not govern TLS 1.3).
std::vector<const SSL_CIPHER*> LegacySuites(SSL_CTX* ctx) {
    std::vector<const SSL_CIPHER*> suites;
    STACK_OF(SSL_CIPHER)* ciphers = SSL_CTX_get_ciphers(ctx);
    for (int i = 0; i < sk_SSL_CIPHER_num(ciphers); ++i) {
        const SSL_CIPHER* c = sk_SSL_CIPHER_value(ciphers, i);
        if (std::string(SSL_CIPHER_get_version(c)) != "TLSv1.3") suites.push_back(c);
    }
    return suites;
}

std::vector<std::string> ExpectedCipherNames(const char* list) {
    SSL_CTX* ctx = SSL_CTX_new(TLS_method());
    EXPECT_EQ(1, SSL_CTX_set_cipher_list(ctx, list));
    std::vector<std::string> names = CipherNames(ctx);
    SSL_CTX_free(ctx);
    return names;
}

// A raw client context that speaks exactly the given protocol range and suites, whatever the
// system's configuration says.
SSL_CTX* RawClient(int minVersion, int maxVersion, const char* ciphers) {
    SSL_CTX* ctx = SSL_CTX_new(TLS_client_method());
    SSL_CTX_set_security_level(ctx, 0);
    SSL_CTX_set_min_proto_version(ctx, minVersion);
    SSL_CTX_set_max_proto_version(ctx, maxVersion);
    EXPECT_EQ(1, SSL_CTX_set_cipher_list(ctx, ciphers));
    return ctx;
}

SSL_CTX* RawServer(const char* ciphers) {
    CIdentities& ids = CIdentities::Get();
    SSL_CTX* ctx = SSL_CTX_new(TLS_server_method());
    SSL_CTX_set_security_level(ctx, 0);
    SSL_CTX_set_min_proto_version(ctx, TLS1_VERSION);
    EXPECT_EQ(1, SSL_CTX_set_cipher_list(ctx, ciphers));
    EXPECT_EQ(1, SSL_CTX_use_certificate(ctx, ids.server));
    EXPECT_EQ(1, SSL_CTX_use_PrivateKey(ctx, ids.serverKey));
    return ctx;
}

} // namespace

// --- The method table -------------------------------------------------------------------

TEST(SslMethodTable, EachMethodSetsItsOptionsAndCipherList) {
    struct Row {
        Sockets::SSL_METHOD method;
        const char* ciphers;
    } rows[] = {
        {SSLM_Strict, "ALL:!COMPLEMENTOFDEFAULT:!eNULL:!SSLv2:!SSLv3:!TLSv1:!RC4:!PSK:!SRP:!EXP:!ECDSA:!ADH:!LOW:!MEDIUM:@STRENGTH"},
        {SSLM_Compatible, "ALL:!COMPLEMENTOFDEFAULT:!eNULL:!RC4:!PSK:!SRP:!EXP:!ECDSA:!DSS:@STRENGTH"},
        {SSLM_Default, "HIGH:!SSLv2:!SSLv3:!TLSv1:!aNULL:!eNULL:!MD5:!RC4:!PSK:!SRP:!ECDSA:!DSS:@STRENGTH"},
        {static_cast<Sockets::SSL_METHOD>(3), "HIGH:!SSLv2:!SSLv3:!TLSv1:!aNULL:!eNULL:!MD5:!RC4:!PSK:!SRP:!ECDSA:!DSS:@STRENGTH"},
        {static_cast<Sockets::SSL_METHOD>(77), "HIGH:!SSLv2:!SSLv3:!TLSv1:!aNULL:!eNULL:!MD5:!RC4:!PSK:!SRP:!ECDSA:!DSS:@STRENGTH"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(static_cast<unsigned int>(row.method));
        CSslContext ctx;
        ASSERT_EQ(1u, ctx.MakeContext(row.method, SSLV_None, "ignored:list", {"ignored"})) << ErrorLogText();
        EXPECT_EQ(0x80000854ul, SSL_CTX_get_options(ctx) & 0x80000854ul);
        EXPECT_EQ(ExpectedCipherNames(row.ciphers), CipherNames(ctx));
    }
}

TEST(SslMethodTable, StrictAndDefaultKeepOnlyTls12SuitesWithoutWeakOnes) {
    for (Sockets::SSL_METHOD method : {SSLM_Strict, SSLM_Default}) {
        CSslContext ctx;
        ASSERT_EQ(1u, ctx.MakeContext(method)) << ErrorLogText();
        std::vector<const SSL_CIPHER*> suites = LegacySuites(ctx);
        ASSERT_FALSE(suites.empty());
        for (const SSL_CIPHER* c : suites) {
            std::string name = SSL_CIPHER_get_name(c);
            EXPECT_STREQ("TLSv1.2", SSL_CIPHER_get_version(c)) << name;
            EXPECT_NE(NID_auth_ecdsa, SSL_CIPHER_get_auth_nid(c)) << name;
            EXPECT_NE(NID_auth_null, SSL_CIPHER_get_auth_nid(c)) << name;
            EXPECT_NE(NID_auth_psk, SSL_CIPHER_get_auth_nid(c)) << name;
            EXPECT_NE(NID_auth_srp, SSL_CIPHER_get_auth_nid(c)) << name;
            EXPECT_NE(NID_auth_dss, SSL_CIPHER_get_auth_nid(c)) << name;
            EXPECT_NE(NID_undef, SSL_CIPHER_get_cipher_nid(c)) << name; // no eNULL
            EXPECT_EQ(std::string::npos, name.find("RC4")) << name;
            EXPECT_GE(SSL_CIPHER_get_bits(c, nullptr), 128) << name;
        }
    }
}

TEST(SslMethodTable, CustomMethodTakesTheCallersListAndComputedOptions) {
    CSslContext ctx;
    ASSERT_EQ(1u, ctx.MakeContext(SSLM_Custom, SSLV_None, "AES256-GCM-SHA384",
                                  {"SSL_OP_NO_TICKET", " SSL_OP_CIPHER_SERVER_PREFERENCE "}))
        << ErrorLogText();
    std::vector<const SSL_CIPHER*> suites = LegacySuites(ctx);
    ASSERT_EQ(1u, suites.size());
    EXPECT_STREQ("AES256-GCM-SHA384", SSL_CIPHER_get_name(suites[0]));
    unsigned long long options = SSL_CTX_get_options(ctx);
    EXPECT_EQ(0x4000u | 0x400000u, options & (0x4000u | 0x400000u));
    EXPECT_EQ(0u, options & 0x80000840ul) << "none of SSL_OP_ALL's own bits may be set";
}

TEST(SslMethodTable, RefusedCipherListFailsWithOpenSslsReason) {
    CSslContext ctx;
    EXPECT_EQ(0x20010052u, ctx.MakeContext(SSLM_Custom, SSLV_None, "NO-SUCH-CIPHER", {}));
    EXPECT_TRUE(ctx.IsEmpty());
    EXPECT_EQ(0x20010052u, LastStatus());
    EXPECT_EQ(4u, kel_test::LastNative().kind);
    std::string log = ErrorLogText();
    EXPECT_NE(std::string::npos, log.find("no cipher match")) << log;
    EXPECT_NE(std::string::npos, log.find("N-Error : OpenSSL::")) << log;
    EXPECT_NE(std::string::npos, log.find("Can't create session context")) << log;
}

TEST(SslMethodTable, MakingAgainReplacesTheContext) {
    CSslContext ctx;
    ASSERT_EQ(1u, ctx.MakeContext(SSLM_Strict));
    SSL_CTX* first = ctx;
    SSL_CTX_up_ref(first);
    ASSERT_EQ(1u, ctx.MakeContext(SSLM_Compatible));
    EXPECT_NE(first, static_cast<SSL_CTX*>(ctx));
    SSL_CTX_free(first);
}

// --- The option names --------------------------------------------------------------------

TEST(SslOptions, KeysAreAppliedInOrderAndBangClears) {
    EXPECT_EQ(0x854ul, CSslContext::computeOptions({"SSL_OP_ALL", "!SSL_OP_CRYPTOPRO_TLSEXT_BUG"}));
    EXPECT_EQ(0x80000854ul, CSslContext::computeOptions({"!SSL_OP_CRYPTOPRO_TLSEXT_BUG", "SSL_OP_ALL"}));
    EXPECT_EQ(0ul, CSslContext::computeOptions({"SSL_OP_NO_SSL_MASK", "!SSL_OP_NO_SSL_MASK"}));
    EXPECT_EQ(0x3E000000ul, CSslContext::computeOptions({"SSL_OP_NO_SSL_MASK"}));
    EXPECT_EQ(0ul, CSslContext::computeOptions({}));
}

TEST(SslOptions, NamesCarryTheirHistoricValues) {
    EXPECT_EQ(0x80000ul, CSslContext::computeOptions({"SSL_OP_NO_ENCRYPT_THEN MAC"}));
    EXPECT_EQ(0x40000000ul, CSslContext::computeOptions({"SSL_OP_NO_RENEGOTIATION"}));
    EXPECT_EQ(16384ul, CSslContext::computeOptions({"SSL_OP_NO_TICKET"}));
    EXPECT_EQ(4ul, CSslContext::computeOptions({"SSL_OP_LEGACY_SERVER_CONNECT"}));
    // Options without effect today still parse, as 0, and write no trace.
    CTraceCapture capture(0x40000000u);
    EXPECT_EQ(0ul, CSslContext::computeOptions({"SSL_OP_EPHEMERAL_RSA", "SSL_OP_SINGLE_DH_USE", "SSL_OP_PKCS1_CHECK_2"}));
    EXPECT_TRUE(CTraceCapture::Entries().empty());
}

TEST(SslOptions, KeysAreTrimmedButNotOtherwiseForgiven) {
    CTraceCapture capture(0x40000000u);
    EXPECT_EQ(0x4000ul | 0x20000ul, CSslContext::computeOptions({"  SSL_OP_NO_TICKET\t", "\nSSL_OP_NO_COMPRESSION "}));
    EXPECT_TRUE(CTraceCapture::Entries().empty());
    EXPECT_EQ(0ul, CSslContext::computeOptions({"ssl_op_no_ticket", "SSL_OP_NO_ENCRYPT_THEN_MAC", "! SSL_OP_NO_TICKET"}));
    ASSERT_EQ(3u, CTraceCapture::Entries().size());
    EXPECT_TRUE(kel_test::EndsWith(CTraceCapture::Entries()[0],
                                   "\nERROR : Parse SSLSecurityOptions - key ssl_op_no_ticket not found"))
        << CTraceCapture::Entries()[0];
    EXPECT_TRUE(kel_test::EndsWith(CTraceCapture::Entries()[1],
                                   "ERROR : Parse SSLSecurityOptions - key SSL_OP_NO_ENCRYPT_THEN_MAC not found"));
    EXPECT_TRUE(kel_test::EndsWith(CTraceCapture::Entries()[2],
                                   "ERROR : Parse SSLSecurityOptions - key ! SSL_OP_NO_TICKET not found"));
    EXPECT_NE(std::string::npos, CTraceCapture::Entries()[0].find("kelbase::KEL::Sockets::CSslContext::computeOptions@"));
    EXPECT_NE(std::string::npos, CTraceCapture::Entries()[0].find("**F40000000**"));
}

TEST(SslOptions, EmptyKeysAreSkippedWithTheirOwnTrace) {
    CTraceCapture capture(0x40000000u);
    EXPECT_EQ(0x4000ul, CSslContext::computeOptions({"", " \t ", "SSL_OP_NO_TICKET"}));
    ASSERT_EQ(2u, CTraceCapture::Entries().size());
    for (const std::string& entry : CTraceCapture::Entries())
        EXPECT_TRUE(kel_test::EndsWith(entry, "\nERROR : Parse SSLSecurityOptions - empty key not expected")) << entry;
}

TEST(SslOptions, NoTraceWhileTheTlsPointIsOff) {
    CTraceCapture capture(0x20000000u);
    EXPECT_EQ(0ul, CSslContext::computeOptions({"", "UNKNOWN"}));
    EXPECT_TRUE(CTraceCapture::Entries().empty());
}

// --- Server identity ---------------------------------------------------------------------

TEST(SslIdentity, KeyThatDoesNotBelongToTheCertificateIsRefused) {
    CIdentities& ids = CIdentities::Get();
    CSslContext ctx;
    ASSERT_EQ(1u, ctx.MakeContext(SSLM_Default));
    ASSERT_EQ(1u, ctx.SetCertificate(ids.server));
    EXPECT_EQ(0x20010051u, ctx.SetPrivateKey(ids.otherKey));
    std::string log = ErrorLogText();
    EXPECT_NE(std::string::npos, log.find("key values mismatch")) << log;
    EXPECT_EQ(nullptr, SSL_CTX_get0_privatekey(ctx));
    EXPECT_EQ(1u, ctx.SetPrivateKey(ids.serverKey));
    EXPECT_EQ(1, SSL_CTX_check_private_key(ctx));
}

TEST(SslIdentity, CertificateThatDoesNotBelongToTheKeyIsRefused) {
    CIdentities& ids = CIdentities::Get();
    CSslContext ctx;
    ASSERT_EQ(1u, ctx.MakeContext(SSLM_Default));
    ASSERT_EQ(1u, ctx.SetPrivateKey(ids.serverKey));
    EXPECT_EQ(0x20010051u, ctx.SetCertificate(ids.selfSigned));
    EXPECT_NE(std::string::npos, ErrorLogText().find("key values mismatch"));
    // OpenSSL would have dropped the key silently; it is still there.
    EXPECT_NE(nullptr, SSL_CTX_get0_privatekey(ctx));
}

TEST(SslIdentity, MakeContextWithMismatchedIdentityLeavesNoContext) {
    CIdentities& ids = CIdentities::Get();
    CSslContext ctx;
    CSslCertificate none;
    EXPECT_EQ(0x20010051u, ctx.MakeContext(SSLM_Default, SSLV_None, "", {}, ids.otherKey, ids.server, none));
    EXPECT_TRUE(ctx.IsEmpty());
    EXPECT_EQ(0x20010037u, ctx.SetPrivateKey(ids.serverKey));
}

TEST(SslIdentity, EmptyHandlesAreRefused) {
    CSslContext ctx;
    CSslKey key;
    CSslCertificate cert;
    CSslSession session;
    EXPECT_EQ(0x20010037u, ctx.SetPrivateKey(key));
    ASSERT_EQ(1u, ctx.MakeContext(SSLM_Default));
    EXPECT_EQ(0x20010037u, ctx.SetPrivateKey(key));
    EXPECT_EQ(0x20010037u, ctx.SetCertificate(cert));
    EXPECT_EQ(0x20010037u, ctx.SetIntermCertificate(cert));
    EXPECT_EQ(0x20010037u, ctx.Add(session));
}

// --- Handshakes in memory ----------------------------------------------------------------

TEST(SslHandshake, ClientVerifiesTheChainOnlyWithTheIntermediateSent) {
    CIdentities& ids = CIdentities::Get();
    CSslContext client;
    ASSERT_EQ(1u, client.MakeContext(SSLM_Default, SSLV_Peer));
    ASSERT_EQ(1u, client.AddTrustedCertificate(ids.ca));

    CSslContext withChain = ServerContext(SSLM_Default);
    {
        CMemoryTls tls(client, withChain);
        ASSERT_TRUE(tls.Handshake());
        EXPECT_EQ(X509_V_OK, SSL_get_verify_result(tls.Client()));
        EXPECT_TRUE(tls.Exchange("ping"));
        EXPECT_STREQ("TLSv1.3", SSL_get_version(tls.Client()));
    }
    CSslContext leafOnly;
    ASSERT_EQ(1u, leafOnly.MakeContext(SSLM_Default));
    ASSERT_EQ(1u, leafOnly.SetCertificate(ids.server));
    ASSERT_EQ(1u, leafOnly.SetPrivateKey(ids.serverKey));
    CMemoryTls tls(client, leafOnly);
    EXPECT_FALSE(tls.Handshake());
    EXPECT_EQ(X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY, SSL_get_verify_result(tls.Client()));
}

TEST(SslHandshake, Tls12WorksWithEveryMethod) {
    for (Sockets::SSL_METHOD method : {SSLM_Strict, SSLM_Compatible, SSLM_Default}) {
        CSslContext server = ServerContext(method);
        CSslContext client;
        ASSERT_EQ(1u, client.MakeContext(method));
        CMemoryTls tls(client, server);
        SSL_set_max_proto_version(tls.Client(), TLS1_2_VERSION);
        ASSERT_TRUE(tls.Handshake()) << static_cast<unsigned int>(method);
        EXPECT_STREQ("TLSv1.2", SSL_get_version(tls.Client()));
        EXPECT_TRUE(tls.Exchange("hello over TLS 1.2"));
    }
}

TEST(SslHandshake, StrictAndDefaultRefuseTls10And11) {
    // The raw client really speaks the old protocols: a permissive server accepts it.
    for (int version : {TLS1_VERSION, TLS1_1_VERSION}) {
        SCOPED_TRACE(version);
        SSL_CTX* oldClient = RawClient(TLS1_VERSION, version, "ALL:@SECLEVEL=0");
        SSL_CTX* permissive = RawServer("ALL:@SECLEVEL=0");
        {
            CMemoryTls control(oldClient, permissive);
            ASSERT_TRUE(control.Handshake()) << "the control handshake must succeed";
            EXPECT_EQ(version, SSL_version(control.Client()));
        }
        for (Sockets::SSL_METHOD method : {SSLM_Strict, SSLM_Default}) {
            CSslContext server = ServerContext(method);
            CMemoryTls tls(oldClient, server);
            EXPECT_FALSE(tls.Handshake()) << static_cast<unsigned int>(method);
        }
        SSL_CTX_free(oldClient);
        SSL_CTX_free(permissive);
    }
}

TEST(SslHandshake, StrictAndDefaultRefuseExcludedSuitesOnTls12) {
    for (const char* suite : {"AES128-SHA", "ECDHE-RSA-AES128-SHA", "AES256-SHA"}) {
        SCOPED_TRACE(suite);
        SSL_CTX* client = RawClient(TLS1_2_VERSION, TLS1_2_VERSION, suite);
        for (Sockets::SSL_METHOD method : {SSLM_Strict, SSLM_Default}) {
            CSslContext server = ServerContext(method);
            CMemoryTls tls(client, server);
            EXPECT_FALSE(tls.Handshake()) << static_cast<unsigned int>(method);
        }
        SSL_CTX_free(client);
    }
}

TEST(SslHandshake, SessionIsResumedThroughCSslSession) {
    CSslContext server = ServerContext(SSLM_Default);
    CSslContext client;
    ASSERT_EQ(1u, client.MakeContext(SSLM_Default));
    CSslSession session;
    {
        CMemoryTls first(client, server);
        ASSERT_TRUE(first.Handshake());
        ASSERT_TRUE(first.Exchange("ticket please"));
        EXPECT_EQ(0, SSL_session_reused(first.Client()));
        session.Attach(SSL_get1_session(first.Client()));
    }
    ASSERT_TRUE(session.IsResumable());
    CSslSession copy(session);
    EXPECT_EQ(static_cast<SSL_SESSION*>(session), static_cast<SSL_SESSION*>(copy));

    CMemoryTls second(client, server);
    ASSERT_EQ(1, SSL_set_session(second.Client(), copy));
    ASSERT_TRUE(second.Handshake());
    EXPECT_EQ(1, SSL_session_reused(second.Client()));
    EXPECT_TRUE(second.Exchange("again"));
}

TEST(SslHandshake, AddPutsAServerSessionIntoTheCache) {
    // Session ids instead of tickets, and a cache that stores nothing by itself.
    CSslContext server = ServerContext(SSLM_Custom, "HIGH:!aNULL", {"SSL_OP_ALL", "SSL_OP_NO_TICKET"});
    SSL_CTX_set_session_cache_mode(server, SSL_SESS_CACHE_SERVER | SSL_SESS_CACHE_NO_INTERNAL_STORE);
    CSslContext client;
    ASSERT_EQ(1u, client.MakeContext(SSLM_Default));

    CSslSession clientSession;
    CSslSession serverSession;
    {
        CMemoryTls first(client, server);
        SSL_set_max_proto_version(first.Client(), TLS1_2_VERSION);
        ASSERT_TRUE(first.Handshake());
        clientSession.Attach(SSL_get1_session(first.Client()));
        serverSession.Attach(SSL_get1_session(first.Server()));
    }
    {
        CMemoryTls notCached(client, server);
        SSL_set_max_proto_version(notCached.Client(), TLS1_2_VERSION);
        SSL_set_session(notCached.Client(), clientSession);
        ASSERT_TRUE(notCached.Handshake());
        EXPECT_EQ(0, SSL_session_reused(notCached.Client()));
    }
    ASSERT_EQ(1u, server.Add(serverSession)) << ErrorLogText();
    EXPECT_EQ(0x20010053u, server.Add(serverSession)) << "the same session twice";
    CMemoryTls cached(client, server);
    SSL_set_max_proto_version(cached.Client(), TLS1_2_VERSION);
    SSL_set_session(cached.Client(), clientSession);
    ASSERT_TRUE(cached.Handshake());
    EXPECT_EQ(1, SSL_session_reused(cached.Client()));
}

// --- Handles -----------------------------------------------------------------------------

TEST(SslHandles, AttachReleaseAndCopiesShareTheObject) {
    SSL_CTX* raw = SSL_CTX_new(TLS_method());
    CSslContext a;
    a.Attach(raw);
    EXPECT_EQ(raw, static_cast<SSL_CTX*>(a));
    {
        CSslContext b(a);
        CSslContext c;
        c = b;
        EXPECT_EQ(raw, static_cast<SSL_CTX*>(c));
    }
    CSslContext moved(std::move(a));
    EXPECT_TRUE(a.IsEmpty());
    SSL_CTX* given = moved.Release();
    EXPECT_EQ(raw, given);
    EXPECT_TRUE(moved.IsEmpty());
    SSL_CTX_free(given);

    CSslSession session;
    session.Attach(SSL_SESSION_new());
    EXPECT_FALSE(session.IsResumable()) << "a session that never ran";
    session.Attach(nullptr);
    EXPECT_TRUE(session.IsEmpty());
}
