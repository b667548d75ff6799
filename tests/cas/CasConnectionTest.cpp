// CCASServer::TestConnection against a loopback HTTPS server in Python (cas_server.py): the
// exact request bytes, the plain-text judgement of each kind of answer, the XML path that takes
// the answer as a file name, and the failures that all end as 135; the answer judgement and the
// request line also on their own.
#include "../ssl/ChildProcess.h"
#include "../ssl/SslTestUtil.h"

#include "../common/TestUtil.h"

#include "LDAP/CasAnswer.h"

#include <fstream>
#include <sstream>

using KEL::Ldap::CCASServer;
using kel_test::CChildProcess;
using kel_test::CIdentities;
using kel_test::CTempFile;
using kel_test::ErrorLogText;
using kel_test::LastStatus;

namespace {

std::string ScriptPath() {
    const std::string here = __FILE__;
    return here.substr(0, here.rfind('/')) + "/cas_server.py";
}

std::string Pem(const KEL::Sockets::CSslCertificate& c) {
    KEL::Strings::CStringVar text;
    c.Write(text);
    return text.str();
}

std::string LocalHost() {
    std::string host, fqdn;
    EXPECT_EQ(KEL::Functions::GetDnsName(host, fqdn), 1u);
    return host;
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// The Python server with the test identity, answering in `mode`.
class CasServerProcess {
public:
    explicit CasServerProcess(const std::string& mode, const std::string& path = std::string()) {
        KEL::Strings::CStringVar key;
        CIdentities::Get().serverKey.Write(key);
        m_pKey = std::make_unique<CTempFile>(key.str());
        m_pCert = std::make_unique<CTempFile>(Pem(CIdentities::Get().server) + Pem(CIdentities::Get().interm));
        m_pRequest = std::make_unique<CTempFile>("");
        m_pChild = std::make_unique<CChildProcess>(std::vector<std::string>{
            "python3", ScriptPath(), "--cert", m_pCert->Path(), "--key", m_pKey->Path(), "--answer", mode,
            "--request-file", m_pRequest->Path(), "--path", path});
        EXPECT_TRUE(m_pChild->ReadUntil("\n")) << m_pChild->Output();
        std::istringstream line(m_pChild->Output());
        std::string word;
        line >> word >> m_nPort;
        EXPECT_EQ(word, "PORT") << m_pChild->Output();
    }
    unsigned int Port() const { return m_nPort; }
    /// The request of the connection served last (waits until the server says it is done).
    std::string Request() {
        EXPECT_TRUE(m_pChild->ReadUntil("SERVED")) << m_pChild->Output();
        return ReadFile(m_pRequest->Path());
    }

private:
    std::unique_ptr<CTempFile> m_pKey, m_pCert, m_pRequest;
    std::unique_ptr<CChildProcess> m_pChild;
    unsigned int m_nPort = 0;
};

CCASServer At(unsigned int port, const std::string& validate = "/validate") {
    CCASServer cas;
    cas.SetServer("127.0.0.1");
    cas.SetPortNumber(port);
    cas.SetURIServiceValidate(validate);
    return cas;
}

const char kFailureDocument[] =
    "<cas:serviceResponse xmlns:cas='http://www.yale.edu/tp/cas'>"
    "<cas:authenticationFailure code='INVALID_TICKET'>no</cas:authenticationFailure></cas:serviceResponse>";

} // namespace

TEST(CasConnection, RejectionOfTheInvalidTicketProvesACasServer) {
    CasServerProcess server("no");
    CCASServer cas = At(server.Port());
    EXPECT_EQ(cas.TestConnection(), 1u) << ErrorLogText();
    EXPECT_EQ(server.Request(), "GET https://127.0.0.1:" + std::to_string(server.Port()) +
                                    "/cas/validate?service=https://" + LocalHost() +
                                    "&ticket=definitely_invalid HTTP/1.1\n\n");
}

TEST(CasConnection, AcceptanceWithAUserNameIsNotTheExpectedAnswer) {
    CasServerProcess server("yes");
    CCASServer cas = At(server.Port());
    EXPECT_EQ(cas.TestConnection(), 135u);
    EXPECT_EQ(server.Request().compare(0, 12, "GET https://"), 0); // the exchange took place
}

TEST(CasConnection, OnlyTheFirstRecordOfTheAnswerIsJudged) {
    CasServerProcess server("split");
    CCASServer cas = At(server.Port());
    EXPECT_EQ(cas.TestConnection(), 135u);
    EXPECT_EQ(server.Request().compare(0, 12, "GET https://"), 0); // the exchange took place
}

TEST(CasConnection, XmlPathTakesTheAnswerAsAFileNameNotAsADocument) {
    {
        // The answer holds the failure document, but it is no file name: 135.
        CasServerProcess server("xml");
        CCASServer cas = At(server.Port(), "/serviceValidate");
        EXPECT_EQ(cas.TestConnection(), 135u);
        EXPECT_NE(server.Request().find("/cas/serviceValidate?service=https://"), std::string::npos);
    }
    {
        // An answer that names a file with the failure document: 1.
        CTempFile document(kFailureDocument);
        CasServerProcess server("path", document.Path());
        CCASServer cas = At(server.Port(), "/serviceValidate");
        EXPECT_EQ(cas.TestConnection(), 1u);
    }
}

TEST(CasConnection, DefaultObjectAnswers135WithoutConnecting) {
    // A listener on the port the default object names: a connection to "0.0.0.0" would reach it.
    KEL::Sockets::CSocketListener listener;
    kel_test::RaisedCode([&] { listener.StartListen(3170, 0); }); // the port may be taken
    CCASServer cas;
    kel_test::RaisedCode([] { KEL::Sockets::CSocket().Read(nullptr, 1); }); // a known last failure
    ASSERT_EQ(LastStatus(), 0x2001001Eu);
    EXPECT_EQ(cas.TestConnection(), 135u);
    EXPECT_EQ(LastStatus(), 0x2001001Eu); // nothing failed on the way: nothing was tried
    if (listener.IsListening()) {
        EXPECT_EQ(listener.Wait(0), 130u);
    }
}

TEST(CasConnection, EveryFailureOnTheWayIs135WithTheReasonLogged) {
    // Nobody listening.
    const unsigned int port = kel_test::FreePort();
    CCASServer closed = At(port);
    EXPECT_EQ(closed.TestConnection(), 135u);
    EXPECT_EQ(LastStatus(), 0x2001001Fu) << ErrorLogText();

    // A plain TCP server that answers HTTP: the TLS handshake fails as client.
    KEL::Sockets::CSocketListener listener;
    listener.StartListen(0, 0);
    CCASServer plain = At(listener.GetLocalAddr().GetPort());
    std::thread peer([&] {
        if (listener.Wait(20000) != 1u) return;
        KEL::Sockets::CSocket s;
        if (listener.Accept(s) != 1u) return;
        const char reply[] = "HTTP/1.1 400 Bad Request\r\n\r\n";
        s.SetTimeout(20000);
        // Takes the client's hello first (a close with unread input would reset the
        // connection), answers, and stays until the client gives up.
        char hello[512];
        std::vector<char> rest(1 << 20);
        kel_test::RaisedCode([&] {
            s.Wait();
            size_t got = 0;
            s.Read(hello, sizeof hello, &got);
            s.Write(reply, sizeof reply - 1, nullptr);
            s.Read(rest.data(), rest.size());
        });
    });
    EXPECT_EQ(plain.TestConnection(), 135u);
    peer.join();
    EXPECT_EQ(LastStatus(), 0x20010058u) << ErrorLogText();

    // Failures are reported, never thrown, also to a thread in throw mode.
    const unsigned int old = KEL::Threading::CThrowState::SetThrow(1);
    EXPECT_NO_THROW(EXPECT_EQ(closed.TestConnection(), 135u));
    KEL::Threading::CThrowState::SetThrow(old);
}

TEST(CasAnswer, PlainRejectionNeedsABlankLineThenNoThenALineEnd) {
    using KEL::Internals::JudgePlainCasAnswer;
    EXPECT_EQ(JudgePlainCasAnswer("HTTP/1.1 200 OK\r\n\r\nno\n"), 1u);
    EXPECT_EQ(JudgePlainCasAnswer("HTTP/1.1 200 OK\r\n\r\nno\r\n"), 1u);
    EXPECT_EQ(JudgePlainCasAnswer("X: y\r\n\r\nno\n\n\r\r"), 1u);
    EXPECT_EQ(JudgePlainCasAnswer("HTTP/1.1 200 OK\r\n\r\nno"), 135u);       // no line end
    EXPECT_EQ(JudgePlainCasAnswer("HTTP/1.1 200 OK\n\nno\n"), 135u);         // bare line feeds
    EXPECT_EQ(JudgePlainCasAnswer("HTTP/1.1 200 OK\r\n\r\nnobody\n"), 135u); // another word
    EXPECT_EQ(JudgePlainCasAnswer("HTTP/1.1 200 OK\r\n\r\n"), 135u);
    EXPECT_EQ(JudgePlainCasAnswer("HTTP/1.1 200 OK\r\n\r\nyes\nno\n"), 135u);
    EXPECT_EQ(JudgePlainCasAnswer(""), 135u);
}

TEST(CasAnswer, XmlJudgementLoadsTheNamedFile) {
    using KEL::Internals::JudgeXmlCasAnswer;
    CTempFile failure(kFailureDocument);
    CTempFile success("<cas:serviceResponse><cas:authenticationSuccess/></cas:serviceResponse>");
    EXPECT_EQ(JudgeXmlCasAnswer(failure.Path().c_str()), 1u);
    EXPECT_EQ(JudgeXmlCasAnswer(success.Path().c_str()), 135u);
    EXPECT_EQ(JudgeXmlCasAnswer(kFailureDocument), 135u); // a document is not a file name
}

TEST(CasAnswer, RequestLineCarriesTheAbsoluteAddressAndBareLineFeeds) {
    EXPECT_EQ(KEL::Internals::CasValidationRequest("cas.example", 8443, "/sso", "/p3/serviceValidate", "host1"),
              "GET https://cas.example:8443/sso/p3/serviceValidate?service=https://host1&ticket=definitely_invalid "
              "HTTP/1.1\n\n");
}
