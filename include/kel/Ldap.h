// kelbase - Ldap.h
//
// Directory (LDAP) servers against which the suite authenticates users and looks up their
// rights (KEL::Ldap): the server settings kept in the suite's XML configuration below
// config/authorization, opening and binding a connection, finding a user's distinguished name,
// and the rights a user holds in the suite's own directory or the groups a member of a customer
// directory belongs to.
//
// Kinds of server (the class tree shares one CLDAPServer part through virtual bases):
//   CLDAPServerInternal      the suite's own directory, domain "LANTERNBAY"
//   CLDAPServerExternal      a customer directory
//   CLDAPServerInternalOnly  the only server of a configuration: both of the above
//   CLDAPServerUnspecified   a server whose kind is not known yet
//
// Connections: "ldaps://server:port" first (protocol version 3; the server's certificate is
// deliberately not verified and no client certificate is offered), then, only when nonSecure is
// set, plain "ldap://server:portNonSecure"; then a simple bind with the configured principal and
// credentials. Every network step is bounded by the server's time-out (DEFAULT_TIMEOUT_MS unless
// SetTimeout says otherwise): the TCP connect through the LDAP library's network time-out, the
// TLS handshake by a deadline that shuts the socket down (the library has no reliable bound of
// its own there), each bind or search through the library's operation time-out (and, for
// searches, the same limit in whole seconds asked of the server). A server that accepts the
// connection and then never answers makes Connect or a search fail after that time instead of
// hanging; a search that timed out or lost its server also closes the connection.
//
// Failures of connecting, binding and searching are reported by the result (false, 135, an
// empty name) and by trace entries of the library module (category 0x20000000 for the steps,
// 0x40000000 for failures); nothing here raises. A server object has no lock: its connection
// belongs to the caller that connected it.
//
// Searches (all with referrals off, so a customer directory cannot send us elsewhere):
//   FindUser                  below userSearchBase, whole subtree, userSearchFilter with "%u"
//                             replaced by the escaped user name, no attributes (names only),
//                             at most 2 entries asked for: one is the user, two mean ambiguous.
//   FindPrivilege             departments: below "OU=Departments,<suiteRDN>,<baseDN>", subtree,
//                             "(member=<user DN>)", names only; for each department "CN=x" the
//                             role group "CN=x,OU=AuthorizationRoles,<suiteRDN>,<baseDN>" is read
//                             on its own (base scope) with
//                             "(&(objectClass=*)(distinguishedName=<group DN>))" and the
//                             attributes "member" and "memberOf" (GetPrivileges); every value
//                             below the role declarations "OU=AuthorizationRoles,
//                             OU=Declarations,<suiteRDN>,<baseDN>" is an access role, every value
//                             below the privileges "OU=Privileges,OU=Declarations,<suiteRDN>,
//                             <baseDN>" a privilege. The directory's entries are expected to
//                             carry their own name in "distinguishedName", as Active Directory's
//                             do.
//   findMembersParentMembers  below baseDN, subtree, "(member=<DN>)", names only, for the member
//                             and then for each group found, each group visited once.
// Values put into a filter are escaped (RFC 4515), so a user name cannot widen a search.
#pragma once

#include <kel/Config.h>
#include <kel/Xml.h>

#include <boost/shared_ptr.hpp>

#include <map>
#include <string>
#include <vector>

struct ldap; // OpenLDAP's connection handle (LDAP)

namespace KEL {
namespace Ldap {

/// One entry of a search: its distinguished name and the values of the attributes asked for,
/// keyed by the attribute name in lower case.
struct LDAP_ENTRY {
    std::string dn;
    std::map<std::string, std::vector<std::string>> attributes;
};

/// Search scopes (the protocol's numbers).
enum SEARCH_SCOPE : int { SC_Base = 0, SC_OneLevel = 1, SC_Subtree = 2 };

class CLDAPServer;
using LDAPServerPtr = boost::shared_ptr<CLDAPServer>;
using LDAPServerList = std::vector<LDAPServerPtr>;

/// The settings of one directory server and its connection.
class KEL_API CLDAPServer {
public:
    /// The most servers a configuration holds. ReadFromXML uses the first MAX_LDAP_SERVERS
    /// ldapServer elements of a document and traces (0x40000000) that it left the others out;
    /// WriteToXML refuses a longer list and leaves the document unchanged.
    static constexpr unsigned int MAX_LDAP_SERVERS = 10;
    /// Bound of each network step, in milliseconds, for a new server object.
    static constexpr unsigned int DEFAULT_TIMEOUT_MS = 10000;

    CLDAPServer();
    virtual ~CLDAPServer();
    CLDAPServer(const CLDAPServer&) = delete;
    CLDAPServer& operator=(const CLDAPServer&) = delete;

    /// Which kind of directory this is: the suite's own (internal), a customer's (external),
    /// or the only server of a configuration, which is both (internal only).
    virtual bool isInternal() const { return false; }
    virtual bool isExternal() const { return false; }
    virtual bool isInternalOnly() const { return false; }

    /// The domain name of the suite's own directory: "LANTERNBAY".
    static const std::string& getInternalName();
    static const char* getInternalNameChar();
    /// Whether `domain` is the internal name, without regard to case (null is not).
    static bool isInternalLDAPDomain(const char* domain);
    static bool isInternalLDAPDomain(const std::string& domain);
    /// True exactly when `servers` holds one server.
    static bool checkIsInternalOnly(const LDAPServerList& servers);

    /// The servers of the "/config/authorization/ldapServer" elements of `doc`, in document
    /// order, at most MAX_LDAP_SERVERS. One element makes a CLDAPServerInternalOnly with the
    /// domain as written ("LANTERNBAY" when empty); with more, the internal domain makes a
    /// CLDAPServerInternal and any other a CLDAPServerExternal.
    /// Empty or missing elements keep the defaults; a port that is not a decimal number from 1 to
    /// 65535, or a nonSecure that is not true/false/1/0/yes/no, keeps its default and is traced.
    /// baseDN, securityPrincipal and securityCredentials are taken as written (empty when empty
    /// or missing: an empty base DN is the directory's root); an empty or missing userSearchBase
    /// becomes "OU=Users" or, with a base DN, "OU=Users,<baseDN>".
    static LDAPServerList ReadFromXML(XML::xml_document& doc);
    /// Replaces "config/authorization" of `doc` by one holding `servers`. False, with the
    /// document untouched, when "/config" is missing, the list holds a null entry or more than
    /// MAX_LDAP_SERVERS servers.
    static bool WriteToXML(const LDAPServerList& servers, XML::xml_document& doc);

    /// `text` with the first occurrence of `pattern` replaced by `replacement`; unchanged when
    /// the pattern is empty or absent.
    static std::string ReplaceFormat(const std::string& text, const std::string& pattern,
                                     const std::string& replacement);
    /// `value` with the characters that mean something in a search filter (RFC 4515: '*', '(',
    /// ')', '\\' and NUL) written as "\\2a", "\\28", "\\29", "\\5c" and "\\00".
    static std::string EscapeFilterValue(const std::string& value);

    /// Opens and binds the connection (see the header's introduction); true when bound or
    /// already connected. A configured user name with an empty password is refused without
    /// asking the server: such an "unauthenticated bind" proves nothing. Each attempt to open a
    /// connection runs a short-lived watcher thread for its TLS deadline.
    bool Connect();
    /// Unbinds and closes the connection, if one is open.
    void Disconnect();
    /// 1 when the server can be connected and bound, 135 (URET_ConnectFailed) otherwise,
    /// at once for the unconfigured server "0.0.0.0". Leaves no connection open behind it.
    unsigned int TestConnection();
    /// The distinguished name of the user whose name matches userSearchFilter below
    /// userSearchBase; empty when not connected, on failure, when no entry or more than one
    /// matches (an ambiguous user is no user), or for an empty user name.
    std::string FindUser(const std::string& user);

    /// One search on the open connection, with `filter` used as given (values from outside
    /// belong in it only through EscapeFilterValue): `entries` becomes the entries found, with
    /// the listed attributes (none given: all user attributes; "1.1": none). `sizeLimit` 0 asks
    /// for all; a search that reaches a size limit keeps what arrived. Returns the protocol's
    /// result code (0 success, 4 size limit), or -1 when not connected.
    int Search(const std::string& base, SEARCH_SCOPE scope, const std::string& filter,
               const std::vector<std::string>& attributes, std::vector<LDAP_ENTRY>& entries, int sizeLimit = 0);
    /// Reads the entry `dn` itself with the listed attributes; false when it cannot be read.
    bool GetAttributes(const std::string& dn, const std::vector<std::string>& attributes, LDAP_ENTRY& entry);

    bool GetConnected() const { return m_bConnected; }
    const std::string& GetDomain() const { return m_strDomain; }
    void SetDomain(const std::string& value) { m_strDomain = value; }
    const std::string& GetServer() const { return m_strServer; }
    void SetServer(const std::string& value) { m_strServer = value; }
    unsigned int GetPortNumber() const { return m_uPort; }
    void SetPortNumber(unsigned int value) { m_uPort = value; }
    bool GetNonSecure() const { return m_bNonSecure; }
    void SetNonSecure(bool value) { m_bNonSecure = value; }
    unsigned int GetPortNumberNonSecure() const { return m_uPortNonSecure; }
    void SetPortNumberNonSecure(unsigned int value) { m_uPortNonSecure = value; }
    const std::string& GetUsername() const { return m_strUserName; }
    void SetUserName(const std::string& value) { m_strUserName = value; }
    const std::string& GetPassword() const { return m_strPassword; }
    void SetPassword(const std::string& value) { m_strPassword = value; }
    /// Default "DC=example,DC=com", a placeholder (RFC 2606's example domain) that names no
    /// real directory.
    const std::string& GetBaseDN() const { return m_strBaseDN; }
    void SetBaseDN(const std::string& value) { m_strBaseDN = value; }
    /// Default "OU=Users,DC=Users,DC=example,DC=com", a placeholder below "DC=Users".
    const std::string& GetUserSearchBase() const { return m_strUserSearchBase; }
    void SetUserSearchBase(const std::string& value) { m_strUserSearchBase = value; }
    /// Default "sAMAccountName=%u"; "%u" stands for the user name (first occurrence only).
    const std::string& GetUserSearchFilter() const { return m_strUserSearchFilter; }
    void SetUserSearchFilter(const std::string& value) { m_strUserSearchFilter = value; }
    /// Default "OU=Tessel": the suite's container below baseDN.
    const std::string& GetSuiteRDN() const { return m_strSuiteRDN; }
    void SetSuiteRDN(const std::string& value) { m_strSuiteRDN = value; }
    /// Bound of each network step in milliseconds (not kept in the XML form); 0 counts as 1.
    unsigned int GetTimeout() const { return m_uTimeoutMs; }
    void SetTimeout(unsigned int milliseconds) { m_uTimeoutMs = milliseconds; }

protected:
    /// "<name>,<suiteRDN>,<baseDN>": a container of the suite's part of the directory.
    std::string SuiteContainer(const std::string& name) const;

    bool m_bConnected = false;
    ::ldap* m_pHandle = nullptr;
    std::string m_strDomain;
    std::string m_strServer;
    unsigned int m_uPort;
    bool m_bNonSecure;
    unsigned int m_uPortNonSecure;
    std::string m_strUserName;
    std::string m_strPassword;
    std::string m_strBaseDN;
    std::string m_strUserSearchBase;
    std::string m_strUserSearchFilter;
    std::string m_strSuiteRDN;
    const std::string m_strAuthorizationRoles;
    const std::string m_strPrivileges;
    const std::string m_strRoleDeclarations;
    const std::string m_strDepartments;
    unsigned int m_uTimeoutMs = DEFAULT_TIMEOUT_MS;
};

/// The suite's own directory: its domain is "LANTERNBAY" and it answers for users' rights.
class KEL_API CLDAPServerInternal : public virtual CLDAPServer {
public:
    CLDAPServerInternal();
    bool isInternal() const override { return true; }

    /// The privilege group of read-only access, relative to the privileges container:
    /// "CN=AccessVolkeep,OU=Volkeep".
    static const std::string& readOnlyPrivilegeCNGet();
    /// The privilege group of read-write access: "CN=ModifyRaidConfig,OU=Volkeep".
    static const std::string& readWritePrivilegeCNGet();

    /// The access role and privileges of the user `userDn` (see the header's introduction).
    /// `accessRole` gets the first role found, relative to the role declarations container
    /// (as "CN=Administrator"); `privileges` every privilege once, relative to the privileges
    /// container (as readOnlyPrivilegeCNGet()), in the order found. True when an access role was
    /// found; false when not connected, on a failed search, or without a role.
    bool FindPrivilege(const std::string& userDn, std::string& accessRole, std::vector<std::string>& privileges);
    /// Reads the role group `groupDn` (base scope, the group's own name as filter, attributes
    /// "member" and "memberOf") and adds what it grants: `accessRole` gets the first role when
    /// it is still empty, `privileges` each privilege it does not hold yet (compared without
    /// regard to case). Returns the protocol's result code (0 success, 32 no such group), or -1
    /// when not connected.
    int GetPrivileges(const std::string& groupDn, std::string& accessRole, std::vector<std::string>& privileges);
    /// Whether `privileges` (from FindPrivilege) holds the read-only or the read-write group,
    /// compared without regard to case.
    static bool HasReadOnlyPrivilege(const std::vector<std::string>& privileges);
    static bool HasReadWritePrivilege(const std::vector<std::string>& privileges);
};

/// A customer directory: it answers which groups a member belongs to.
class KEL_API CLDAPServerExternal : public virtual CLDAPServer {
public:
    CLDAPServerExternal();
    bool isExternal() const override { return true; }

    /// The groups `memberDn` belongs to, directly and through groups that are members of other
    /// groups, each once, nearest first. Cyclic membership ends where a group was already seen;
    /// at most MAX_PARENT_GROUPS groups are followed. False when not connected or a search failed
    /// (`groups` then holds what was found before).
    bool findMembersParentMembers(const std::string& memberDn, std::vector<std::string>& groups);
    static constexpr unsigned int MAX_PARENT_GROUPS = 1000;
};

/// A server whose kind is not known yet.
class KEL_API CLDAPServerUnspecified : public virtual CLDAPServer {
public:
    CLDAPServerUnspecified();
};

/// The only server of a configuration: the suite's directory and the customer's at once.
class KEL_API CLDAPServerInternalOnly : public CLDAPServerInternal, public CLDAPServerExternal {
public:
    CLDAPServerInternalOnly();
    bool isInternal() const override { return true; }
    bool isExternal() const override { return true; }
    bool isInternalOnly() const override { return true; }
};

} // namespace Ldap
} // namespace KEL
