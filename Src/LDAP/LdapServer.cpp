// kelbase - Src/LDAP/LdapServer.cpp
//
// Directory server settings: the kinds of server, their defaults, the helpers on names and
// filters, and the XML form below config/authorization.
#define KEL_SOURCE_FILE "Src/LDAP"
#include <kel/Exceptions.h>
#include <kel/Ldap.h>
#include <kel/Misc.h>
#include <kel/Trace.h>

#include <cctype>
#include <cstring>
#include <strings.h>

namespace KEL {
namespace Ldap {

namespace {

const std::string g_strInternalName = "LANTERNBAY";
const std::string g_strReadOnlyPrivilege = "CN=AccessVolkeep,OU=Volkeep";
const std::string g_strReadWritePrivilege = "CN=ModifyRaidConfig,OU=Volkeep";

const char* const g_pszDefaultServer = "0.0.0.0";
const unsigned int g_uDefaultPort = 636;
const unsigned int g_uDefaultPortNonSecure = 389;
const char* const g_pszDefaultBaseDN = "DC=example,DC=com";
const char* const g_pszDefaultUserSearchBase = "OU=Users,DC=Users,DC=example,DC=com";
const char* const g_pszDefaultUserSearchFilter = "sAMAccountName=%u";
const char* const g_pszDefaultSuiteRDN = "OU=Tessel";

// The child elements of ldapServer, in the order WriteToXML writes them.
const char* const g_pszDomain = "domain";
const char* const g_pszServer = "server";
const char* const g_pszPort = "port";
const char* const g_pszNonSecure = "nonSecure";
const char* const g_pszPortNonSecure = "portNonSecure";
const char* const g_pszPrincipal = "securityPrincipal";
const char* const g_pszCredentials = "securityCredentials";
const char* const g_pszBaseDN = "baseDN";
const char* const g_pszSuiteRDN = "suiteRDN";
const char* const g_pszUserSearchBase = "userSearchBase";
const char* const g_pszUserSearchFilter = "userSearchFilter";

const char* const g_pszReadFromXML = "KEL::Ldap::CLDAPServer::ReadFromXML";
const char* const g_pszWriteToXML = "KEL::Ldap::CLDAPServer::WriteToXML";

// The element text of the first child named `name` (exact match); empty when there is none.
std::string ChildText(const XML::xml_node& node, const char* name) {
    return node.child(name).text().get();
}

// A port as written in the configuration: decimal digits only, 1 to 65535. Anything else
// leaves `port` as it was (an empty element without a trace: that is the documented default).
void ReadPort(const XML::xml_node& node, const char* name, unsigned int& port) {
    std::string text = ChildText(node, name);
    size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string::npos) return;
    size_t last = text.find_last_not_of(" \t\r\n");
    text = text.substr(first, last - first + 1);
    unsigned long value = 0;
    bool valid = text.size() <= 5;
    for (size_t i = 0; valid && i < text.size(); ++i) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        if (c < '0' || c > '9') valid = false;
        else value = value * 10 + (c - '0');
    }
    if (!valid || value == 0 || value > 65535) {
        KEL_TRACE(KEL::KEL_MODULE_INFO_KelLib, 0x40000000, g_pszReadFromXML,
                  "ReadFromXML: %s \"%s\" is not a port number, %d is used")
            << name << text << port;
        return;
    }
    port = static_cast<unsigned int>(value);
}

void ReadBool(const XML::xml_node& node, const char* name, bool& flag) {
    std::string text = ChildText(node, name);
    size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string::npos) return;
    size_t last = text.find_last_not_of(" \t\r\n");
    text = text.substr(first, last - first + 1);
    static const char* const yes[] = {"true", "1", "yes"};
    static const char* const no[] = {"false", "0", "no"};
    for (const char* word : yes)
        if (strcasecmp(text.c_str(), word) == 0 && std::strlen(word) == text.size()) {
            flag = true;
            return;
        }
    for (const char* word : no)
        if (strcasecmp(text.c_str(), word) == 0 && std::strlen(word) == text.size()) {
            flag = false;
            return;
        }
    KEL_TRACE(KEL::KEL_MODULE_INFO_KelLib, 0x40000000, g_pszReadFromXML,
              "ReadFromXML: %s \"%s\" is not a truth value, %s is used")
        << name << text << (flag ? "true" : "false");
}

// Sets `field` from the element text; an empty or missing element keeps the field as it is.
void ReadText(const XML::xml_node& node, const char* name, std::string& field) {
    std::string text = ChildText(node, name);
    if (!text.empty()) field = text;
}

// An empty value is an empty element, without an empty text node inside.
void AppendChild(XML::xml_node& parent, const char* name, const std::string& value) {
    XML::xml_node child = parent.append_child(name);
    if (!value.empty()) child.text().set(value.c_str());
}

} // namespace

// ---------------------------------------------------------------------------------------------
// The kinds of server

CLDAPServer::CLDAPServer()
    : m_strServer(g_pszDefaultServer), m_uPort(g_uDefaultPort), m_bNonSecure(false),
      m_uPortNonSecure(g_uDefaultPortNonSecure), m_strBaseDN(g_pszDefaultBaseDN),
      m_strUserSearchBase(g_pszDefaultUserSearchBase), m_strUserSearchFilter(g_pszDefaultUserSearchFilter),
      m_strSuiteRDN(g_pszDefaultSuiteRDN), m_strAuthorizationRoles("OU=AuthorizationRoles"),
      m_strPrivileges("OU=Privileges,OU=Declarations"), m_strRoleDeclarations("OU=AuthorizationRoles,OU=Declarations"),
      m_strDepartments("OU=Departments") {}

CLDAPServer::~CLDAPServer() {
    try {
        Disconnect();
    } catch (...) {
        // Only the trace entry can fail (memory); the connection is closed regardless.
    }
}

CLDAPServerInternal::CLDAPServerInternal() { m_strDomain = g_strInternalName; }

CLDAPServerExternal::CLDAPServerExternal() = default;

CLDAPServerUnspecified::CLDAPServerUnspecified() = default;

CLDAPServerInternalOnly::CLDAPServerInternalOnly() = default;

// ---------------------------------------------------------------------------------------------
// Names

const std::string& CLDAPServer::getInternalName() { return g_strInternalName; }

const char* CLDAPServer::getInternalNameChar() { return g_strInternalName.c_str(); }

bool CLDAPServer::isInternalLDAPDomain(const char* domain) {
    return domain != nullptr && strcasecmp(domain, g_strInternalName.c_str()) == 0;
}

bool CLDAPServer::isInternalLDAPDomain(const std::string& domain) {
    // A name with a NUL inside is not the internal name, whatever precedes the NUL.
    return domain.size() == g_strInternalName.size() && isInternalLDAPDomain(domain.c_str());
}

bool CLDAPServer::checkIsInternalOnly(const LDAPServerList& servers) { return servers.size() == 1; }

const std::string& CLDAPServerInternal::readOnlyPrivilegeCNGet() { return g_strReadOnlyPrivilege; }

const std::string& CLDAPServerInternal::readWritePrivilegeCNGet() { return g_strReadWritePrivilege; }

bool CLDAPServerInternal::HasReadOnlyPrivilege(const std::vector<std::string>& privileges) {
    for (const std::string& p : privileges)
        if (p.size() == g_strReadOnlyPrivilege.size() && strcasecmp(p.c_str(), g_strReadOnlyPrivilege.c_str()) == 0)
            return true;
    return false;
}

bool CLDAPServerInternal::HasReadWritePrivilege(const std::vector<std::string>& privileges) {
    for (const std::string& p : privileges)
        if (p.size() == g_strReadWritePrivilege.size() &&
            strcasecmp(p.c_str(), g_strReadWritePrivilege.c_str()) == 0)
            return true;
    return false;
}

std::string CLDAPServer::SuiteContainer(const std::string& name) const {
    std::string result = name;
    if (!m_strSuiteRDN.empty()) result += "," + m_strSuiteRDN;
    if (!m_strBaseDN.empty()) result += "," + m_strBaseDN;
    return result;
}

std::string CLDAPServer::ReplaceFormat(const std::string& text, const std::string& pattern,
                                       const std::string& replacement) {
    if (pattern.empty()) return text;
    size_t at = text.find(pattern);
    if (at == std::string::npos) return text;
    std::string result;
    result.reserve(text.size() - pattern.size() + replacement.size());
    result.append(text, 0, at).append(replacement).append(text, at + pattern.size(), std::string::npos);
    return result;
}

std::string CLDAPServer::EscapeFilterValue(const std::string& value) {
    static const char hex[] = "0123456789abcdef";
    std::string result;
    result.reserve(value.size());
    for (char ch : value) {
        switch (ch) {
        case '*':
        case '(':
        case ')':
        case '\\':
        case '\0': {
            unsigned char c = static_cast<unsigned char>(ch);
            result += '\\';
            result += hex[c >> 4];
            result += hex[c & 15];
            break;
        }
        default:
            result += ch;
        }
    }
    return result;
}

// ---------------------------------------------------------------------------------------------
// The XML form

LDAPServerList CLDAPServer::ReadFromXML(XML::xml_document& doc) {
    LDAPServerList servers;
    XML::xpath_node_set nodes = doc.select_nodes("/config/authorization/ldapServer");
    const size_t count = nodes.size();
    if (count > MAX_LDAP_SERVERS) {
        KEL_TRACE(KEL::KEL_MODULE_INFO_KelLib, 0x40000000, g_pszReadFromXML,
                  "ReadFromXML: %d ldapServer elements, only the first %d are used")
            << static_cast<unsigned int>(count) << MAX_LDAP_SERVERS;
    }
    for (size_t i = 0; i < count && i < MAX_LDAP_SERVERS; ++i) {
        XML::xml_node node = nodes[i].node();

        // The domain decides the kind of server, so it is read first; its element name is
        // matched without regard to case (older configurations wrote "Domain").
        std::string domain;
        for (XML::xml_node child = node.first_child(); child; child = child.next_sibling()) {
            if (child.type() == XML::node_element && strcasecmp(child.name(), g_pszDomain) == 0) {
                domain = child.text().get();
                break;
            }
        }

        LDAPServerPtr server;
        if (count == 1) {
            server.reset(new CLDAPServerInternalOnly);
            if (!domain.empty()) server->SetDomain(domain);
        } else if (isInternalLDAPDomain(domain)) {
            server.reset(new CLDAPServerInternal);
            server->SetDomain(g_strInternalName);
        } else {
            server.reset(new CLDAPServerExternal);
            server->SetDomain(domain);
        }

        CLDAPServer& s = *server;
        ReadText(node, g_pszServer, s.m_strServer);
        ReadPort(node, g_pszPort, s.m_uPort);
        ReadBool(node, g_pszNonSecure, s.m_bNonSecure);
        ReadPort(node, g_pszPortNonSecure, s.m_uPortNonSecure);
        s.m_strUserName = ChildText(node, g_pszPrincipal);
        s.m_strPassword = ChildText(node, g_pszCredentials);
        // The base DN is taken as written: empty means the directory's root, which is what
        // makes the plain "OU=Users" search base below meaningful.
        s.m_strBaseDN = ChildText(node, g_pszBaseDN);
        ReadText(node, g_pszSuiteRDN, s.m_strSuiteRDN);
        s.m_strUserSearchBase = ChildText(node, g_pszUserSearchBase);
        if (s.m_strUserSearchBase.empty())
            s.m_strUserSearchBase = s.m_strBaseDN.empty() ? std::string("OU=Users") : "OU=Users," + s.m_strBaseDN;
        ReadText(node, g_pszUserSearchFilter, s.m_strUserSearchFilter);
        servers.push_back(server);
    }
    return servers;
}

bool CLDAPServer::WriteToXML(const LDAPServerList& servers, XML::xml_document& doc) {
    XML::xml_node config = doc.select_node("/config").node();
    if (!config) {
        KEL_TRACE(KEL::KEL_MODULE_INFO_KelLib, 0x40000000, g_pszWriteToXML, "WriteToXML: no config element");
        return false;
    }
    if (servers.size() > MAX_LDAP_SERVERS) {
        KEL_TRACE(KEL::KEL_MODULE_INFO_KelLib, 0x40000000, g_pszWriteToXML,
                  "WriteToXML: %d servers, at most %d are allowed")
            << static_cast<unsigned int>(servers.size()) << MAX_LDAP_SERVERS;
        return false;
    }
    for (const LDAPServerPtr& server : servers) {
        if (!server) {
            KEL_TRACE(KEL::KEL_MODULE_INFO_KelLib, 0x40000000, g_pszWriteToXML, "WriteToXML: empty server entry");
            return false;
        }
    }

    while (XML::xml_node old = config.child("authorization")) config.remove_child(old);
    XML::xml_node authorization = config.append_child("authorization");
    for (const LDAPServerPtr& server : servers) {
        const CLDAPServer& s = *server;
        XML::xml_node node = authorization.append_child("ldapServer");
        AppendChild(node, g_pszDomain, s.m_strDomain);
        AppendChild(node, g_pszServer, s.m_strServer);
        AppendChild(node, g_pszPort, std::to_string(s.m_uPort));
        AppendChild(node, g_pszNonSecure, s.m_bNonSecure ? "true" : "false");
        AppendChild(node, g_pszPortNonSecure, std::to_string(s.m_uPortNonSecure));
        AppendChild(node, g_pszPrincipal, s.m_strUserName);
        AppendChild(node, g_pszCredentials, s.m_strPassword);
        AppendChild(node, g_pszBaseDN, s.m_strBaseDN);
        AppendChild(node, g_pszSuiteRDN, s.m_strSuiteRDN);
        AppendChild(node, g_pszUserSearchBase, s.m_strUserSearchBase);
        AppendChild(node, g_pszUserSearchFilter, s.m_strUserSearchFilter);
    }
    return true;
}

} // namespace Ldap
} // namespace KEL
