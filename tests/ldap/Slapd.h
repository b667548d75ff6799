// kelbase - tests/ldap/Slapd.h
//
// A private OpenLDAP server for the directory tests: its own configuration, certificate and
// database in a temporary folder, listening on free loopback ports with ldap:// and ldaps://,
// loaded with the test directory (see Slapd.cpp). Start() says why when it cannot run.
#pragma once

#include <string>

namespace KelTest {

class CSlapd {
public:
    CSlapd() = default;
    ~CSlapd() { Stop(); }
    CSlapd(const CSlapd&) = delete;
    CSlapd& operator=(const CSlapd&) = delete;

    /// Starts the server and loads the directory; false with `why` filled when it cannot.
    bool Start(std::string& why);
    /// Ends the server (SIGTERM, then SIGKILL after a grace period), waits for it and removes
    /// its folder.
    void Stop();

    unsigned int PlainPort() const { return m_uPlainPort; }
    unsigned int TlsPort() const { return m_uTlsPort; }

    // The test directory.
    static constexpr const char* kInternalBase = "dc=lanternbay,dc=test";
    static constexpr const char* kExternalBase = "dc=customer,dc=test";
    static constexpr const char* kAlice = "cn=Alice Admin,ou=Users,dc=lanternbay,dc=test";
    static constexpr const char* kAlicePassword = "alice-secret";
    static constexpr const char* kBob = "cn=Bob Viewer,ou=Users,dc=lanternbay,dc=test";
    static constexpr const char* kCarol = "cn=Carol Visitor,ou=Users,dc=lanternbay,dc=test";
    static constexpr const char* kOddName = "cn=Odd Name,ou=Users,dc=lanternbay,dc=test";
    static constexpr const char* kOddAccount = "st*r(x)\\y"; ///< its sAMAccountName
    static constexpr const char* kFrank = "cn=Frank,ou=People,dc=customer,dc=test";

private:
    bool Launch(std::string& why);
    void KillServer();
    /// Runs `program` with its output into `log`; waits for it and gives its `status`, or
    /// (wait false) keeps it as the server process.
    bool Run(const std::string& program, const char* const argv[], const std::string& log, bool wait, int& status,
             std::string& why);

    std::string m_strDir;
    int m_nPid = -1;
    unsigned int m_uPlainPort = 0;
    unsigned int m_uTlsPort = 0;
};

} // namespace KelTest
