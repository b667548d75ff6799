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

// LDIF entries of the kinds the directory is made of; `parent` is the DN they are placed in.
std::string Ou(const std::string& name, const std::string& parent) {
    return "dn: ou=" + name + "," + parent + "\nobjectClass: organizationalUnit\nou: " + name + "\n\n";
}
std::string Person(const std::string& cn, const std::string& sn, const std::string& account, const std::string& parent,
                   const std::string& password = std::string()) {
    return "dn: cn=" + cn + "," + parent + "\nobjectClass: inetOrgPerson\nobjectClass: extensibleObject\ncn: " + cn +
           "\nsn: " + sn + "\nsAMAccountName: " + account + "\n" +
           (password.empty() ? std::string() : "userPassword: " + password + "\n") + "\n";
}
std::string Group(const std::string& cn, const std::string& parent, std::initializer_list<std::string> members) {
    std::string entry = "dn: cn=" + cn + "," + parent + "\nobjectClass: groupOfNames\ncn: " + cn + "\n";
    for (const std::string& m : members) entry += "member: " + m + "\n";
    return entry + "\n";
}

// The directory: the suite's own (users, an ambiguous name, departments, role groups and their
// declarations) and a customer's (people and groups nested upward, with two cycles).
std::string Directory() {
    const std::string base = "dc=lanternbay,dc=test", users = "ou=Users," + base, tessel = "ou=Tessel," + base;
    const std::string depts = "ou=Departments," + tessel, roles = "ou=AuthorizationRoles," + tessel;
    const std::string decl = "ou=Declarations," + tessel, declRoles = "ou=AuthorizationRoles," + decl;
    const std::string volkeep = "ou=Volkeep,ou=Privileges," + decl;
    const std::string people = "ou=People,dc=customer,dc=test", groups = "ou=Groups,dc=customer,dc=test";
    return "dn: dc=test\nobjectClass: dcObject\nobjectClass: organization\no: test\ndc: test\n\n"
           "dn: dc=lanternbay,dc=test\nobjectClass: dcObject\nobjectClass: organization\no: lanternbay\n"
           "dc: lanternbay\n\n" +
           Ou("Users", base) + Person("Alice Admin", "Admin", "alice", users, "alice-secret") +
           Person("Bob Viewer", "Viewer", "bob", users, "bob-secret") +
           Person("Carol Visitor", "Visitor", "carol", users) + Person("Odd Name", "Name", "st*r(x)\\y", users) +
           Person("Dave One", "One", "dave", users) + Ou("Contractors", users) +
           Person("Dave Two", "Two", "dave", "ou=Contractors," + users) + Ou("Tessel", base) +
           Ou("Departments", tessel) + Group("Operations", depts, {"cn=Alice Admin," + users}) +
           Group("Auditing", depts, {"cn=Bob Viewer," + users}) + Group("Lobby", depts, {"cn=Carol Visitor," + users}) +
           Ou("AuthorizationRoles", tessel) +
           // Role groups as the other directory product shows them: with their own DN and the
           // groups they belong to (one of them spelt with upper case and blanks).
           "dn: cn=Operations," + roles +
           "\nobjectClass: groupOfNames\nobjectClass: extensibleObject\ncn: Operations\n"
           "distinguishedName: cn=Operations," + roles + "\nmember: cn=Alice Admin," + users +
           "\nmemberOf: cn=Administrator," + declRoles + "\nmemberOf: cn=ModifyRaidConfig," + volkeep +
           "\nmemberOf: CN=AccessVolkeep, OU=Volkeep, OU=Privileges, OU=Declarations, OU=Tessel, DC=lanternbay, "
           "DC=test\n\n"
           "dn: cn=Auditing," + roles +
           "\nobjectClass: groupOfNames\nobjectClass: extensibleObject\ncn: Auditing\n"
           "distinguishedName: cn=Auditing," + roles + "\nmember: cn=Monitor," + declRoles +
           "\nmember: cn=AccessVolkeep," + volkeep + "\nmember: cn=AccessVolkeep,ou=Elsewhere," + base + "\n\n" +
           Ou("Declarations", tessel) + Ou("AuthorizationRoles", decl) +
           Group("Administrator", declRoles, {"cn=Operations," + roles}) +
           Group("Monitor", declRoles, {"cn=Auditing," + roles}) + Ou("Privileges", decl) +
           Ou("Volkeep", "ou=Privileges," + decl) +
           Group("AccessVolkeep", volkeep, {"cn=Operations," + roles, "cn=Auditing," + roles}) +
           Group("ModifyRaidConfig", volkeep, {"cn=Operations," + roles}) +
           "dn: dc=customer,dc=test\nobjectClass: dcObject\nobjectClass: organization\no: customer\n"
           "dc: customer\n\n" +
           Ou("People", "dc=customer,dc=test") + Person("Frank", "Frank", "frank", people, "frank-secret") +
           Ou("Groups", "dc=customer,dc=test") + Group("Staff", groups, {"cn=Frank," + people}) +
           Group("Engineering", groups, {"cn=Staff," + groups}) +
           Group("CycleA", groups, {"cn=Frank," + people, "cn=CycleB," + groups}) +
           Group("CycleB", groups, {"cn=CycleA," + groups}) +
           Group("All", groups, {"cn=Engineering," + groups, "cn=CycleA," + groups}) +
           Group("SelfLoop", groups, {"cn=SelfLoop," + groups, "cn=Frank," + people}) +
           Group("Unrelated", groups, {"cn=Nobody," + people});
}

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
    if (!WriteFile(m_strDir + "/slapd.conf", conf.str()) || !WriteFile(m_strDir + "/data.ldif", Directory())) {
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
