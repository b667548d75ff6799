// channel_server: the message channel server of docs/getting-started.md, compiled so that the
// page cannot drift from the library (the docs test compares the two). It answers request 50108
// on port 7010 with the sum of two numbers and a text, for every client that connects.
#include <kel/kelbase.h>
#include <cstdio>
using namespace KEL;

constexpr unsigned int kAppId = 0x4B454C01, kPort = 7010;

int main() {
    Threading::CThrowState::SetThrow(1);
    Sockets::CSocketListener listener;
    listener.StartListen(kPort, 0);
    for (;;) {
        Sockets::CSocket socket;
        listener.Wait(0xFFFFFFFF);
        if (listener.Accept(socket) != 1) continue;
        try {
            Sockets::CKelSocketServer server;
            server.Attach(socket, kAppId);
            unsigned int request = 0, status;
            while ((status = server.WaitForRequest(request)) != URET_Closed) {
                if (status != URET_Ok) continue;              // 130: an event query was answered
                int a = 0, b = 0;
                if (request == 50108) server >> a >> b; else server.Skip();
                server.SendAck(request == 50108 ? 1 : 0);
                if (request == 50108) server << a + b << std::string("sum");
                server.EndAck();
            }
            server.Close();
        } catch (const Exceptions::CKelException& e) {    // this client failed; serve the next
            std::fprintf(stderr, "client failed: 0x%08X\n", e.GetCode());
        }
    }
}
