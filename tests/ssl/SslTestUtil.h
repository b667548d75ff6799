// Helpers of the TLS tests: error-log checks, temporary files and an in-memory
// TLS connection (two SSL objects joined by a BIO pair) to run handshakes without sockets.
#pragma once

#include <kel/kelbase.h>

#include "../common/TraceCapture.h"

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

namespace kel_test {

/// The calling thread's error log rendered as text.
inline std::string ErrorLogText() {
    KEL::Strings::TString<2048> text;
    text.Format("%s") << KEL::Threading::CCurrentThread().GetErrorLog();
    return text.str();
}

/// The status of the thread's last failure.
inline unsigned int LastStatus() { return KEL::Threading::CCurrentThread().GetErrorLog().GetError(); }

/// The native error of the thread's last failure.
inline KEL::Exceptions::NATIVE_ERROR LastNative() {
    KEL::Exceptions::NATIVE_ERROR native;
    KEL::Threading::CCurrentThread().GetErrorLog().GetError(native);
    return native;
}

inline bool EndsWith(const std::string& text, const std::string& tail) {
    return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

/// A file in the temporary folder that is removed again.
class CTempFile {
public:
    explicit CTempFile(const std::string& content) {
        char name[] = "/tmp/kel_ssl_XXXXXX";
        int fd = mkstemp(name);
        if (fd >= 0) close(fd);
        m_strPath = name;
        std::ofstream(m_strPath, std::ios::binary) << content;
    }
    ~CTempFile() { std::remove(m_strPath.c_str()); }
    CTempFile(const CTempFile&) = delete;
    CTempFile& operator=(const CTempFile&) = delete;
    const std::string& Path() const { return m_strPath; }

private:
    std::string m_strPath;
};

/// Runs a shell command and returns its exit status and its output (stdout and stderr).
inline int RunCommand(const std::string& command, std::string& output) {
    output.clear();
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (!pipe) return -1;
    char buffer[4096];
    size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) output.append(buffer, n);
    int status = pclose(pipe);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/// A client and a server SSL object joined by a BIO pair.
class CMemoryTls {
public:
    CMemoryTls(SSL_CTX* clientCtx, SSL_CTX* serverCtx) : m_pClient(SSL_new(clientCtx)), m_pServer(SSL_new(serverCtx)) {
        BIO* clientSide = nullptr;
        BIO* serverSide = nullptr;
        BIO_new_bio_pair(&clientSide, 0, &serverSide, 0);
        SSL_set_bio(m_pClient, clientSide, clientSide);
        SSL_set_bio(m_pServer, serverSide, serverSide);
        SSL_set_connect_state(m_pClient);
        SSL_set_accept_state(m_pServer);
    }
    ~CMemoryTls() {
        // A connection freed without close_notify makes OpenSSL drop its session as bad.
        SSL_shutdown(m_pClient);
        SSL_shutdown(m_pServer);
        SSL_free(m_pClient);
        SSL_free(m_pServer);
        ERR_clear_error();
    }
    CMemoryTls(const CMemoryTls&) = delete;
    CMemoryTls& operator=(const CMemoryTls&) = delete;

    SSL* Client() const { return m_pClient; }
    SSL* Server() const { return m_pServer; }

    /// Drives both ends until the handshake is done (true) or one end fails (false).
    bool Handshake() {
        bool clientDone = false;
        bool serverDone = false;
        for (int round = 0; round < 100 && !(clientDone && serverDone); ++round) {
            if (!clientDone && !Step(m_pClient, clientDone)) return false;
            if (!serverDone && !Step(m_pServer, serverDone)) return false;
        }
        return clientDone && serverDone;
    }

    /// Sends `text` from one end and reads it at the other; the client also takes in what the
    /// server sent after the handshake (TLS 1.3 session tickets) on the way.
    bool Exchange(const std::string& text) { return Transfer(m_pClient, m_pServer, text) && Transfer(m_pServer, m_pClient, text); }

private:
    static bool Step(SSL* ssl, bool& done) {
        int r = SSL_do_handshake(ssl);
        if (r == 1) {
            done = true;
            return true;
        }
        int e = SSL_get_error(ssl, r);
        return e == SSL_ERROR_WANT_READ || e == SSL_ERROR_WANT_WRITE;
    }
    static bool Transfer(SSL* from, SSL* to, const std::string& text) {
        if (SSL_write(from, text.data(), static_cast<int>(text.size())) != static_cast<int>(text.size())) return false;
        std::string got;
        char buffer[256];
        for (int round = 0; round < 100 && got.size() < text.size(); ++round) {
            int n = SSL_read(to, buffer, sizeof buffer);
            if (n > 0) {
                got.append(buffer, static_cast<size_t>(n));
                continue;
            }
            int e = SSL_get_error(to, n);
            if (e != SSL_ERROR_WANT_READ && e != SSL_ERROR_WANT_WRITE) return false;
            // Lets the sender flush (and take in anything the receiver wrote meanwhile).
            char none;
            SSL_read(from, &none, 0);
        }
        return got == text;
    }
    SSL* m_pClient;
    SSL* m_pServer;
};

/// Keys and certificates made once per test program (RSA generation takes a while).
struct CIdentities {
    KEL::Sockets::CSslKey caKey, intermKey, serverKey, otherKey;
    KEL::Sockets::CSslCertificate ca, interm, server, selfSigned;

    static CIdentities& Get() {
        static CIdentities s_Ids;
        return s_Ids;
    }

private:
    CIdentities() {
        using KEL::Sockets::CERTIFICATE_DATA;
        CERTIFICATE_DATA caData;
        caData.country = "DE";
        caData.organization = "Lanternbay";
        caData.commonName = "Lanternbay Test Root";
        caData.isCA = true;
        EXPECT_EQ(1u, ca.MakeCertificate(caData, caKey)) << ErrorLogText();

        CERTIFICATE_DATA intermData;
        intermData.organization = "Lanternbay";
        intermData.commonName = "Lanternbay Test Intermediate";
        intermData.isCA = true;
        intermData.issuerCertificate = &ca;
        intermData.issuerKey = &caKey;
        EXPECT_EQ(1u, interm.MakeCertificate(intermData, intermKey)) << ErrorLogText();

        CERTIFICATE_DATA serverData;
        serverData.organization = "Lanternbay";
        serverData.commonName = "localhost";
        serverData.subjectAltNames = {"localhost", "127.0.0.1"};
        serverData.issuerCertificate = &interm;
        serverData.issuerKey = &intermKey;
        EXPECT_EQ(1u, server.MakeCertificate(serverData, serverKey)) << ErrorLogText();

        CERTIFICATE_DATA selfData;
        selfData.commonName = "self.example";
        EXPECT_EQ(1u, selfSigned.MakeCertificate(selfData, otherKey)) << ErrorLogText();
    }
};

/// A certificate or key as PEM text.
template <class T>
std::string Pem(const T& item) {
    KEL::Strings::CStringVar text;
    EXPECT_EQ(1u, item.Write(text));
    return text.str();
}

/// A server context with the shared test identity (leaf and intermediate).
inline KEL::Sockets::CSslContext ServerContext(KEL::Sockets::SSL_METHOD method = KEL::Sockets::SSLM_Default,
                                               const std::string& ciphers = std::string(),
                                               const std::vector<std::string>& keys = {}) {
    CIdentities& ids = CIdentities::Get();
    KEL::Sockets::CSslContext ctx;
    EXPECT_EQ(1u, ctx.MakeContext(method, KEL::Sockets::SSLV_None, ciphers, keys, ids.serverKey, ids.server,
                                  ids.interm))
        << ErrorLogText();
    return ctx;
}

} // namespace kel_test
