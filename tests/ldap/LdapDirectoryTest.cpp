// kelbase - tests/ldap/LdapDirectoryTest.cpp
//
// Connections and look-ups against a private slapd (Slapd.cpp): binding over TLS and plain,
// the fallback rules, silent servers, users, filter injection, privileges and nested groups.
#include <kel/kelbase.h>

#include "Slapd.h"
#include "../common/TestUtil.h"
#include "../common/TraceCapture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace KEL::Ldap;
using KelTest::CSlapd;

namespace {

// A loopback listener that takes connections into its backlog and never answers them.
class CSilentListener {
public:
    CSilentListener() {
        m_nFd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof a;
        if (m_nFd >= 0 && bind(m_nFd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 && listen(m_nFd, 8) == 0 &&
            getsockname(m_nFd, reinterpret_cast<sockaddr*>(&a), &len) == 0)
            m_uPort = ntohs(a.sin_port);
    }
    ~CSilentListener() {
        if (m_nFd >= 0) close(m_nFd);
    }
    unsigned int Port() const { return m_uPort; }
    int Fd() const { return m_nFd; }
    /// Whether anyone connected (a connection is waiting to be accepted).
    bool WasContacted() const {
        pollfd p{m_nFd, POLLIN, 0};
        return poll(&p, 1, 0) == 1;
    }

private:
    int m_nFd = -1;
    unsigned int m_uPort = 0;
};

// A plain LDAP server that accepts one connection, answers its bind with success and then
// never answers again.
class CBindOnlyServer {
public:
    CBindOnlyServer() : m_Thread([this] { Serve(); }) {}
    ~CBindOnlyServer() {
        m_bStop = true;
        shutdown(m_Listener.Fd(), SHUT_RDWR);
        m_Thread.join();
    }
    unsigned int Port() const { return m_Listener.Port(); }

private:
    void Serve() {
        pollfd p{m_Listener.Fd(), POLLIN, 0};
        while (!m_bStop && poll(&p, 1, 50) == 0) {
        }
        if (m_bStop) return;
        int fd = accept(m_Listener.Fd(), nullptr, nullptr);
        if (fd < 0) return;
        unsigned char request[512];
        ssize_t n = recv(fd, request, sizeof request, 0);
        // LDAPMessage ::= SEQUENCE { messageID INTEGER, bindRequest ... }: find the message id.
        size_t at = (n > 2 && (request[1] & 0x80)) ? 2 + (request[1] & 0x7F) : 2;
        if (n > static_cast<ssize_t>(at + 2) && request[at] == 0x02 && request[at + 1] == 1) {
            const unsigned char response[] = {0x30, 0x0c, 0x02, 0x01, request[at + 2], 0x61, 0x07,
                                              0x0a, 0x01, 0x00, 0x04, 0x00, 0x04, 0x00};
            (void)!send(fd, response, sizeof response, MSG_NOSIGNAL);
        }
        while (!m_bStop) {
            pollfd q{fd, POLLIN, 0};
            if (poll(&q, 1, 50) == 1 && recv(fd, request, sizeof request, 0) <= 0) break;
        }
        close(fd);
    }

    CSilentListener m_Listener;
    std::atomic<bool> m_bStop{false};
    std::thread m_Thread;
};

// Runs `body` on another thread and fails the test if it does not end within a minute: a
// hang guard only, far beyond every time-out under test.
template <class F>
auto WithinAMinute(F body) -> decltype(body()) {
    auto result = std::async(std::launch::async, body);
    if (result.wait_for(std::chrono::seconds(60)) != std::future_status::ready) {
        ADD_FAILURE() << "the call did not return within a minute";
        std::abort(); // the call still runs; nothing sensible can follow
    }
    return result.get();
}

bool SameText(const std::string& a, const std::string& b) {
    return a.size() == b.size() && strcasecmp(a.c_str(), b.c_str()) == 0;
}

} // namespace

class LdapDirectory : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        s_pSlapd = new CSlapd;
        if (!s_pSlapd->Start(s_strWhy)) {
            delete s_pSlapd;
            s_pSlapd = nullptr;
        }
    }
    static void TearDownTestSuite() {
        delete s_pSlapd;
        s_pSlapd = nullptr;
    }
    void SetUp() override {
        if (s_pSlapd == nullptr) GTEST_SKIP() << "no test directory server: " << s_strWhy;
    }

    // A server of the given kind pointed at the test slapd, bound as Alice.
    template <class T = CLDAPServerInternalOnly>
    std::unique_ptr<T> Server(const char* base = CSlapd::kInternalBase) {
        std::unique_ptr<T> s(new T);
        s->SetServer("127.0.0.1");
        s->SetPortNumber(s_pSlapd->TlsPort());
        s->SetPortNumberNonSecure(s_pSlapd->PlainPort());
        s->SetUserName(CSlapd::kAlice);
        s->SetPassword(CSlapd::kAlicePassword);
        s->SetBaseDN(base);
        s->SetUserSearchBase(std::string("ou=Users,") + base);
        return s;
    }

    static CSlapd* s_pSlapd;
    static std::string s_strWhy;
};

CSlapd* LdapDirectory::s_pSlapd = nullptr;
std::string LdapDirectory::s_strWhy;

// ---------------------------------------------------------------------------------------------
// Connecting and binding

TEST_F(LdapDirectory, BindsOverTlsWithTheRightPasswordAndTracesEachStep) {
    kel_test::CTraceCapture trace(0x60000000u, true);
    auto s = Server();
    ASSERT_TRUE(s->Connect());
    EXPECT_TRUE(s->GetConnected());
    EXPECT_TRUE(s->Connect()); // already connected: nothing new
    EXPECT_EQ(trace.CountExact("Open connection 127.0.0.1:" + std::to_string(s_pSlapd->TlsPort())), 1u);
    EXPECT_TRUE(trace.Has("Connection established"));
    EXPECT_TRUE(trace.Has("Bind successful"));
    EXPECT_TRUE(trace.FromFunction("KEL::Ldap::CLDAPServer::Connect"));
    s->Disconnect();
    EXPECT_FALSE(s->GetConnected());
    EXPECT_TRUE(trace.Has("call ldap_unbind_s"));
    s->Disconnect(); // twice is harmless
    EXPECT_EQ(trace.CountExact("call ldap_unbind_s"), 1u);
    EXPECT_EQ(s->TestConnection(), 1u);
    EXPECT_FALSE(s->GetConnected());
}

TEST_F(LdapDirectory, WrongPasswordFailsTheBindWithItsErrorCode) {
    kel_test::CTraceCapture trace(0x60000000u, true);
    auto s = Server();
    s->SetPassword("wrong");
    EXPECT_FALSE(s->Connect());
    EXPECT_FALSE(s->GetConnected());
    EXPECT_TRUE(trace.Has("Connection established"));
    EXPECT_TRUE(trace.Has("Bind failed with error code 49")); // invalid credentials
    EXPECT_EQ(s->TestConnection(), 135u);
}

TEST_F(LdapDirectory, NameWithoutPasswordIsRefusedWhileAnonymousBindWorks) {
    auto s = Server();
    s->SetPassword("");
    EXPECT_FALSE(s->Connect());
    s->SetUserName("");
    EXPECT_TRUE(s->Connect());
}

TEST_F(LdapDirectory, ServerDownAndUnconfiguredServerFail) {
    kel_test::CTraceCapture trace(0x60000000u, true);
    auto s = Server();
    s->SetPortNumber(kel_test::FreePort());
    s->SetNonSecure(true);
    s->SetPortNumberNonSecure(kel_test::FreePort());
    EXPECT_EQ(s->TestConnection(), 135u);
    EXPECT_TRUE(trace.Has("Open connection failed"));
    EXPECT_FALSE(trace.Has("Connection established"));

    kel_test::CTraceCapture quiet(0x60000000u, true);
    CLDAPServerExternal unconfigured;
    EXPECT_EQ(unconfigured.TestConnection(), 135u);
    EXPECT_FALSE(quiet.Has("Open connection 0.0.0.0:636"));
}

TEST_F(LdapDirectory, ClosedTlsPortWithoutNonSecureNeverTriesThePlainPort) {
    CSilentListener plain;
    auto s = Server();
    s->SetPortNumber(kel_test::FreePort());
    s->SetPortNumberNonSecure(plain.Port());
    EXPECT_FALSE(s->Connect());
    EXPECT_FALSE(plain.WasContacted());
}

TEST_F(LdapDirectory, ClosedTlsPortWithNonSecureFallsBackToPlain) {
    kel_test::CTraceCapture trace(0x60000000u, true);
    auto s = Server();
    s->SetPortNumber(kel_test::FreePort());
    s->SetNonSecure(true);
    EXPECT_TRUE(s->Connect());
    EXPECT_TRUE(trace.Has("Open connection 127.0.0.1:" + std::to_string(s_pSlapd->PlainPort())));
    EXPECT_EQ(s->FindUser("alice"), CSlapd::kAlice);
}

TEST_F(LdapDirectory, PlainPortIsUnusedWhileTlsWorks) {
    CSilentListener plain;
    auto s = Server();
    s->SetNonSecure(true);
    s->SetPortNumberNonSecure(plain.Port());
    EXPECT_TRUE(s->Connect());
    EXPECT_FALSE(plain.WasContacted());
}

TEST_F(LdapDirectory, SilentServerEndsConnectAfterTheTimeOut) {
    CSilentListener silent;
    auto s = Server();
    s->SetTimeout(300);
    s->SetPortNumber(silent.Port()); // TCP connects, the TLS handshake never gets an answer
    EXPECT_FALSE(WithinAMinute([&] { return s->Connect(); }));
    EXPECT_TRUE(silent.WasContacted());

    s->SetPortNumber(kel_test::FreePort());
    s->SetNonSecure(true);
    s->SetPortNumberNonSecure(silent.Port()); // plain: the bind is never answered
    EXPECT_FALSE(WithinAMinute([&] { return s->Connect(); }));
}

TEST_F(LdapDirectory, SearchThatIsNeverAnsweredEndsAfterTheTimeOutAndDropsTheConnection) {
    kel_test::CTraceCapture trace(0x60000000u, true);
    CBindOnlyServer server;
    auto s = Server();
    s->SetTimeout(300);
    s->SetPortNumber(kel_test::FreePort());
    s->SetNonSecure(true);
    s->SetPortNumberNonSecure(server.Port());
    ASSERT_TRUE(s->Connect());
    EXPECT_EQ(WithinAMinute([&] { return s->FindUser("alice"); }), "");
    EXPECT_FALSE(s->GetConnected());
    EXPECT_TRUE(trace.Has("Search below ou=Users,dc=lanternbay,dc=test with (sAMAccountName=alice) failed with "
                          "error code -5")); // client time-out
    EXPECT_TRUE(trace.Has("call ldap_unbind_s"));
}

// ---------------------------------------------------------------------------------------------
// Users

TEST_F(LdapDirectory, FindUserGivesTheOneMatchingNameOnly) {
    kel_test::CTraceCapture trace(0x60000000u, true);
    auto s = Server();
    EXPECT_EQ(s->FindUser("alice"), ""); // not connected
    ASSERT_TRUE(s->Connect());
    EXPECT_EQ(s->FindUser("alice"), CSlapd::kAlice);
    EXPECT_EQ(s->FindUser("ALICE"), CSlapd::kAlice);
    EXPECT_TRUE(trace.Has("FindUser: userSearchBase = ou=Users,dc=lanternbay,dc=test"));
    EXPECT_TRUE(trace.Has("FindUser: userSearchFilter = (sAMAccountName=alice)"));
    EXPECT_TRUE(trace.Has("FindUser: found 1 user entries"));
    EXPECT_EQ(s->FindUser("mallory"), "");
    EXPECT_TRUE(trace.Has("FindUser: found 0 user entries"));
    EXPECT_EQ(s->FindUser("dave"), ""); // two accounts named dave: ambiguous
    EXPECT_TRUE(trace.Has("FindUser: found 2 user entries"));
    EXPECT_EQ(s->FindUser(""), "");
}

TEST_F(LdapDirectory, FilterCharactersInUserNamesCannotWidenTheSearch) {
    kel_test::CTraceCapture trace(0x60000000u, true);
    auto s = Server();
    ASSERT_TRUE(s->Connect());
    const std::string attempts[] = {"ali*", "*", "a*e", "alice)(sAMAccountName=*", "*)(|(cn=*",
                                    "alice\\", std::string("alice\0", 6), std::string("alice\0*", 7)};
    for (const std::string& user : attempts) EXPECT_EQ(s->FindUser(user), "") << user;
    EXPECT_TRUE(trace.Has("FindUser: userSearchFilter = (sAMAccountName=ali\\2a)"));
    EXPECT_TRUE(trace.Has("FindUser: userSearchFilter = (sAMAccountName=alice\\00)"));
    // The same characters are found when they are really part of the name.
    EXPECT_EQ(s->FindUser(CSlapd::kOddAccount), CSlapd::kOddName);
    EXPECT_TRUE(s->GetConnected()); // no attempt broke the connection
}

TEST_F(LdapDirectory, EntriesAreReadWithTheirValuesAndMissingOnesAreNot) {
    auto s = Server();
    LDAP_ENTRY entry;
    std::vector<LDAP_ENTRY> entries;
    EXPECT_EQ(s->Search(CSlapd::kInternalBase, SC_Subtree, "(objectClass=*)", {}, entries), -1);
    EXPECT_FALSE(s->GetAttributes(CSlapd::kAlice, {"sAMAccountName"}, entry));
    ASSERT_TRUE(s->Connect());
    ASSERT_TRUE(s->GetAttributes(CSlapd::kAlice, {"sAMAccountName", "cn"}, entry));
    EXPECT_EQ(entry.dn, CSlapd::kAlice);
    EXPECT_EQ(entry.attributes["samaccountname"], std::vector<std::string>{"alice"});
    EXPECT_EQ(entry.attributes["cn"], std::vector<std::string>{"Alice Admin"});
    EXPECT_EQ(entry.attributes.count("userpassword"), 0u); // only what was asked for
    EXPECT_FALSE(s->GetAttributes("cn=Nobody,ou=Users,dc=lanternbay,dc=test", {"cn"}, entry));
    EXPECT_EQ(s->Search("ou=Users,dc=lanternbay,dc=test", SC_OneLevel, "(sAMAccountName=dave)", {"1.1"}, entries),
              0);
    ASSERT_EQ(entries.size(), 1u); // the second dave is one level further down
    EXPECT_TRUE(entries[0].attributes.empty());
    EXPECT_EQ(s->Search(CSlapd::kInternalBase, SC_Subtree, "(broken", {}, entries), -7); // filter error
    EXPECT_TRUE(s->GetConnected());
}

TEST_F(LdapDirectory, OnlyTheFirstPlaceholderOfTheFilterIsReplaced) {
    auto s = Server();
    ASSERT_TRUE(s->Connect());
    s->SetUserSearchFilter("(|(sAMAccountName=%u)(sAMAccountName=%u))");
    // The second %u stays literal; an account named "%u" does not exist.
    EXPECT_EQ(s->FindUser("bob"), CSlapd::kBob);
}

// ---------------------------------------------------------------------------------------------
// Privileges in the suite's directory

TEST_F(LdapDirectory, OperationsUserHasReadWriteAccess) {
    kel_test::CTraceCapture trace(0x60000000u, true);
    auto s = Server<CLDAPServerInternal>();
    ASSERT_TRUE(s->Connect());
    std::string role;
    std::vector<std::string> privileges;
    ASSERT_TRUE(s->FindPrivilege(s->FindUser("alice"), role, privileges));
    EXPECT_TRUE(SameText(role, "CN=Administrator")) << role;
    ASSERT_EQ(privileges.size(), 2u);
    EXPECT_TRUE(CLDAPServerInternal::HasReadWritePrivilege(privileges));
    EXPECT_TRUE(CLDAPServerInternal::HasReadOnlyPrivilege(privileges));
    EXPECT_TRUE(trace.Has("FindPrivilege: departmentsSearchBase = OU=Departments,OU=Tessel,dc=lanternbay,dc=test"));
    EXPECT_TRUE(trace.Has(
        "FindPrivilege: departmentsSearchFilter = (member=cn=Alice Admin,ou=Users,dc=lanternbay,dc=test)"));
    EXPECT_TRUE(trace.Has("FindPrivilege: found 1 department entries"));
    EXPECT_TRUE(trace.Has("FindPrivilege: group dn = cn=Operations,OU=AuthorizationRoles,OU=Tessel,dc=lanternbay,dc=test"));
    EXPECT_TRUE(trace.Has("FindPrivilege: found 2 privileges"));
    EXPECT_TRUE(trace.Has("FindPrivilege: accessRole = " + role));
    EXPECT_TRUE(trace.Has("FindPrivilege: privilege[1] = " + privileges[1]));
}

TEST_F(LdapDirectory, AuditingUserHasReadOnlyAccessThroughMemberValues) {
    auto s = Server<CLDAPServerInternal>();
    ASSERT_TRUE(s->Connect());
    std::string role;
    std::vector<std::string> privileges;
    ASSERT_TRUE(s->FindPrivilege(CSlapd::kBob, role, privileges));
    EXPECT_TRUE(SameText(role, "CN=Monitor")) << role;
    // The AccessVolkeep group outside the privileges container does not count.
    ASSERT_EQ(privileges.size(), 1u);
    EXPECT_TRUE(CLDAPServerInternal::HasReadOnlyPrivilege(privileges));
    EXPECT_FALSE(CLDAPServerInternal::HasReadWritePrivilege(privileges));
}

TEST_F(LdapDirectory, RoleGroupsAddOnlyWhatIsNotHeldYet) {
    auto s = Server<CLDAPServerInternal>();
    std::string role;
    std::vector<std::string> privileges;
    EXPECT_EQ(s->GetPrivileges("cn=Auditing,ou=AuthorizationRoles,ou=Tessel,dc=lanternbay,dc=test", role, privileges),
              -1);
    ASSERT_TRUE(s->Connect());
    role = "CN=Kept";
    privileges = {"cn=accessvolkeep,ou=volkeep"};
    EXPECT_EQ(s->GetPrivileges("cn=Operations,ou=AuthorizationRoles,ou=Tessel,dc=lanternbay,dc=test", role,
                               privileges),
              0);
    EXPECT_EQ(role, "CN=Kept");
    ASSERT_EQ(privileges.size(), 2u);
    EXPECT_TRUE(SameText(privileges[1], CLDAPServerInternal::readWritePrivilegeCNGet())) << privileges[1];
    EXPECT_EQ(s->GetPrivileges("cn=Lobby,ou=AuthorizationRoles,ou=Tessel,dc=lanternbay,dc=test", role, privileges),
              32); // no such object
    // A group that does not carry its own name is not read as a role group.
    EXPECT_EQ(s->GetPrivileges("cn=Lobby,ou=Departments,ou=Tessel,dc=lanternbay,dc=test", role, privileges), 0);
    EXPECT_EQ(privileges.size(), 2u);
}

TEST_F(LdapDirectory, UsersWithoutRoleOrDepartmentHaveNoPrivileges) {
    auto s = Server<CLDAPServerInternal>();
    std::string role = "stale";
    std::vector<std::string> privileges{"stale"};
    EXPECT_FALSE(s->FindPrivilege(CSlapd::kCarol, role, privileges)); // not connected
    ASSERT_TRUE(s->Connect());
    const std::string users[] = {CSlapd::kCarol, CSlapd::kOddName, "cn=*", "cn=nobody,dc=test", ""};
    for (const std::string& user : users) {
        EXPECT_FALSE(s->FindPrivilege(user, role, privileges)) << user;
        EXPECT_EQ(role, "");
        EXPECT_TRUE(privileges.empty());
    }
}

// ---------------------------------------------------------------------------------------------
// Groups of a customer directory

TEST_F(LdapDirectory, ParentGroupsAreFollowedUpwardThroughCyclesEachOnce) {
    auto s = Server<CLDAPServerExternal>(CSlapd::kExternalBase);
    std::vector<std::string> groups;
    EXPECT_FALSE(s->findMembersParentMembers(CSlapd::kFrank, groups)); // not connected
    ASSERT_TRUE(s->Connect());
    ASSERT_TRUE(WithinAMinute([&] { return s->findMembersParentMembers(CSlapd::kFrank, groups); }));
    std::vector<std::string> names;
    for (const std::string& g : groups) names.push_back(g.substr(3, g.find(',') - 3));
    std::vector<std::string> direct(names.begin(), names.begin() + std::min<size_t>(3, names.size()));
    std::sort(direct.begin(), direct.end());
    EXPECT_EQ(direct, (std::vector<std::string>{"CycleA", "SelfLoop", "Staff"})); // nearest first
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"All", "CycleA", "CycleB", "Engineering", "SelfLoop", "Staff"}));

    // A group inside a cycle is not listed as its own parent.
    ASSERT_TRUE(s->findMembersParentMembers("cn=CycleB,ou=Groups,dc=customer,dc=test", groups));
    names.clear();
    for (const std::string& g : groups) names.push_back(g.substr(3, g.find(',') - 3));
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{"All", "CycleA"}));

    EXPECT_TRUE(s->findMembersParentMembers("cn=*", groups));
    EXPECT_TRUE(groups.empty());
}
