// kelbase - tests/sockets/SocketTraceTest.cpp
//
// The receive trace lines under category 0x20000000: what a partial read, a read that would
// block and a complete read that had to wait write to the trace file.
#include "../common/TestUtil.h"

#include <kel/Exceptions.h>
#include <kel/Functions.h>
#include <kel/Sockets.h>
#include <kel/Trace.h>

#include <boost/filesystem.hpp>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

using namespace KEL::Sockets;
using kel_test::kHangGuardMs;

namespace fs = boost::filesystem;

namespace {

// True while thread `tid` of this process sleeps in poll or ppoll: the socket wait. Read from
// the kernel, so another thread can watch for it without touching the socket's own fields.
bool BlockedInPoll(long tid) {
    std::ifstream f("/proc/self/task/" + std::to_string(tid) + "/syscall");
    long number = -1;
    return (f >> number) && (number == SYS_poll || number == SYS_ppoll);
}

} // namespace

TEST(SocketTrace, ReadTracesEachReceiveAndTheWouldBlockWaits) {
    const fs::path dir = fs::temp_directory_path() / fs::unique_path("kel-socktrace-%%%%-%%%%");
    fs::create_directories(dir);
    const unsigned int saved = KEL::KEL_MODULE_INFO_KelLib.GetTrcPoints();
    {
        CSocketListener listener;
        listener.StartListen(0, 0);
        CSocket client, server;
        client.ConnectLocal(listener.GetLocalAddr().GetPort());
        ASSERT_EQ(listener.Wait(kHangGuardMs), 1u);
        ASSERT_EQ(listener.Accept(server), 1u);

        KEL::Trace::CTrace trace;
        ASSERT_EQ(trace.Open(dir, "SockTrace"), 1u);
        ASSERT_TRUE(KEL::KEL_MODULE_INFO_KelLib.GetTrcPoints() & 0x20000000u);
        char in[100];
        size_t got = 0;
        ASSERT_EQ(client.Read(in, sizeof in, &got), 131u);
        server.Write("a", 1, nullptr);
        ASSERT_EQ(client.Wait(kHangGuardMs), 1u);
        ASSERT_TRUE(client.CanRead());
        // The rest comes once the reader met "would block" and waits for the socket.
        const long reader = ::syscall(SYS_gettid);
        std::thread writer([&] {
            if (kel_test::Eventually([&] { return BlockedInPoll(reader); })) server.Write("bc", 2, nullptr);
        });
        ASSERT_EQ(client.Read(in, 3), 1u);
        writer.join();
        trace.Close();
    }
    KEL::KEL_MODULE_INFO_KelLib.SetTrcPoints(saved);
    const fs::path file = dir / "logs" / ("SockTrace_" + std::to_string(KEL::Functions::GetCurrentProcessID()) + "_0.log");
    std::ifstream f(file.string(), std::ios::binary);
    const std::string text((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    EXPECT_NE(text.find("KEL::Sockets::CSocket::Read@"), std::string::npos) << text;
    EXPECT_NE(text.find("\nBefore recv() to read 100 bytes, ReadMode 0\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\n::GetLastError = " + std::to_string(EAGAIN) + "\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\nAfter recv() we have read -1 bytes, CheckBlocking() return 131\n"), std::string::npos)
        << text;
    EXPECT_NE(text.find("\nBefore recv() to read 3 bytes, ReadMode 0\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\nURET_WouldBlock iteration = 1\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\nAfter recv() we have read 1 bytes, CheckBlocking() return 1\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\nBefore recv() to read 2 bytes, ReadMode 0\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\nOK, we have read all (3) bytes\n"), std::string::npos) << text;
    boost::system::error_code ec;
    fs::remove_all(dir, ec);
}
