// kelbase - Src/LDAP/CasServer.cpp
//
// The CAS server settings and their place in the suite's XML configuration.
#define KEL_SOURCE_FILE "Src/LDAP"
#include <kel/Cas.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace KEL {
namespace Ldap {

namespace {

constexpr const char kNotConfigured[] = "0.0.0.0";
constexpr unsigned int kDefaultPort = 3170;
constexpr const char kDefaultContextRoot[] = "/cas";
constexpr const char kDefaultURILogin[] = "/login";
constexpr const char kDefaultURIServiceValidate[] = "/validate";

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

} // namespace Ldap
} // namespace KEL
