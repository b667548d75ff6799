// channel_client: the message channel client of docs/getting-started.md, compiled so that the
// page cannot drift from the library (the docs test compares the two). Run channel_server first.
#include <kel/kelbase.h>
#include <cstdio>
using namespace KEL;

constexpr unsigned int kAppId = 0x4B454C01, kPort = 7010;

int main() {
    Threading::CThrowState::SetThrow(1);
    Sockets::CSocket socket;
    socket.ConnectLocal(kPort);
    Sockets::CKelSocketClient client;
    client.Attach(socket, kAppId);

    client.StartRequest(50108);                   // OPERATION 50108
    client << 20 << 22;
    unsigned int ack = 0;
    client.WaitForAck(ack);
    int sum = 0;
    std::string label;
    client >> sum >> label;
    client.EndRequest();
    std::printf("ack %u: %s = %d\n", ack, label.c_str(), sum);
    client.Close();
    return 0;
}
