// kelbase - Cas.h
//
// The settings of the Central Authentication Service (CAS) server that the suite's web front
// end delegates logins to (KEL::Ldap::CCASServer), kept in the suite's XML configuration:
//
//     <config>
//       <authentication>
//         <cas>
//           <server>cas.example</server> <port>3170</port> <contextRoot>/cas</contextRoot>
//           <uriLogin>/login</uriLogin> <uriServiceValidate>/validate</uriServiceValidate>
//         </cas>
//       </authentication>
//     </config>
//
// The library does not validate tickets; the front end builds its login and validation
// addresses from these fields. An object has no lock: one thread writes it at a time.
#pragma once

#include <kel/Config.h>
#include <kel/Xml.h>

#include <string>

namespace KEL {
namespace Ldap {

/// The CAS server settings of one configuration: read from and written to its `cas` element.
class KEL_API CCASServer {
public:
    /// The defaults of SetDefaults.
    CCASServer();
    virtual ~CCASServer();
    CCASServer(const CCASServer&) = default;
    CCASServer& operator=(const CCASServer&) = default;

    /// Field by field.
    bool operator==(const CCASServer& other) const;
    bool operator!=(const CCASServer& other) const { return !(*this == other); }

    /// Host name or address; "0.0.0.0" means not configured.
    const std::string& GetServer() const noexcept { return m_strServer; }
    void SetServer(const std::string& server) { m_strServer = server; }
    /// TCP port of the server (TLS).
    unsigned int GetPortNumber() const noexcept { return m_uPort; }
    void SetPortNumber(unsigned int port) noexcept { m_uPort = port; }
    /// Path prefix of the CAS application.
    const std::string& GetContextRoot() const noexcept { return m_strContextRoot; }
    void SetContextRoot(const std::string& root) { m_strContextRoot = root; }
    /// Login path below the context root.
    const std::string& GetURILogin() const noexcept { return m_strURILogin; }
    void SetURILogin(const std::string& uri) { m_strURILogin = uri; }
    /// Ticket validation path below the context root ("/validate": the plain-text protocol).
    const std::string& GetURIServiceValidate() const noexcept { return m_strURIServiceValidate; }
    void SetURIServiceValidate(const std::string& uri) { m_strURIServiceValidate = uri; }

    /// server "0.0.0.0", port 3170, contextRoot "/cas", uriLogin "/login",
    /// uriServiceValidate "/validate".
    void SetDefaults();

    /// Reads /config/authentication/cas: each child named exactly like a field sets it (an
    /// empty server, contextRoot, uriLogin or uriServiceValidate sets that field's default;
    /// the port is read as a decimal number); unknown children are ignored, missing ones
    /// leave their field alone. False, with nothing changed, when the node is missing.
    bool ReadFromXML(XML::xml_document& document);
    /// Replaces the first /config/authentication (everything below it included) with one that
    /// holds only these settings. False when the document has no /config.
    bool WriteToXML(XML::xml_document& document) const;

    /// Checks that the configured server answers like a CAS server: sends one validation
    /// request with a ticket that cannot be valid over TLS (no certificate check, 10 s per
    /// network step) and takes the rejection as the proof. 1 when the server rejected the
    /// ticket, 135 (URET_ConnectFailed) on every other outcome, at once for a server that is
    /// not configured ("0.0.0.0"). Never raises; a failure on the way is left in the calling
    /// thread's error log. With "/validate" as validation path the answer is judged as the
    /// plain-text protocol ("no" as body); with any other path the answer is handed to the XML
    /// loader as a file name and must name a document with
    /// /cas:serviceResponse/cas:authenticationFailure.
    unsigned int TestConnection();

private:
    std::string m_strServer;
    unsigned int m_uPort = 0;
    std::string m_strContextRoot;
    std::string m_strURILogin;
    std::string m_strURIServiceValidate;
};

} // namespace Ldap
} // namespace KEL
