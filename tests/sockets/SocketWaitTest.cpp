// kelbase - tests/sockets/SocketWaitTest.cpp
//
// The wait for a single socket (no wait list): ready input, the zero and short time-outs, the
// peer's close, and interrupts that arrive while the thread is not waiting or are disabled.
#include "../common/TestUtil.h"

#include <kel/Exceptions.h>
#include <kel/Sockets.h>
#include <kel/Threading.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

using namespace KEL::Sockets;
using KEL::Threading::CCurrentThread;
using KEL::Threading::CEvent;
using KEL::Threading::CThread;
using kel_test::Fn;
using kel_test::kHangGuardMs;
using kel_test::NewEvent;
using kel_test::RaisedCode;

namespace {

using SingleSocketWait = kel_test::TLoopbackPair<CSocket>;

TEST_F(SingleSocketWait, ReadyInputEndsEvenAZeroTimeoutUntilItIsRead) {
    EXPECT_EQ(m_Client.Wait(0), KEL::URET_Timeout);
    EXPECT_FALSE(m_Client.CanRead());
    ASSERT_EQ(m_Server.Write("abc", 3, nullptr), 1u);
    EXPECT_EQ(m_Client.Wait(kHangGuardMs), 1u);
    EXPECT_TRUE(m_Client.CanRead());
    // Nothing was consumed: the bytes still make the socket ready at once.
    EXPECT_EQ(m_Client.Wait(0), 1u);
    char in[3];
    size_t got = 0;
    ASSERT_EQ(m_Client.Read(in, sizeof in, &got, RM_Normal), 1u);
    EXPECT_EQ(got, 3u);
    EXPECT_EQ(std::string(in, 3), "abc");
    EXPECT_EQ(m_Client.Wait(0), KEL::URET_Timeout);
    EXPECT_EQ(m_Client.Wait(20), KEL::URET_Timeout);
}

TEST_F(SingleSocketWait, TimeoutThroughTheSocketsOwnWaitRaisesSocketTimeout) {
    m_Client.SetTimeout(20);
    EXPECT_EQ(RaisedCode([&] { m_Client.Wait(); }), 0x20010022u);
}

TEST_F(SingleSocketWait, PeerAbortWakesTheWaiterWithCloseAndCanRead) {
    CEvent waiting = NewEvent(true, false);
    std::atomic<unsigned int> result{0};
    CThread t;
    t.Create(Fn([&] {
        waiting.Set();
        result = m_Client.Wait(kHangGuardMs);
    }));
    ASSERT_EQ(waiting.Wait(kHangGuardMs), 1u);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    m_Server.Abort();
    ASSERT_EQ(t.Wait(kHangGuardMs), 1u);
    EXPECT_EQ(result.load(), 1u);
    EXPECT_TRUE(m_Client.GetStatus() & CSocket::ST_Close);
    EXPECT_TRUE(m_Client.CanRead());
}

// A cancel that reached the thread outside any wait leaves its wake-up behind; once the
// interrupt is cleared, that wake-up must neither raise nor end the next socket wait early.
TEST_F(SingleSocketWait, ClearedCancelFromOutsideAWaitDoesNotEndTheNextOne) {
    CEvent cancelled = NewEvent(true, false);
    CEvent waiting = NewEvent(true, false);
    std::atomic<bool> go{false};
    std::atomic<unsigned int> result{0};
    std::atomic<unsigned int> code{0};
    CThread t;
    t.Create(Fn([&] {
        cancelled.Set();
        while (!go.load()) std::this_thread::yield();
        CCurrentThread ct;
        ct.ClearInterrupt(CCurrentThread::ThreadInterruptOnly);
        waiting.Set();
        code = RaisedCode([&] { result = m_Client.Wait(kHangGuardMs); });
    }));
    ASSERT_EQ(cancelled.Wait(kHangGuardMs), 1u);
    t.Cancel();
    go = true;
    ASSERT_EQ(waiting.Wait(kHangGuardMs), 1u);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    ASSERT_EQ(m_Server.Write("x", 1, nullptr), 1u);
    ASSERT_EQ(t.Wait(kHangGuardMs), 1u);
    EXPECT_EQ(code.load(), 0u);
    EXPECT_EQ(result.load(), 1u);
}

TEST_F(SingleSocketWait, DisabledCancelLetsTheWaitRunOnUntilInputArrives) {
    CEvent waiting = NewEvent(true, false);
    std::atomic<unsigned int> result{0};
    std::atomic<unsigned int> code{0};
    CThread t;
    t.Create(Fn([&] {
        CCurrentThread ct;
        KEL::Threading::CSyncGuard g;
        ct.DisableInterrupt(g, CCurrentThread::ThreadInterruptOnly);
        waiting.Set();
        code = RaisedCode([&] { result = m_Client.Wait(kHangGuardMs); });
    }));
    ASSERT_EQ(waiting.Wait(kHangGuardMs), 1u);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    t.Cancel();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(result.load(), 0u); // still waiting: the cancel is not enabled
    ASSERT_EQ(m_Server.Write("y", 1, nullptr), 1u);
    ASSERT_EQ(t.Wait(kHangGuardMs), 1u);
    EXPECT_EQ(code.load(), 0u);
    EXPECT_EQ(result.load(), 1u);
}

} // namespace
