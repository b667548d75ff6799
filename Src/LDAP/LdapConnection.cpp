// kelbase - Src/LDAP/LdapConnection.cpp
//
// Connections to a directory server through OpenLDAP's client library, and the searches on
// them: finding users, the rights of a user in the suite's directory, and the groups of a
// member of a customer directory.
#define KEL_SOURCE_FILE "Src/LDAP"
#include <kel/Exceptions.h>
#include <kel/Ldap.h>
#include <kel/Misc.h>
#include <kel/Trace.h>

#include "Posix/SigPipeGuard.h"
#include "Posix/SocketDeadline.h"

#include <ldap.h>

#include <algorithm>
#include <cctype>
#include <deque>
#include <set>
#include <sys/time.h>
#include <system_error>

namespace KEL {
namespace Ldap {

namespace {

using Internals::Posix::CSigPipeGuard;
using Internals::Posix::CSocketDeadline;

const char* const g_pszConnect = "KEL::Ldap::CLDAPServer::Connect";
const char* const g_pszDisconnect = "KEL::Ldap::CLDAPServer::Disconnect";
const char* const g_pszFindUser = "KEL::Ldap::CLDAPServer::FindUser";
const char* const g_pszSearch = "KEL::Ldap::CLDAPServer::Search";
const char* const g_pszFindPrivilege = "KEL::Ldap::CLDAPServerInternal::FindPrivilege";
const char* const g_pszParents = "KEL::Ldap::CLDAPServerExternal::findMembersParentMembers";

timeval ToTimeval(unsigned int milliseconds) {
    if (milliseconds == 0) milliseconds = 1;
    timeval tv;
    tv.tv_sec = static_cast<time_t>(milliseconds / 1000);
    tv.tv_usec = static_cast<suseconds_t>((milliseconds % 1000) * 1000);
    return tv;
}

// "ldap[s]://host:port"; an IPv6 address goes in brackets.
std::string MakeUri(const char* scheme, const std::string& server, unsigned int port) {
    std::string host = server;
    if (host.find(':') != std::string::npos && host.front() != '[') host = "[" + host + "]";
    return std::string(scheme) + "://" + host + ":" + std::to_string(port);
}

// The deadline of the connection being opened on this thread. The library announces each
// new socket through the connection callbacks below, on the thread that connects.
thread_local CSocketDeadline* t_pDeadline = nullptr;

int OnSocketAdded(LDAP*, Sockbuf* sb, LDAPURLDesc*, sockaddr*, ldap_conncb*) {
    ber_socket_t fd = -1;
    if (t_pDeadline != nullptr && ber_sockbuf_ctrl(sb, LBER_SB_OPT_GET_FD, &fd) == 1 && fd >= 0)
        t_pDeadline->Watch(fd);
    return 0;
}

void OnSocketRemoved(LDAP*, Sockbuf*, ldap_conncb*) {
    if (t_pDeadline != nullptr) t_pDeadline->Unwatch();
}

ldap_conncb g_ConnectCallbacks = {&OnSocketAdded, &OnSocketRemoved, nullptr};

// Opens one connection (TCP and, for ldaps, the TLS handshake) without binding it; null on
// failure, with the handle already released. The library bounds the TCP connect by its network
// time-out but not a TLS handshake that never gets an answer: the whole step runs under a
// socket deadline of the same length.
LDAP* OpenHandle(const std::string& uri, bool tls, unsigned int timeoutMs) {
    LDAP* ld = nullptr;
    if (ldap_initialize(&ld, uri.c_str()) != LDAP_SUCCESS || ld == nullptr) return nullptr;
    const int version = LDAP_VERSION3;
    const timeval tv = ToTimeval(timeoutMs);
    bool ok = ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version) == LDAP_OPT_SUCCESS &&
              ldap_set_option(ld, LDAP_OPT_REFERRALS, LDAP_OPT_OFF) == LDAP_OPT_SUCCESS &&
              ldap_set_option(ld, LDAP_OPT_NETWORK_TIMEOUT, &tv) == LDAP_OPT_SUCCESS &&
              ldap_set_option(ld, LDAP_OPT_TIMEOUT, &tv) == LDAP_OPT_SUCCESS &&
              ldap_set_option(ld, LDAP_OPT_CONNECT_CB, &g_ConnectCallbacks) == LDAP_OPT_SUCCESS;
    if (ok && tls) {
        // The suite's directories are reached by address and commonly carry self-signed
        // certificates: the server's certificate is accepted unverified, and none of ours is
        // offered. The handle gets its own TLS context so these settings stay with it.
        const int never = LDAP_OPT_X_TLS_NEVER;
        const int isServer = 0;
        ok = ldap_set_option(ld, LDAP_OPT_X_TLS_REQUIRE_CERT, &never) == LDAP_OPT_SUCCESS &&
             ldap_set_option(ld, LDAP_OPT_X_TLS_NEWCTX, &isServer) == LDAP_OPT_SUCCESS;
    }
    if (ok) {
        try {
            CSocketDeadline deadline(std::max(timeoutMs, 1u));
            t_pDeadline = &deadline;
            ok = ldap_connect(ld) == LDAP_SUCCESS && !deadline.Expired();
            deadline.Unwatch();
            t_pDeadline = nullptr;
        } catch (const std::system_error&) {
            t_pDeadline = nullptr;
            ok = false; // no thread for the deadline: an unbounded connect is not started
        }
    }
    if (!ok) {
        ldap_unbind_ext_s(ld, nullptr, nullptr);
        return nullptr;
    }
    return ld;
}

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// The canonical string form of a DN (spacing and escapes as LDAPv3 writes them); the text as
// given when it is not a valid DN.
std::string NormalizeDN(const std::string& dn) {
    char* out = nullptr;
    if (ldap_dn_normalize(dn.c_str(), LDAP_DN_FORMAT_LDAP, &out, LDAP_DN_FORMAT_LDAPV3) != LDAP_SUCCESS ||
        out == nullptr)
        return dn;
    std::string result(out);
    ldap_memfree(out);
    return result;
}

// Position of the first RDN separator (an unescaped ','), or npos.
size_t FirstSeparator(const std::string& dn) {
    for (size_t i = 0; i < dn.size(); ++i) {
        if (dn[i] == '\\') ++i;
        else if (dn[i] == ',') return i;
    }
    return std::string::npos;
}

// When `dn` lies below `container` (compared without regard to case, after normalising both),
// `relative` gets the part of `dn` above it and the result is true.
bool BelowContainer(const std::string& dn, const std::string& container, std::string& relative) {
    const std::string d = NormalizeDN(dn);
    const std::string c = NormalizeDN(container);
    if (c.empty() || d.size() <= c.size() + 1) return false;
    const size_t at = d.size() - c.size();
    if (d[at - 1] != ',' || Lower(d.substr(at)) != Lower(c)) return false;
    // The ',' must separate RDNs, not stand escaped inside a value.
    if (FirstSeparator(d.substr(at - 1)) != 0) return false;
    size_t backslashes = 0;
    for (size_t i = at - 1; i > 0 && d[i - 1] == '\\'; --i) ++backslashes;
    if (backslashes % 2 != 0) return false;
    relative = d.substr(0, at - 1);
    return true;
}

std::string WithParentheses(const std::string& filter) {
    if (!filter.empty() && filter.front() == '(') return filter;
    return "(" + filter + ")";
}

} // namespace

// ---------------------------------------------------------------------------------------------
// Connection

bool CLDAPServer::Connect() {
    if (m_bConnected && m_pHandle != nullptr) return true;
    CSigPipeGuard noSigPipe;
    KEL_TRACE(KEL::KEL_MODULE_INFO_KelLib, 0x20000000, g_pszConnect, "Open connection %s:%d")
        << m_strServer << m_uPort;
    LDAP* ld = OpenHandle(MakeUri("ldaps", m_strServer, m_uPort), true, m_uTimeoutMs);
    if (ld == nullptr) {
        if (!m_bNonSecure) {
            KEL_TRACE(KEL::KEL_MODULE_INFO_KelLib, 0x40000000, g_pszConnect, "Open connection failed");
            return false;
        }
        KEL_TRACE(KEL::KEL_MODULE_INFO_KelLib, 0x20000000, g_pszConnect, "Open connection %s:%d")
            << m_strServer << m_uPortNonSecure;
        ld = OpenHandle(MakeUri("ldap", m_strServer, m_uPortNonSecure), false, m_uTimeoutMs);
        if (ld == nullptr) {
            KEL_TRACE(KEL::KEL_MODULE_INFO_KelLib, 0x40000000, g_pszConnect, "Open connection failed");
            return false;
        }
    }
    KEL_TRACE(KEL::KEL_MODULE_INFO_KelLib, 0x20000000, g_pszConnect, "Connection established");

    int rc;
    if (!m_strUserName.empty() && m_strPassword.empty()) {
        // An unauthenticated bind (name without password) succeeds on some servers without
        // checking anything; it must never count as a successful bind.
        rc = LDAP_INAPPROPRIATE_AUTH;
    } else {
        berval credentials;
        credentials.bv_val = const_cast<char*>(m_strPassword.data());
        credentials.bv_len = m_strPassword.size();
        rc = ldap_sasl_bind_s(ld, m_strUserName.empty() ? nullptr : m_strUserName.c_str(), LDAP_SASL_SIMPLE,
                              &credentials, nullptr, nullptr, nullptr);
    }
    if (rc != LDAP_SUCCESS) {
        KEL_TRACE(KEL::KEL_MODULE_INFO_KelLib, 0x40000000, g_pszConnect, "Bind failed with error code %d") << rc;
        ldap_unbind_ext_s(ld, nullptr, nullptr);
        return false;
    }
    KEL_TRACE(KEL::KEL_MODULE_INFO_KelLib, 0x20000000, g_pszConnect, "Bind successful");
    m_pHandle = ld;
    m_bConnected = true;
    return true;
}

void CLDAPServer::Disconnect() {
    m_bConnected = false;
    if (m_pHandle == nullptr) return;
    // The handle is released when this scope ends, after the trace entry, even when writing
    // the entry fails.
    struct CUnbind {
        LDAP* ld;
        ~CUnbind() {
            CSigPipeGuard noSigPipe;
            ldap_unbind_ext_s(ld, nullptr, nullptr);
        }
    } unbind{m_pHandle};
    m_pHandle = nullptr;
    KEL_TRACE(KEL::KEL_MODULE_INFO_KelLib, 0x20000000, g_pszDisconnect, "call ldap_unbind_s");
}

unsigned int CLDAPServer::TestConnection() {
    if (m_strServer == "0.0.0.0") return URET_ConnectFailed;
    if (!Connect()) return URET_ConnectFailed;
    Disconnect();
    return URET_Ok;
}

// ---------------------------------------------------------------------------------------------
// Searches

int CLDAPServer::Search(const std::string& base, SEARCH_SCOPE scope, const std::string& filter,
                        const std::vector<std::string>& attributes, std::vector<LDAP_ENTRY>& entries, int sizeLimit) {
    entries.clear();
    if (m_pHandle == nullptr) return -1;
    CSigPipeGuard noSigPipe;
    std::vector<char*> names;
    for (const std::string& a : attributes) names.push_back(const_cast<char*>(a.c_str()));
    names.push_back(nullptr);
    // The library passes this bound to the server as the search's time limit too (in whole
    // seconds, rounded up), so the server stops working when the client stops waiting.
    timeval tv = ToTimeval(m_uTimeoutMs);
    LDAPMessage* result = nullptr;
    int rc = ldap_search_ext_s(m_pHandle, base.c_str(), scope, filter.c_str(),
                               attributes.empty() ? nullptr : names.data(), 0, nullptr, nullptr, &tv,
                               std::max(sizeLimit, 0), &result);
    if (result != nullptr) {
        for (LDAPMessage* e = ldap_first_entry(m_pHandle, result); e != nullptr; e = ldap_next_entry(m_pHandle, e)) {
            LDAP_ENTRY entry;
            if (char* dn = ldap_get_dn(m_pHandle, e)) {
                entry.dn = dn;
                ldap_memfree(dn);
            }
            BerElement* ber = nullptr;
            for (char* a = ldap_first_attribute(m_pHandle, e, &ber); a != nullptr;
                 a = ldap_next_attribute(m_pHandle, e, ber)) {
                std::vector<std::string>& values = entry.attributes[Lower(a)];
                if (berval** v = ldap_get_values_len(m_pHandle, e, a)) {
                    for (berval** p = v; *p != nullptr; ++p) values.emplace_back((*p)->bv_val, (*p)->bv_len);
                    ldap_value_free_len(v);
                }
                ldap_memfree(a);
            }
            if (ber != nullptr) ber_free(ber, 0);
            entries.push_back(std::move(entry));
        }
        ldap_msgfree(result);
    }
    if (rc != LDAP_SUCCESS && rc != LDAP_SIZELIMIT_EXCEEDED) {
        KEL_TRACE(KEL::KEL_MODULE_INFO_KelLib, 0x40000000, g_pszSearch, "Search below %s with %s failed with error code %d")
            << base << filter << rc;
        // A connection that timed out or broke may still deliver a late answer or none at all:
        // it is not used again.
        if (rc == LDAP_SERVER_DOWN || rc == LDAP_TIMEOUT || rc == LDAP_CONNECT_ERROR) Disconnect();
    }
    return rc;
}

bool CLDAPServer::GetAttributes(const std::string& dn, const std::vector<std::string>& attributes, LDAP_ENTRY& entry) {
    std::vector<LDAP_ENTRY> entries;
    int rc = Search(dn, SC_Base, "(objectClass=*)", attributes, entries, 1);
    if (rc != LDAP_SUCCESS || entries.size() != 1) return false;
    entry = std::move(entries.front());
    return true;
}

std::string CLDAPServer::FindUser(const std::string& user) {
    const std::string base = m_strUserSearchBase;
    const std::string filter = WithParentheses(ReplaceFormat(m_strUserSearchFilter, "%u", EscapeFilterValue(user)));
    KEL_TRACE(KEL::KEL_MODULE_INFO_KelLib, 0x20000000, g_pszFindUser, "FindUser: userSearchBase = %s") << base;
    KEL_TRACE(KEL::KEL_MODULE_INFO_KelLib, 0x20000000, g_pszFindUser, "FindUser: userSearchFilter = %s") << filter;
    if (user.empty() || m_pHandle == nullptr) return std::string();
    std::vector<LDAP_ENTRY> entries;
    // Two entries are enough to know that a name is ambiguous.
    int rc = Search(base, SC_Subtree, filter, {LDAP_NO_ATTRS}, entries, 2);
    KEL_TRACE(KEL::KEL_MODULE_INFO_KelLib, 0x20000000, g_pszFindUser, "FindUser: found %d user entries")
        << static_cast<unsigned int>(entries.size());
    if ((rc != LDAP_SUCCESS && rc != LDAP_SIZELIMIT_EXCEEDED) || entries.size() != 1) return std::string();
    return entries.front().dn;
}

bool CLDAPServerInternal::FindPrivilege(const std::string& userDn, std::string& accessRole,
                                        std::vector<std::string>& privileges) {
    accessRole.clear();
    privileges.clear();
    if (m_pHandle == nullptr || userDn.empty()) return false;

    const std::string departmentsBase = SuiteContainer(m_strDepartments);
    const std::string departmentsFilter = "(member=" + EscapeFilterValue(userDn) + ")";
    KEL_TRACE(KEL::KEL_MODULE_INFO_KelLib, 0x20000000, g_pszFindPrivilege,
              "FindPrivilege: departmentsSearchBase = %s")
        << departmentsBase;
    KEL_TRACE(KEL::KEL_MODULE_INFO_KelLib, 0x20000000, g_pszFindPrivilege,
              "FindPrivilege: departmentsSearchFilter = %s")
        << departmentsFilter;
    std::vector<LDAP_ENTRY> departments;
    int rc = Search(departmentsBase, SC_Subtree, departmentsFilter, {LDAP_NO_ATTRS}, departments);
    KEL_TRACE(KEL::KEL_MODULE_INFO_KelLib, 0x20000000, g_pszFindPrivilege,
              "FindPrivilege: found %d department entries")
        << static_cast<unsigned int>(departments.size());
    if (rc != LDAP_SUCCESS) return false;

    for (const LDAP_ENTRY& department : departments) {
        const std::string dn = NormalizeDN(department.dn);
        const std::string rdn = dn.substr(0, FirstSeparator(dn));
        std::string groupDn = rdn + "," + m_strAuthorizationRoles;
        if (!m_strSuiteRDN.empty()) groupDn += "," + m_strSuiteRDN;
        if (!m_strBaseDN.empty()) groupDn += "," + m_strBaseDN;
        KEL_TRACE(KEL::KEL_MODULE_INFO_KelLib, 0x20000000, g_pszFindPrivilege, "FindPrivilege: group dn = %s")
            << groupDn;

        rc = GetPrivileges(groupDn, accessRole, privileges);
        if (rc == LDAP_NO_SUCH_OBJECT) continue; // a department without a role grants nothing
        if (rc != LDAP_SUCCESS) return false;
    }
    KEL_TRACE(KEL::KEL_MODULE_INFO_KelLib, 0x20000000, g_pszFindPrivilege, "FindPrivilege: found %d privileges")
        << static_cast<unsigned int>(privileges.size());
    KEL_TRACE(KEL::KEL_MODULE_INFO_KelLib, 0x20000000, g_pszFindPrivilege, "FindPrivilege: accessRole = %s")
        << accessRole;
    for (size_t i = 0; i < privileges.size(); ++i)
        KEL_TRACE(KEL::KEL_MODULE_INFO_KelLib, 0x20000000, g_pszFindPrivilege, "FindPrivilege: privilege[%d] = %s")
            << static_cast<unsigned int>(i) << privileges[i];
    return !accessRole.empty();
}

int CLDAPServerInternal::GetPrivileges(const std::string& groupDn, std::string& accessRole,
                                       std::vector<std::string>& privileges) {
    std::vector<LDAP_ENTRY> groups;
    const std::string filter = "(&(objectClass=*)(distinguishedName=" + EscapeFilterValue(groupDn) + "))";
    const int rc = Search(groupDn, SC_Base, filter, {"member", "memberOf"}, groups, 1);
    if (rc != LDAP_SUCCESS) return rc;
    const std::string roleDeclarations = SuiteContainer(m_strRoleDeclarations);
    const std::string privilegeContainer = SuiteContainer(m_strPrivileges);
    std::set<std::string> seen;
    for (const std::string& p : privileges) seen.insert(Lower(p));
    for (const LDAP_ENTRY& group : groups) {
        for (const char* attribute : {"member", "memberof"}) {
            auto values = group.attributes.find(attribute);
            if (values == group.attributes.end()) continue;
            for (const std::string& value : values->second) {
                std::string relative;
                if (BelowContainer(value, roleDeclarations, relative)) {
                    if (accessRole.empty()) accessRole = relative;
                } else if (BelowContainer(value, privilegeContainer, relative)) {
                    if (seen.insert(Lower(relative)).second) privileges.push_back(relative);
                }
            }
        }
    }
    return rc;
}

bool CLDAPServerExternal::findMembersParentMembers(const std::string& memberDn, std::vector<std::string>& groups) {
    groups.clear();
    if (m_pHandle == nullptr || memberDn.empty()) return false;
    // Membership is followed breadth first; a group already seen (compared by its normalised
    // name without regard to case) is not searched again, which ends cycles.
    std::set<std::string> seen{Lower(NormalizeDN(memberDn))};
    std::deque<std::string> pending{memberDn};
    while (!pending.empty() && groups.size() < MAX_PARENT_GROUPS) {
        const std::string member = pending.front();
        pending.pop_front();
        std::vector<LDAP_ENTRY> parents;
        int rc = Search(m_strBaseDN, SC_Subtree, "(member=" + EscapeFilterValue(member) + ")", {LDAP_NO_ATTRS},
                        parents);
        if (rc != LDAP_SUCCESS) return false;
        for (const LDAP_ENTRY& parent : parents) {
            if (!seen.insert(Lower(NormalizeDN(parent.dn))).second) continue;
            if (groups.size() >= MAX_PARENT_GROUPS) {
                KEL_TRACE(KEL::KEL_MODULE_INFO_KelLib, 0x40000000, g_pszParents,
                          "findMembersParentMembers: more than %d groups, the rest is left out")
                    << MAX_PARENT_GROUPS;
                break;
            }
            groups.push_back(parent.dn);
            pending.push_back(parent.dn);
        }
    }
    return true;
}

} // namespace Ldap
} // namespace KEL
