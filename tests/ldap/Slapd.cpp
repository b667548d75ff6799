// kelbase - tests/ldap/Slapd.cpp
//
// Starts a private slapd for the directory tests. The server binary and the schema folder are
// Debian's (packages slapd, ldap-utils); KEL_SLAPD and KEL_LDAP_SCHEMA_DIR override them.
#include "Slapd.h"

#include "../common/TestUtil.h"

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <boost/filesystem.hpp>

namespace KelTest {

namespace {

// The directory: the suite's own (users, an ambiguous name, departments, role groups and their
// declarations) and a customer's (people and groups nested upward, with two cycles).
const char* const kDirectory = R"(dn: dc=test
objectClass: dcObject
objectClass: organization
o: test
dc: test

dn: dc=lanternbay,dc=test
objectClass: dcObject
objectClass: organization
o: lanternbay
dc: lanternbay

dn: ou=Users,dc=lanternbay,dc=test
objectClass: organizationalUnit
ou: Users

dn: cn=Alice Admin,ou=Users,dc=lanternbay,dc=test
objectClass: inetOrgPerson
objectClass: extensibleObject
cn: Alice Admin
sn: Admin
sAMAccountName: alice
userPassword: alice-secret

dn: cn=Bob Viewer,ou=Users,dc=lanternbay,dc=test
objectClass: inetOrgPerson
objectClass: extensibleObject
cn: Bob Viewer
sn: Viewer
sAMAccountName: bob
userPassword: bob-secret

dn: cn=Carol Visitor,ou=Users,dc=lanternbay,dc=test
objectClass: inetOrgPerson
objectClass: extensibleObject
cn: Carol Visitor
sn: Visitor
sAMAccountName: carol

dn: cn=Odd Name,ou=Users,dc=lanternbay,dc=test
objectClass: inetOrgPerson
objectClass: extensibleObject
cn: Odd Name
sn: Name
sAMAccountName: st*r(x)\y

dn: cn=Dave One,ou=Users,dc=lanternbay,dc=test
objectClass: inetOrgPerson
objectClass: extensibleObject
cn: Dave One
sn: One
sAMAccountName: dave

dn: ou=Contractors,ou=Users,dc=lanternbay,dc=test
objectClass: organizationalUnit
ou: Contractors

dn: cn=Dave Two,ou=Contractors,ou=Users,dc=lanternbay,dc=test
objectClass: inetOrgPerson
objectClass: extensibleObject
cn: Dave Two
sn: Two
sAMAccountName: dave

dn: ou=Tessel,dc=lanternbay,dc=test
objectClass: organizationalUnit
ou: Tessel

dn: ou=Departments,ou=Tessel,dc=lanternbay,dc=test
objectClass: organizationalUnit
ou: Departments

dn: cn=Operations,ou=Departments,ou=Tessel,dc=lanternbay,dc=test
objectClass: groupOfNames
cn: Operations
member: cn=Alice Admin,ou=Users,dc=lanternbay,dc=test

dn: cn=Auditing,ou=Departments,ou=Tessel,dc=lanternbay,dc=test
objectClass: groupOfNames
cn: Auditing
member: cn=Bob Viewer,ou=Users,dc=lanternbay,dc=test

dn: cn=Lobby,ou=Departments,ou=Tessel,dc=lanternbay,dc=test
objectClass: groupOfNames
cn: Lobby
member: cn=Carol Visitor,ou=Users,dc=lanternbay,dc=test

dn: ou=AuthorizationRoles,ou=Tessel,dc=lanternbay,dc=test
objectClass: organizationalUnit
ou: AuthorizationRoles

dn: cn=Operations,ou=AuthorizationRoles,ou=Tessel,dc=lanternbay,dc=test
objectClass: groupOfNames
objectClass: extensibleObject
cn: Operations
distinguishedName: cn=Operations,ou=AuthorizationRoles,ou=Tessel,dc=lanternbay,dc=test
member: cn=Alice Admin,ou=Users,dc=lanternbay,dc=test
memberOf: cn=Administrator,ou=AuthorizationRoles,ou=Declarations,ou=Tessel,dc=lanternbay,dc=test
memberOf: cn=ModifyRaidConfig,ou=Volkeep,ou=Privileges,ou=Declarations,ou=Tessel,dc=lanternbay,dc=test
memberOf: CN=AccessVolkeep, OU=Volkeep, OU=Privileges, OU=Declarations, OU=Tessel, DC=lanternbay, DC=test

dn: cn=Auditing,ou=AuthorizationRoles,ou=Tessel,dc=lanternbay,dc=test
objectClass: groupOfNames
objectClass: extensibleObject
cn: Auditing
distinguishedName: cn=Auditing,ou=AuthorizationRoles,ou=Tessel,dc=lanternbay,dc=test
member: cn=Monitor,ou=AuthorizationRoles,ou=Declarations,ou=Tessel,dc=lanternbay,dc=test
member: cn=AccessVolkeep,ou=Volkeep,ou=Privileges,ou=Declarations,ou=Tessel,dc=lanternbay,dc=test
member: cn=AccessVolkeep,ou=Elsewhere,dc=lanternbay,dc=test

dn: ou=Declarations,ou=Tessel,dc=lanternbay,dc=test
objectClass: organizationalUnit
ou: Declarations

dn: ou=AuthorizationRoles,ou=Declarations,ou=Tessel,dc=lanternbay,dc=test
objectClass: organizationalUnit
ou: AuthorizationRoles

dn: cn=Administrator,ou=AuthorizationRoles,ou=Declarations,ou=Tessel,dc=lanternbay,dc=test
objectClass: groupOfNames
cn: Administrator
member: cn=Operations,ou=AuthorizationRoles,ou=Tessel,dc=lanternbay,dc=test

dn: cn=Monitor,ou=AuthorizationRoles,ou=Declarations,ou=Tessel,dc=lanternbay,dc=test
objectClass: groupOfNames
cn: Monitor
member: cn=Auditing,ou=AuthorizationRoles,ou=Tessel,dc=lanternbay,dc=test

dn: ou=Privileges,ou=Declarations,ou=Tessel,dc=lanternbay,dc=test
objectClass: organizationalUnit
ou: Privileges

dn: ou=Volkeep,ou=Privileges,ou=Declarations,ou=Tessel,dc=lanternbay,dc=test
objectClass: organizationalUnit
ou: Volkeep

dn: cn=AccessVolkeep,ou=Volkeep,ou=Privileges,ou=Declarations,ou=Tessel,dc=lanternbay,dc=test
objectClass: groupOfNames
cn: AccessVolkeep
member: cn=Operations,ou=AuthorizationRoles,ou=Tessel,dc=lanternbay,dc=test
member: cn=Auditing,ou=AuthorizationRoles,ou=Tessel,dc=lanternbay,dc=test

dn: cn=ModifyRaidConfig,ou=Volkeep,ou=Privileges,ou=Declarations,ou=Tessel,dc=lanternbay,dc=test
objectClass: groupOfNames
cn: ModifyRaidConfig
member: cn=Operations,ou=AuthorizationRoles,ou=Tessel,dc=lanternbay,dc=test

dn: dc=customer,dc=test
objectClass: dcObject
objectClass: organization
o: customer
dc: customer

dn: ou=People,dc=customer,dc=test
objectClass: organizationalUnit
ou: People

dn: cn=Frank,ou=People,dc=customer,dc=test
objectClass: inetOrgPerson
objectClass: extensibleObject
cn: Frank
sn: Frank
sAMAccountName: frank
userPassword: frank-secret

dn: ou=Groups,dc=customer,dc=test
objectClass: organizationalUnit
ou: Groups

dn: cn=Staff,ou=Groups,dc=customer,dc=test
objectClass: groupOfNames
cn: Staff
member: cn=Frank,ou=People,dc=customer,dc=test

dn: cn=Engineering,ou=Groups,dc=customer,dc=test
objectClass: groupOfNames
cn: Engineering
member: cn=Staff,ou=Groups,dc=customer,dc=test

dn: cn=CycleA,ou=Groups,dc=customer,dc=test
objectClass: groupOfNames
cn: CycleA
member: cn=Frank,ou=People,dc=customer,dc=test
member: cn=CycleB,ou=Groups,dc=customer,dc=test

dn: cn=CycleB,ou=Groups,dc=customer,dc=test
objectClass: groupOfNames
cn: CycleB
member: cn=CycleA,ou=Groups,dc=customer,dc=test

dn: cn=All,ou=Groups,dc=customer,dc=test
objectClass: groupOfNames
cn: All
member: cn=Engineering,ou=Groups,dc=customer,dc=test
member: cn=CycleA,ou=Groups,dc=customer,dc=test

dn: cn=SelfLoop,ou=Groups,dc=customer,dc=test
objectClass: groupOfNames
cn: SelfLoop
member: cn=SelfLoop,ou=Groups,dc=customer,dc=test
member: cn=Frank,ou=People,dc=customer,dc=test

dn: cn=Unrelated,ou=Groups,dc=customer,dc=test
objectClass: groupOfNames
cn: Unrelated
member: cn=Nobody,ou=People,dc=customer,dc=test
)";

const char* Env(const char* name, const char* fallback) {
    const char* v = std::getenv(name);
    return (v != nullptr && *v != '\0') ? v : fallback;
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    std::string text = s.str();
    if (text.size() > 1500) text = "..." + text.substr(text.size() - 1500);
    return text;
}

bool WriteFile(const std::string& path, const std::string& text) {
    std::ofstream out(path);
    out << text;
    return static_cast<bool>(out);
}

bool CanConnect(unsigned int port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bool ok = connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
    close(fd);
    return ok;
}

} // namespace

bool CSlapd::Run(const std::string& program, const char* const argv[], const std::string& log, bool wait,
                 int& status, std::string& why) {
    // fork and exec rather than posix_spawn: the child asks to be killed when the test program
    // ends, so a test that aborts cannot leave a server behind. Only async-signal-safe calls
    // happen between fork and exec.
    const int in = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const int out = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (in < 0 || out < 0) {
        why = "cannot open " + log + ": " + std::strerror(errno);
        if (in >= 0) close(in);
        if (out >= 0) close(out);
        return false;
    }
    const pid_t parent = getpid();
    pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(127);
        dup2(in, 0);
        dup2(out, 1);
        dup2(out, 2);
        execvp(program.c_str(), const_cast<char* const*>(argv));
        _exit(127);
    }
    const int forkError = errno;
    close(in);
    close(out);
    if (pid < 0) {
        why = "cannot start " + program + ": " + std::strerror(forkError);
        return false;
    }
    if (!wait) {
        m_nPid = pid;
        return true;
    }
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == 127) {
        why = "cannot run " + program + " (not found or not executable)";
        return false;
    }
    return true;
}

bool CSlapd::Launch(std::string& why) {
    const std::string slapd = Env("KEL_SLAPD", "/usr/sbin/slapd");
    const std::string schema = Env("KEL_LDAP_SCHEMA_DIR", "/etc/ldap/schema");
    for (const char* s : {"core", "cosine", "inetorgperson", "nis"}) {
        if (!boost::filesystem::exists(schema + "/" + s + ".schema")) {
            why = "schema file " + schema + "/" + s + ".schema is missing (package slapd)";
            return false;
        }
    }
    if (access(slapd.c_str(), X_OK) != 0) {
        why = slapd + " cannot be run (package slapd): " + std::strerror(errno);
        return false;
    }
    m_uPlainPort = kel_test::FreePort();
    m_uTlsPort = kel_test::FreePort();
    if (m_uPlainPort == 0 || m_uTlsPort == 0 || m_uPlainPort == m_uTlsPort) {
        why = "no free loopback ports";
        return false;
    }
    const std::string urls = "ldap://127.0.0.1:" + std::to_string(m_uPlainPort) + "/ ldaps://127.0.0.1:" +
                             std::to_string(m_uTlsPort) + "/";
    const std::string conf = m_strDir + "/slapd.conf";
    const std::string log = m_strDir + "/slapd.log";
    const char* argv[] = {slapd.c_str(), "-d", "0", "-f", conf.c_str(), "-h", urls.c_str(), nullptr};
    int status = 0;
    if (!Run(slapd, argv, log, false, status, why)) return false;

    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!(CanConnect(m_uPlainPort) && CanConnect(m_uTlsPort))) {
        int st = 0;
        if (waitpid(m_nPid, &st, WNOHANG) == m_nPid) {
            m_nPid = -1;
            why = "slapd ended at start (status " + std::to_string(st) + "): " + ReadFile(log);
            // Debian's AppArmor profile lets slapd read only its own folders.
            if (boost::filesystem::exists("/sys/kernel/security/apparmor/profiles"))
                why += " (AppArmor is active: its slapd profile may forbid " + m_strDir + ")";
            return false;
        }
        if (std::chrono::steady_clock::now() > deadline) {
            why = "slapd did not listen within 30 s: " + ReadFile(log);
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return true;
}

bool CSlapd::Start(std::string& why) {
    boost::system::error_code ec;
    boost::filesystem::path dir = boost::filesystem::temp_directory_path(ec) / "kel-slapd-%%%%-%%%%-%%%%";
    dir = boost::filesystem::unique_path(dir, ec);
    if (ec || !boost::filesystem::create_directories(dir / "db", ec)) {
        why = "cannot make a temporary folder: " + ec.message();
        return false;
    }
    m_strDir = dir.string();
    // slapd runs as whoever runs the tests; its files are private to that user.
    chmod(m_strDir.c_str(), 0700);

    const std::string log = m_strDir + "/setup.log";
    const std::string key = m_strDir + "/key.pem";
    const std::string cert = m_strDir + "/cert.pem";
    const char* openssl[] = {"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
                             "-nodes", "-keyout", key.c_str(), "-out", cert.c_str(), "-days", "2", "-subj",
                             "/CN=localhost", nullptr};
    int status = 0;
    if (!Run("openssl", openssl, log, true, status, why)) return false;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        why = "openssl could not make the test certificate: " + ReadFile(log);
        return false;
    }

    const std::string schema = Env("KEL_LDAP_SCHEMA_DIR", "/etc/ldap/schema");
    std::ostringstream conf;
    for (const char* s : {"core", "cosine", "inetorgperson", "nis"}) conf << "include " << schema << "/" << s << ".schema\n";
    // The two attributes of the other directory product that the suite's filters use.
    conf << "attributetype ( 1.3.6.1.4.1.32473.1.1 NAME 'sAMAccountName' EQUALITY caseIgnoreMatch"
            " SUBSTR caseIgnoreSubstringsMatch SYNTAX 1.3.6.1.4.1.1466.115.121.1.15 )\n"
         << "attributetype ( 1.3.6.1.4.1.32473.1.2 NAME 'memberOf' EQUALITY distinguishedNameMatch"
            " SYNTAX 1.3.6.1.4.1.1466.115.121.1.12 )\n"
         << "pidfile " << m_strDir << "/slapd.pid\n"
         << "argsfile " << m_strDir << "/slapd.args\n"
         << "modulepath /usr/lib/ldap\nmoduleload back_mdb\n"
         << "TLSCertificateFile " << cert << "\nTLSCertificateKeyFile " << key << "\n"
         << "database mdb\nsuffix \"dc=test\"\nrootdn \"cn=admin,dc=test\"\nrootpw admin-secret\n"
         << "directory " << m_strDir << "/db\nmaxsize 16777216\n";
    if (!WriteFile(m_strDir + "/slapd.conf", conf.str()) || !WriteFile(m_strDir + "/data.ldif", kDirectory)) {
        why = "cannot write into " + m_strDir;
        return false;
    }

    // Ports are free when chosen but may be taken before slapd binds them: try again.
    bool launched = false;
    for (int attempt = 0; attempt < 3 && !launched; ++attempt) {
        if (attempt > 0) KillServer();
        launched = Launch(why);
    }
    if (!launched) return false;

    const std::string url = "ldap://127.0.0.1:" + std::to_string(m_uPlainPort);
    const std::string data = m_strDir + "/data.ldif";
    const char* ldapadd[] = {"ldapadd", "-x", "-H", url.c_str(), "-D", "cn=admin,dc=test", "-w", "admin-secret",
                             "-f", data.c_str(), nullptr};
    if (!Run("ldapadd", ldapadd, log, true, status, why)) return false;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        why = "ldapadd could not load the test directory: " + ReadFile(log);
        return false;
    }
    return true;
}

void CSlapd::Stop() {
    KillServer();
    if (!m_strDir.empty()) {
        boost::system::error_code ec;
        boost::filesystem::remove_all(m_strDir, ec);
        m_strDir.clear();
    }
}

void CSlapd::KillServer() {
    if (m_nPid > 0) {
        kill(m_nPid, SIGTERM);
        int status = 0;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (waitpid(m_nPid, &status, WNOHANG) == 0) {
            if (std::chrono::steady_clock::now() > deadline) {
                kill(m_nPid, SIGKILL);
                waitpid(m_nPid, &status, 0);
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        m_nPid = -1;
    }
}

} // namespace KelTest
