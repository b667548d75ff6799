// kel_monitor: a small RAID monitoring service and its client, talking the suite's message
// channel over TLS. It is the exchange every program of the suite performs, end to end:
//
//   kel_monitor [--lang en|de]                      service and client in one process (loopback)
//   kel_monitor [--lang en|de] --server [PORT]      the service alone, until Ctrl-C (port 7010)
//   kel_monitor [--lang en|de] --client HOST:PORT   the client alone
//
// The service makes its TLS key and certificate on the first run and keeps them in
// <program folder>/monitor/. It serves each connection as a job on its thread pool, runs the
// long operations (a rebuild) as further pool jobs, pushes an "events pending" notice when one
// finishes, and writes a trace file to <program folder>/logs/. Operations, events, values and
// errors travel as the numbers of the suite's code tables; every text a person reads comes from
// the label resolver in the language given on the command line.
#define KEL_SOURCE_FILE "examples/kel_monitor" // the area named in error logs
#include <kel/kelbase.h>

#include <boost/filesystem/operations.hpp>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

using namespace KEL;
using Sockets::CKelSocketClient;
using Sockets::CKelSocketServer;
using Sockets::CSslSocket;
using Strings::TString;

namespace {

/// The application identifier both sides pass to Attach; a client with another one is refused.
constexpr unsigned int kMonitorApplicationId = 0x52414944; // "RAID"
constexpr unsigned int kDefaultPort = 7010;
constexpr unsigned int kSocketTimeoutMs = 15000;
/// Event-mask bit the service sets when new records wait in its event log.
constexpr unsigned long long kEventLogChanged = 1;

// ---------------------------------------------------------------------------------------------
// Transcript

std::mutex g_printLock;

template <class... A> std::string Text(const char* format, const A&... args) {
    TString<512> text;
    (text.Format(format) << ... << args);
    return std::string(text.C_Str(), text.Length());
}

void Say(const char* who, const std::string& text) {
    std::lock_guard<std::mutex> lock(g_printLock);
    std::printf("%-8s| %s\n", who, text.c_str());
    std::fflush(stdout);
}

/// The text of a label (= code number) in the calling thread's language.
std::string Label(int code) {
    std::string text;
    Language_Support::CLanguageSupport::ResolveString(static_cast<unsigned int>(code), text);
    return text;
}

int Code(const CCodeTable& table, const char* name) {
    const std::optional<int> code = CodeTables::CodeOf(table, name);
    if (!code) KEL_RAISE(0x20010017u, "The code tables have no code named %s", name);
    return *code;
}

std::string Name(const CCodeTable& table, unsigned int code) {
    const std::optional<std::string_view> name = CodeTables::NameOf(table, static_cast<int>(code));
    return name ? std::string(*name) : Text("code %d", code);
}

/// "50005 GET_LOGICAL_DRIVE_CONFIGURATION (Get logical drive configuration)"
std::string Operation(unsigned int code) {
    return Text("%d %s (%s)", code, Name(OperationCodeNames, code), Label(static_cast<int>(code)));
}

/// The library's text of a status code.
std::string StatusText(unsigned int status) {
    Strings::CStringVar text;
    KEL_MODULE_INFO_KelLib.GetErrorMsg(text, status);
    return std::string(text.C_Str(), text.Length());
}

std::string ErrorLogText() {
    TString<2048> text;
    text.Format("%s") << Exceptions::ThreadErrorLog();
    return std::string(text.C_Str(), text.Length());
}

/// Switches the calling thread to exceptions for as long as it lives (and back).
class CThrowMode {
public:
    CThrowMode() : m_uOld(Threading::CThrowState::SetThrow(1)) {}
    ~CThrowMode() { Threading::CThrowState::SetThrow(m_uOld); }
    CThrowMode(const CThrowMode&) = delete;
    CThrowMode& operator=(const CThrowMode&) = delete;

private:
    unsigned int m_uOld;
};

std::string ReadWhole(const boost::filesystem::path& file) {
    std::ifstream in(file.string(), std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void WritePrivate(const boost::filesystem::path& file, const Strings::CStringVar& text) {
    std::ofstream out(file.string(), std::ios::binary | std::ios::trunc);
    out.write(text.C_Str(), static_cast<std::streamsize>(text.Length()));
    out.close();
    boost::filesystem::permissions(file, boost::filesystem::owner_read | boost::filesystem::owner_write);
    if (!out) KEL_RAISE(0x20010017u, "Can't write %s", file.string());
}

// ---------------------------------------------------------------------------------------------
// The service

struct LOGICAL_DRIVE {
    int id;
    int raidLevel;
    const char* state; ///< a value-code name
    unsigned int sizeGB;
    const char* name;
};

struct EVENT_RECORD {
    int code;  ///< event code
    int drive; ///< the logical drive it concerns
};

class CMonitorService {
public:
    explicit CMonitorService(const boost::filesystem::path& home) : m_home(home) {}
    ~CMonitorService() { Stop(); }

    /// Makes or loads the identity, listens (loopback only when `loopbackOnly`) and starts
    /// accepting. Throws on failure.
    void Start(unsigned int port, bool loopbackOnly) {
        LoadOrMakeIdentity();
        if (loopbackOnly) {
            Sockets::CSocketAddr address;
            address.Resolve(std::string("127.0.0.1"), port);
            m_listener.StartListen(address);
        } else {
            m_listener.StartListen(port, 0);
        }
        m_uPort = m_listener.GetLocalAddr().GetPort();
        m_pool.Init(0, 4, 2000);
        m_acceptor.Create(Delegates_and_Calls::MakeDelegate([this] { AcceptLoop(); }));
        Say("service", Text("listening on port %d; connections are served on the thread pool", m_uPort));
    }

    void Stop() {
        if (m_bStopped.exchange(true)) return;
        m_acceptor.Wait(5000);
        m_pool.Stop();
        m_listener.StopListen();
    }

    unsigned int Port() const noexcept { return m_uPort; }

private:
    void LoadOrMakeIdentity() {
        const boost::filesystem::path folder = m_home / "monitor";
        const boost::filesystem::path keyFile = folder / "service-key.pem";
        const boost::filesystem::path certFile = folder / "service-cert.pem";
        Sockets::CSslKey key;
        Sockets::CSslCertificate certificate;
        if (boost::filesystem::exists(keyFile) && boost::filesystem::exists(certFile)) {
            key.Read(ReadWhole(keyFile));
            certificate.Read(ReadWhole(certFile));
            Say("service", Text("TLS identity kept from an earlier run (%s)", folder.string()));
        } else {
            boost::filesystem::create_directories(folder);
            Sockets::CERTIFICATE_DATA data;
            data.organization = "kelbase demo";
            data.commonName = "localhost";
            data.subjectAltNames = {"DNS:localhost", "IP:127.0.0.1", "IP:::1"};
            data.daysValid = 3650;
            certificate.MakeCertificate(data, key); // 2048-bit RSA, self-signed
            Strings::CStringVar pem;
            key.Write(pem);
            WritePrivate(keyFile, pem);
            certificate.Write(pem);
            WritePrivate(certFile, pem);
            Say("service", Text("first run: made a 2048-bit RSA key and a self-signed certificate in %s",
                                folder.string()));
        }
        Strings::CStringVar subject;
        certificate.GetSubjectName(subject);
        Say("service", Text("certificate subject: %s", subject));
        m_context.MakeContext(Sockets::SSLM_Default);
        m_context.SetPrivateKey(key);
        m_context.SetCertificate(certificate);
    }

    void AcceptLoop() {
        CThrowMode throwing;
        while (!m_bStopped.load()) {
            try {
                if (m_listener.Wait(100) != URET_Ok) continue;
                CSslSocket* socket = new CSslSocket;
                if (m_listener.Accept(*socket) != URET_Ok) {
                    delete socket;
                    continue;
                }
                m_pool.Enqueue(Delegates_and_Calls::MakeDelegate([this, socket] { Serve(socket); }));
            } catch (const Exceptions::CKelException&) {
                Say("service", "accepting failed:\n" + ErrorLogText());
            }
        }
    }

    /// One connection, from the TLS handshake to the client's close, on a pool worker.
    void Serve(CSslSocket* socket) {
        CThrowMode throwing;
        Threading::CCurrentThread().SetLngId(s_uLanguage);
        const std::string peer = [&] {
            std::string address;
            socket->GetPeerAddr().GetAddress(address);
            return address;
        }();
        CKelSocketServer channel;
        try {
            socket->SetTimeout(kSocketTimeoutMs);
            socket->MakeSecure(m_context); // an accepted socket takes the server's side
            Say("service", Text("TLS established with %s", peer));
            const unsigned int status = [&] {
                Threading::CThrowState::SetThrow(0); // a refused client is an answer, not a failure
                const unsigned int result = channel.Attach(*socket, kMonitorApplicationId);
                Threading::CThrowState::SetThrow(1);
                return result;
            }();
            if (status != URET_Ok) {
                Say("service", Text("refused the channel of %s: 0x%08X (%s)", peer, status,
                                    StatusText(status)));
                delete socket;
                return;
            }
            Say("service", Text("channel attached for %s (application id 0x%08X)", peer, kMonitorApplicationId));
            for (;;) {
                unsigned int request = 0;
                const unsigned int got = channel.WaitForRequest(request);
                if (got == URET_Closed) {
                    Say("service", Text("%s closed the channel", peer));
                    break;
                }
                if (got == URET_Timeout) {
                    Say("service", "sent the pending event mask to the client");
                    continue;
                }
                Answer(channel, request);
            }
            channel.Close();
        } catch (const Exceptions::CKelException& e) {
            Say("service", Text("connection of %s ended with 0x%08X:\n%s", peer, e.GetCode(), ErrorLogText()));
            channel.Abort();
        }
        delete socket;
    }

    void Answer(CKelSocketServer& channel, unsigned int request) {
        const std::string name = Name(OperationCodeNames, request);
        Say("service", "request " + Operation(request));
        if (name == "GET_LOGICAL_DRIVE_CONFIGURATION") {
            int controller = 0;
            channel >> controller;
            channel.SendAck(URET_Ok);
            channel << static_cast<unsigned int>(std::size(s_drives));
            for (const LOGICAL_DRIVE& drive : s_drives)
                channel << drive.id << drive.raidLevel << Code(ValueCodeNames, drive.state)
                        << drive.sizeGB << drive.name;
            Say("service", Text("answered with %d logical drives of controller %d", std::size(s_drives), controller));
            channel.EndAck();
        } else if (name == "START_REBUILD") {
            int drive = 0, slot = 0;
            channel >> drive >> slot;
            // The rebuild itself runs as a job of its own; the request is acknowledged at once,
            // and the client learns of the outcome through the event log.
            Delegates_and_Calls::CWaitableCall rebuild =
                Delegates_and_Calls::MakeWaitableCall([this, drive] { Rebuild(drive); });
            m_pool.Enqueue(rebuild);
            channel.SendAck(URET_Ok);
            Say("service", Text("rebuild of drive %d onto slot %d runs on the pool", drive, slot));
            channel.EndAck();
            rebuild.Wait();
            channel.SetEvents(kEventLogChanged);
            Say("service", "rebuild done; told the client that events are pending");
        } else if (name == "GET_EVENTS") {
            std::vector<EVENT_RECORD> events;
            {
                std::lock_guard<std::mutex> lock(m_eventsLock);
                events.swap(m_events);
            }
            channel.SendAck(URET_Ok);
            channel << static_cast<unsigned int>(events.size());
            for (const EVENT_RECORD& event : events)
                channel << event.code << event.drive;
            Say("service", Text("sent %d event records", events.size()));
            channel.EndAck();
        } else if (name == "NVRAM_LOG") {
            FILE* log = std::tmpfile();
            if (!log) KEL_RAISE_NATIVE(0x20010017u, Functions::GetOsError(), "No temporary file for the log");
            for (int line = 0; line < 120; ++line)
                std::fprintf(log, "%04d controller 0: patrol read pass %d, %d media errors corrected\n", line,
                             line / 10, line % 3);
            channel.SendAck(URET_Ok);
            channel << log;
            Say("service", Text("sent the controller log as a file of %d bytes", std::ftell(log)));
            channel.EndAck();
            std::fclose(log);
        } else {
            channel.Skip(); // the parameters of an operation this service does not know
            const int error = Code(ErrorCodeNames, "INVALID_OPERATION");
            channel.SendAck(static_cast<unsigned int>(error));
            Say("service", Text("not supported here: acknowledged with error %d", error));
            channel.EndAck();
        }
    }

    void Rebuild(int drive) {
        Threading::CCurrentThread().Sleep(100); // the controller at work
        std::lock_guard<std::mutex> lock(m_eventsLock);
        m_events.push_back({Code(EventCodeNames, "REBUILD_STARTED"), drive});
        m_events.push_back({Code(EventCodeNames, "REBUILD_FINISHED"), drive});
    }

public:
    static unsigned int s_uLanguage;

private:
    static constexpr LOGICAL_DRIVE s_drives[] = {
        {0, 5, "OK", 1863, "system"},
        {1, 1, "DEGRADED", 931, "database"},
        {2, 6, "OK", 7452, "archive"},
    };

    boost::filesystem::path m_home;
    Sockets::CSslContext m_context;
    Sockets::CSocketListener m_listener;
    Threading::CThreadPool m_pool;
    Threading::CThread m_acceptor;
    std::atomic<bool> m_bStopped{false};
    unsigned int m_uPort = 0;
    std::mutex m_eventsLock;
    std::vector<EVENT_RECORD> m_events;
};

unsigned int CMonitorService::s_uLanguage = 0;

// ---------------------------------------------------------------------------------------------
// The client

/// Sends one request: `parameters` writes them, `results` reads the answer. Returns the ack.
template <class P, class R>
unsigned int Request(CKelSocketClient& channel, const char* operation, P&& parameters, R&& results) {
    const unsigned int code = static_cast<unsigned int>(Code(OperationCodeNames, operation));
    Say("client", "request " + Operation(code));
    channel.StartRequest(code);
    parameters(channel);
    unsigned int ack = 0;
    channel.WaitForAck(ack);
    if (ack == URET_Ok) {
        results(channel);
    } else {
        Say("client", Text("acknowledged with error %d %s (%s)", ack, Name(ErrorCodeNames, ack),
                           Label(static_cast<int>(ack))));
    }
    channel.EndRequest();
    return ack;
}

int RunClient(const std::string& host, unsigned int port) {
    CThrowMode throwing;
    Threading::CCurrentThread().SetLngId(CMonitorService::s_uLanguage);
    try {
        Sockets::CSslContext context;
        context.MakeContext(Sockets::SSLM_Default); // the demo's certificate is self-signed: no verification

        // A program with another application id is refused by the service: shown in status mode.
        {
            CSslSocket socket;
            socket.SetTimeout(kSocketTimeoutMs);
            socket.Connect(host, port);
            socket.MakeSecure(context);
            CKelSocketClient stranger;
            Threading::CThrowState::SetThrow(0);
            const unsigned int status = stranger.Attach(socket, 0x12345678);
            Threading::CThrowState::SetThrow(1);
            Say("client", Text("a client with application id 0x12345678 is refused: Attach returned 0x%08X (%s)",
                               status, StatusText(status)));
        }

        CSslSocket socket;
        socket.SetTimeout(kSocketTimeoutMs);
        socket.Connect(host, port); // a connecting socket takes the client's side of TLS
        socket.MakeSecure(context);
        Say("client", Text("connected to %s:%d over TLS", host, port));
        CKelSocketClient channel;
        channel.Attach(socket, kMonitorApplicationId);
        Say("client", Text("channel attached (application id 0x%08X)", kMonitorApplicationId));

        Request(
            channel, "GET_LOGICAL_DRIVE_CONFIGURATION", [](CKelSocketClient& c) { c << 0; },
            [](CKelSocketClient& c) {
                unsigned int count = 0;
                c >> count;
                Say("client", Text("%d logical drives:", count));
                for (unsigned int i = 0; i < count; ++i) {
                    int id = 0, level = 0, state = 0;
                    unsigned int size = 0;
                    std::string name;
                    c >> id >> level >> state >> size >> name;
                    Say("client", Text("  drive %d  RAID-%d  %+ 5d GB  %- 10s %s", id, level, size, name, Label(state)));
                }
            });

        Request(
            channel, "START_REBUILD", [](CKelSocketClient& c) { c << 1 << 4; }, [](CKelSocketClient&) {});
        Say("client", "waiting for the service to announce events");
        if (channel.Wait(10000) != URET_Ok) KEL_RAISE(0x20010022u, "No event notice within 10 s");
        unsigned long long mask = 0;
        channel.GetEvents(mask);
        Say("client", Text("events pending, mask 0x%X", mask));
        if (mask & kEventLogChanged)
            Request(
                channel, "GET_EVENTS", [](CKelSocketClient&) {},
                [](CKelSocketClient& c) {
                    unsigned int count = 0;
                    c >> count;
                    for (unsigned int i = 0; i < count; ++i) {
                        int event = 0, drive = 0;
                        c >> event >> drive;
                        Say("client", Text("  event %d %s on drive %d: %s", event,
                                           Name(EventCodeNames, static_cast<unsigned int>(event)), drive,
                                           Label(event)));
                    }
                });

        Request(
            channel, "NVRAM_LOG", [](CKelSocketClient&) {},
            [](CKelSocketClient& c) {
                FILE* copy = std::tmpfile();
                if (!copy) KEL_RAISE_NATIVE(0x20010017u, Functions::GetOsError(), "No temporary file for the log");
                c >> copy;
                const long size = std::ftell(copy);
                std::rewind(copy);
                char first[128] = {};
                if (!std::fgets(first, sizeof first, copy)) first[0] = 0;
                std::fclose(copy);
                first[std::strcspn(first, "\n")] = 0;
                Say("client", Text("received the controller log: %d bytes in 4096-byte pieces; first line:", size));
                Say("client", Text("  %s", first));
            });

        Request(
            channel, "ALARM_ON", [](CKelSocketClient&) {}, [](CKelSocketClient&) {});

        channel.Close();
        Say("client", "closed");
        return 0;
    } catch (const Exceptions::CKelException& e) {
        Say("client", Text("failed with 0x%08X:\n%s", e.GetCode(), ErrorLogText()));
        return 1;
    }
}

std::atomic<bool> g_bStop{false};
extern "C" void OnSignal(int) { g_bStop = true; }

int Usage() {
    std::fputs("usage: kel_monitor [--lang en|de] [--server [PORT] | --client HOST:PORT]\n"
               "  no mode: a service and a client talk over TLS on loopback in this process\n"
               "  --server: run the service on PORT (default 7010) until Ctrl-C\n"
               "  --client: talk to a service at HOST:PORT\n",
               stderr);
    return 2;
}

} // namespace

int main(int argc, char** argv) {
    enum { BOTH, SERVER, CLIENT } mode = BOTH;
    unsigned int port = kDefaultPort;
    std::string host = "127.0.0.1";
    CMonitorService::s_uLanguage = Language_Support::Default_Language_ID;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--lang" && i + 1 < argc && std::strlen(argv[i + 1]) == 2) {
            const char* language = argv[++i];
            CMonitorService::s_uLanguage = Language_Support::MakeLanguageID(language[0], language[1]);
        } else if (arg == "--server") {
            mode = SERVER;
            if (i + 1 < argc && argv[i + 1][0] != '-') port = static_cast<unsigned int>(std::stoul(argv[++i]));
        } else if (arg == "--client" && i + 1 < argc) {
            mode = CLIENT;
            const std::string target = argv[++i];
            const size_t colon = target.rfind(':');
            if (colon == std::string::npos) return Usage();
            host = target.substr(0, colon);
            port = static_cast<unsigned int>(std::stoul(target.substr(colon + 1)));
        } else {
            return Usage();
        }
    }

    boost::filesystem::path program;
    Misc::CKelApplication::GetProcessPath(program);
    Trace::CTrace trace;
    if (trace.Open(program.parent_path(), "Monitor") != URET_Ok)
        Say("main", "no trace file:\n" + ErrorLogText());
    Sockets::InitSslLibrary();

    int result = 0;
    if (mode == CLIENT) {
        result = RunClient(host, port);
    } else {
        CMonitorService service(program.parent_path());
        try {
            CThrowMode throwing;
            service.Start(mode == BOTH ? 0 : port, mode == BOTH);
        } catch (const Exceptions::CKelException& e) {
            Say("service", Text("could not start (0x%08X):\n%s", e.GetCode(), ErrorLogText()));
            return 1;
        }
        if (mode == BOTH) {
            result = RunClient(host, service.Port());
        } else {
            std::signal(SIGINT, OnSignal);
            std::signal(SIGTERM, OnSignal);
            Say("service", "serving until Ctrl-C");
            while (!g_bStop.load())
                Threading::CCurrentThread().Sleep(200);
        }
        service.Stop();
    }
    Say("main", Text("trace written to %s", trace.GetLogDirectory().string()));
    Sockets::UninitSslLibrary();
    return result;
}
