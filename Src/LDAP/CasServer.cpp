// kelbase - Src/LDAP/CasServer.cpp
//
// The CAS server settings, their place in the suite's XML configuration, and the connection
// test that asks the server to validate a ticket it must reject.
#define KEL_SOURCE_FILE "Src/LDAP"
#include <kel/Cas.h>
#include <kel/Exceptions.h>
#include <kel/Functions.h>
#include <kel/Ssl.h>
#include <kel/Strings.h>

#include "LDAP/CasAnswer.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <regex>

namespace KEL {
namespace Ldap {

namespace {

constexpr const char kNotConfigured[] = "0.0.0.0";
constexpr unsigned int kDefaultPort = 3170;
constexpr const char kDefaultContextRoot[] = "/cas";
constexpr const char kDefaultURILogin[] = "/login";
constexpr const char kDefaultURIServiceValidate[] = "/validate";

// Each network step of the connection test (connect, handshake, write, the answer) may take
// this long; a server that accepts and stays silent must not hang the caller.
constexpr unsigned int kTestTimeoutMs = 10000;
constexpr size_t kAnswerSize = 512;

// The port as a decimal number: leading blanks and a sign as strtoul takes them, digits up to
// the first other character, 0 without digits; a value beyond 32 bits saturates.
unsigned int DecimalPort(const char* text) {
    errno = 0;
    unsigned long long value = std::strtoull(text, nullptr, 10);
    if (errno == ERANGE || value > UINT_MAX) return UINT_MAX;
    return static_cast<unsigned int>(value);
}

std::string TextOr(const XML::xml_node& node, const char* fallback) {
    const char* text = node.text().get();
    return *text ? std::string(text) : std::string(fallback);
}

} // namespace

CCASServer::CCASServer() { SetDefaults(); }

CCASServer::~CCASServer() = default;

bool CCASServer::operator==(const CCASServer& other) const {
    return m_strServer == other.m_strServer && m_uPort == other.m_uPort &&
           m_strContextRoot == other.m_strContextRoot && m_strURILogin == other.m_strURILogin &&
           m_strURIServiceValidate == other.m_strURIServiceValidate;
}

void CCASServer::SetDefaults() {
    m_strServer = kNotConfigured;
    m_uPort = kDefaultPort;
    m_strContextRoot = kDefaultContextRoot;
    m_strURILogin = kDefaultURILogin;
    m_strURIServiceValidate = kDefaultURIServiceValidate;
}

bool CCASServer::ReadFromXML(XML::xml_document& document) {
    XML::xml_node cas = document.select_node("/config/authentication/cas").node();
    if (!cas) return false;
    for (XML::xml_node child = cas.first_child(); child; child = child.next_sibling()) {
        if (child.type() != XML::node_element) continue;
        const char* name = child.name();
        if (std::strcmp(name, "server") == 0)
            m_strServer = TextOr(child, kNotConfigured);
        else if (std::strcmp(name, "port") == 0)
            m_uPort = DecimalPort(child.text().get());
        else if (std::strcmp(name, "contextRoot") == 0)
            m_strContextRoot = TextOr(child, kDefaultContextRoot);
        else if (std::strcmp(name, "uriLogin") == 0)
            m_strURILogin = TextOr(child, kDefaultURILogin);
        else if (std::strcmp(name, "uriServiceValidate") == 0)
            m_strURIServiceValidate = TextOr(child, kDefaultURIServiceValidate);
    }
    return true;
}

bool CCASServer::WriteToXML(XML::xml_document& document) const {
    XML::xml_node config = document.select_node("/config").node();
    if (!config) return false;
    config.remove_child("authentication");
    XML::xml_node cas = config.append_child("authentication").append_child("cas");
    cas.append_child("server").text().set(m_strServer.c_str());
    cas.append_child("port").text().set(std::to_string(m_uPort).c_str());
    cas.append_child("contextRoot").text().set(m_strContextRoot.c_str());
    cas.append_child("uriLogin").text().set(m_strURILogin.c_str());
    cas.append_child("uriServiceValidate").text().set(m_strURIServiceValidate.c_str());
    return true;
}

unsigned int CCASServer::TestConnection() {
    if (m_strServer == kNotConfigured) return URET_ConnectFailed;
    try {
        std::string localHost, fqdn;
        if (Functions::GetDnsName(localHost, fqdn) != URET_Ok) return URET_ConnectFailed;
        const std::string request = Internals::CasValidationRequest(m_strServer, m_uPort, m_strContextRoot,
                                                                    m_strURIServiceValidate, localHost);
        Sockets::CSslSocket socket;
        socket.SetTimeout(kTestTimeoutMs);
        socket.Connect(m_strServer, m_uPort);
        Sockets::CSslContext context;
        if (context.MakeContext(Sockets::SSLM_Default) != URET_Ok) return URET_ConnectFailed;
        socket.MakeSecure(context);
        if (socket.Write(request.data(), request.size(), nullptr) != URET_Ok) return URET_ConnectFailed;
        // One read: whatever the first TLS record of the answer brings is the whole answer.
        // Waiting until there is one passes over what carries no bytes (TLS 1.3 tickets).
        char answer[kAnswerSize + 1];
        size_t got = 0;
        unsigned int r = URET_WouldBlock;
        while (r == URET_WouldBlock) {
            socket.Wait();
            r = socket.Read(answer, kAnswerSize, &got);
        }
        answer[r == URET_Ok ? got : 0] = '\0';
        socket.Close();
        if (m_strURIServiceValidate == kDefaultURIServiceValidate) return Internals::JudgePlainCasAnswer(answer);
        return Internals::JudgeXmlCasAnswer(answer);
    } catch (const Exceptions::CKelException&) {
        // The failure is in the thread's error log; the test only says that it failed.
        return URET_ConnectFailed;
    } catch (const std::exception&) {
        return URET_ConnectFailed;
    }
}

} // namespace Ldap

namespace Internals {

std::string CasValidationRequest(const std::string& server, unsigned int port, const std::string& contextRoot,
                                 const std::string& uriServiceValidate, const std::string& localHost) {
    Strings::TString<128> address, path, request;
    address.Format("%s:%d") << server << port;
    path.Format("%s%s?service=https://") << contextRoot << uriServiceValidate;
    request.Format("GET https://%s%s%s%s HTTP/1.1\n\n")
        << static_cast<const Strings::CSubStringRef&>(address) << static_cast<const Strings::CSubStringRef&>(path)
        << localHost << "&ticket=definitely_invalid";
    return request.str();
}

unsigned int JudgePlainCasAnswer(const char* answer) {
    // Compiled once per process; a function-local static is initialised exactly once.
    static const std::regex s_Rejected("\r\n\r\nno[\r\n]+");
    return std::regex_search(answer, s_Rejected) ? URET_Ok : URET_ConnectFailed;
}

unsigned int JudgeXmlCasAnswer(const char* answer) {
    XML::xml_document document;
    if (!document.load_file(answer)) return URET_ConnectFailed;
    return document.select_node("/cas:serviceResponse/cas:authenticationFailure").node() ? URET_Ok
                                                                                          : URET_ConnectFailed;
}

} // namespace Internals
} // namespace KEL
