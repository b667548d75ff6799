// kel_demo: a short tour of kelbase, the program `make demo` runs.
//
// It shows what the library offers so far: strings that grow past their inline buffer, the
// `%`-directive formatting with alignment and re-ordered fields, one failing operation read
// back first as a returned status and then caught as an exception with the rendered error log,
// one event text in two languages from two threads, a batch of jobs on the thread pool with one
// failing job's error read back from its delegate, a client and a server talking over the
// message channel on loopback, and the trace file all of it went to.
#define KEL_SOURCE_FILE "examples/kel_demo" // the area named in error logs
#include <kel/kelbase.h>

#include <boost/filesystem/operations.hpp>

#include <cstdio>
#include <mutex>
#include <string>
#include <vector>
#include <thread>

using namespace KEL;
using Strings::CStringVar;
using Strings::TString;

namespace {

void Section(const char* title) {
    TString<128> line;
    line.Format("\n%=-60s\n") << title;
    std::fputs(line.C_Str(), stdout);
}

void Print(const Strings::CStringRef& text) {
    std::fputs(text.C_Str(), stdout);
    std::fputc('\n', stdout);
}

void Strings_() {
    Section(" strings ");
    TString<32> name;
    TString<128> line;
    for (const char* piece : {"RAID", "-5 ", "array ", "on controller 0, ", "enclosure 2, slots 0 to 7"}) {
        name += piece;
        line = Strings::_TEmpty;
        line.Format("%-.44s length %+ 3d, capacity %+ 4d\n")
            << static_cast<const Strings::CSubStringRef&>(name) << name.Length() << name.Capacity();
        std::fputs(line.C_Str(), stdout);
    }
    Print("TString<32> holds 39 characters inline; the 40th moved the text to the heap.");
}

void Formatting() {
    Section(" formatting ");
    TString<256> table;
    table.Format("%-.12s|%= *s|%+ 8s|\n") << "drive" << 10 << "state" << "size";
    table.Format("%-.12s|%= 10s|%+ 8d|\n") << "PD 0:1" << "online" << 1863;
    table.Format("%-.12s|%= 10s|%+ 8d|\n") << "PD 0:2" << "rebuild" << 1863;
    std::fputs(table.C_Str(), stdout);

    // A translated text may put the arguments in another order than the program passes them.
    Output_Streams::CFormatResortBuffer fields;
    fields.Format("%s%d", "Disk %2 of array %1 failed.") << "A" << 3;
    TString<128> sorted;
    fields.PutInOrder(sorted);
    Print(sorted);
}

void Failures() {
    Section(" failures ");
    CStringVar latin1;
    const char* euro = "price: 5 \xE2\x82\xAC"; // U+20AC has no single-byte form

    unsigned int status = latin1.CopyFromUTF8(euro); // throw mode is off for a new thread
    TString<128> line;
    line.Format("throw mode off: CopyFromUTF8 returned 0x%08X\n") << status;
    std::fputs(line.C_Str(), stdout);

    Threading::CThrowState::SetThrow(1);
    try {
        latin1.CopyFromUTF8(euro);
        Print("throw mode on: no exception?");
    } catch (const Exceptions::CKelException& e) {
        line = Strings::_TEmpty;
        line.Format("throw mode on:  caught CKelException 0x%08X\n") << e.GetCode();
        std::fputs(line.C_Str(), stdout);
    }
    Threading::CThrowState::SetThrow(0);

    Print("\nthe thread's error log:");
    TString<1024> report;
    report.Format("%s") << Exceptions::ThreadErrorLog();
    std::fputs(report.C_Str(), stdout);
}

// The same event in the language of each thread: one thread speaks German (NLS/de.xml beside
// the program), the other has no language and reads English.
void Languages() {
    Section(" languages ");
    const unsigned int event = 10078; // EVT_LOGICALDRIVE_DEGRADED
    std::string german, english;
    std::thread de([&] {
        Threading::CCurrentThread().SetLngId(Language_Support::MakeLanguageID('d', 'e'));
        Language_Support::CLanguageSupport::ResolveString(event, german, false);
    });
    std::thread en([&] { Language_Support::CLanguageSupport::ResolveString(event, english, false); });
    de.join();
    en.join();
    TString<256> line;
    line.Format("event %d, English thread: %s\nevent %d, German thread:  %s")
        << event << english << event << german;
    Print(line);
}

// A batch of jobs on the thread pool; one of them fails, and its delegate keeps the error.
void Pool() {
    Section(" thread pool ");
    Threading::CThreadPool pool;
    pool.Init(0, 2, 1000);
    std::vector<Delegates_and_Calls::CWaitableCall> jobs;
    for (int drive = 0; drive < 4; ++drive) {
        jobs.push_back(Delegates_and_Calls::MakeWaitableCall([drive] {
            if (drive == 2) KEL_RAISE(0x20010029u, "Drive %d reports a capacity out of range", drive);
        }));
        pool.Enqueue(jobs.back());
    }
    TString<1024> line;
    for (size_t i = 0; i < jobs.size(); ++i) {
        jobs[i].Wait();
        Exceptions::CErrorLog log;
        unsigned int code = jobs[i].GetError(log);
        if (code == 0) {
            line.Format("job %d: done\n") << i;
        } else {
            line.Format("job %d: failed with 0x%08X, its delegate kept the error log:\n%!s") << i << code << log;
        }
    }
    pool.Stop();
    std::fputs(line.C_Str(), stdout);
}

// A client and a server on loopback: handshake, a request with parameters answered with
// results, an event pushed by the server and fetched by the client, a file, and the close.
void Channel() {
    Section(" message channel ");
    constexpr unsigned int kDemoApp = 0x44454D4Fu; // both ends must agree on it
    std::mutex printing;
    auto say = [&](const char* who, const std::string& what) {
        std::lock_guard<std::mutex> hold(printing);
        std::printf("  %s: %s\n", who, what.c_str());
    };
    Sockets::CSocketListener listener;
    Sockets::CSocket clientSocket, serverSocket;
    listener.StartListen(0, 0);
    clientSocket.ConnectLocal(listener.GetLocalAddr().GetPort());
    listener.Wait(5000);
    listener.Accept(serverSocket);

    std::thread server([&] {
        Sockets::CKelSocketServer s;
        if (s.Attach(serverSocket, kDemoApp) != 1) return say("server", "handshake failed");
        say("server", "client accepted");
        for (;;) {
            unsigned int code = 0;
            const unsigned int r = s.WaitForRequest(code);
            if (r == URET_Timeout) {
                say("server", "answered an events query");
                continue;
            }
            if (r != 1) {
                say("server", r == URET_Closed ? "client said goodbye, closing" : "request failed");
                break;
            }
            if (code == 1) {
                int controller = 0;
                std::string array;
                s >> controller >> array;
                say("server", "request 1 (array state) for controller " + std::to_string(controller) + ", " + array);
                s.SendAck(0);
                s << 2048u << "optimal";
                s.EndAck();
                s.SetEvents(0x4);
                say("server", "event 0x4 (rebuild finished) set for the client");
            } else {
                s.Skip();
                say("server", "request " + std::to_string(code) + " (controller log): sending a file");
                s.SendAck(0);
                FILE* log = std::tmpfile();
                for (int i = 0; i < 500; ++i) std::fprintf(log, "%04d: slot %d ok\n", i, i % 8);
                s << log;
                std::fclose(log);
                s.EndAck();
            }
        }
        s.Close();
    });

    Sockets::CKelSocketClient c;
    if (c.Attach(clientSocket, kDemoApp) != 1) {
        say("client", "handshake failed");
    } else {
        say("client", "connected, server speaks protocol version " + std::to_string(c.GetPeerVersion()));
        unsigned int ack = 0;
        c.StartRequest(1);
        c << 0 << "array-5";
        c.WaitForAck(ack);
        unsigned int sizeGb = 0;
        std::string state;
        c >> sizeGb >> state;
        c.EndRequest();
        say("client", "ack " + std::to_string(ack) + ": " + std::to_string(sizeGb) + " GB, " + state);
        unsigned long long events = 0;
        if (c.Wait(5000) == 1 && c.GetEvents(events) == 1) {
            TString<64> text;
            text.Format("events fetched: 0x%X") << events;
            say("client", text.C_Str());
        }
        c.StartRequest(2);
        c.WaitForAck(ack);
        FILE* copy = std::tmpfile();
        c >> copy;
        c.EndRequest();
        say("client", "controller log received, " + std::to_string(std::ftell(copy)) + " bytes");
        std::fclose(copy);
        c.Close();
        say("client", "closed");
    }
    server.join();
}

// The trace lives beside the program: <program folder>/logs/Demo_<pid>_<n>.log, with its
// settings in <program folder>/Demo.ini (defaults when there is none).
void ShowTrace(const Trace::CTrace& trace) {
    Section(" trace ");
    TString<512> line;
    line.Format("trace files in %s:\n") << trace.GetLogDirectory().string();
    FileSystem::CDirectory files(trace.GetLogDirectory(), "Demo_.*\\.log", 1);
    std::vector<boost::filesystem::path> names;
    files.List(names);
    for (const boost::filesystem::path& file : names)
        line.Format("  %s (%d bytes)\n") << file.filename().string()
                                          << static_cast<unsigned long long>(boost::filesystem::file_size(file));
    std::fputs(line.C_Str(), stdout);
}

} // namespace

int main() {
    boost::filesystem::path program;
    Misc::CKelApplication::GetProcessPath(program);
    Trace::CTrace trace;
    if (trace.Open(program.parent_path(), "Demo") != 1) {
        TString<1024> report;
        report.Format("The trace could not be opened:\n%s") << Exceptions::ThreadErrorLog();
        Print(report);
    }
    KEL_TRACE(KEL_MODULE_INFO_KelLib, 0x20000000, "main", "kelbase demo started (trace flags 0x%08X)\n")
        << trace.GetFlags();

    Print("kelbase demo");
    Strings_();
    Formatting();
    Failures();
    Languages();
    Pool();
    Channel();

    KEL_TRACE(KEL_MODULE_INFO_KelLib, 0x20000000, "main", "kelbase demo ends\n");
    ShowTrace(trace);
    return 0;
}
