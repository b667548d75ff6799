// kelbase - tests/threads/InterruptTest.cpp
//
// The interrupt model: thread and user interrupts before, during and after waits, the mask
// rules of checks and guards, and waits that keep their time-out under repeated alerts.
#include "../common/TestUtil.h"

#include <kel/Functions.h>
#include <kel/Threading.h>

#include "threads/ThreadCB.h"

#include <atomic>
#include <thread>

using namespace KEL::Threading;
using kel_test::Fn;
using kel_test::kHangGuardMs;
using kel_test::NewEvent;
using kel_test::RaisedCode;

namespace {
constexpr unsigned int kThreadIntr = 0x2001003Au;
constexpr unsigned int kWaitIntr = 0x2001003Bu;

// Runs `body` on a thread with a clean interrupt state on this (foreign) thread afterwards.
class InterruptTest : public ::testing::Test {
protected:
    void TearDown() override {
        CCurrentThread ct;
        ct.SetWaitInterrupt(nullptr);
        ct.ClearInterrupt(3);
        ct.SetInterruptMask(0);
    }
};
} // namespace

TEST_F(InterruptTest, CancelDuringAWaitEndsItWithThreadInterrupt) {
    CEvent never = NewEvent(true, false);
    CEvent waiting = NewEvent(true, false);
    std::atomic<unsigned int> code{0};
    CThread t;
    t.Create(Fn([&] {
        waiting.Set();
        code = RaisedCode([&] { never.Wait(kHangGuardMs); });
    }));
    ASSERT_EQ(waiting.Wait(kHangGuardMs), 1u);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    t.Cancel();
    ASSERT_EQ(t.Wait(kHangGuardMs), 1u);
    EXPECT_EQ(code.load(), kThreadIntr);
}

TEST_F(InterruptTest, CancelBeforeTheWaitEndsItAtOnce) {
    CEvent cancelled = NewEvent(true, false);
    CEvent never = NewEvent(true, false);
    std::atomic<unsigned int> code{0};
    CThread t;
    t.Create(Fn([&] {
        cancelled.Wait(kHangGuardMs);
        code = RaisedCode([&] { never.Wait(kHangGuardMs); });
    }));
    t.Cancel();
    cancelled.Set();
    ASSERT_EQ(t.Wait(kHangGuardMs), 1u);
    // The first wait may have been broken already; the second one surely is.
    EXPECT_EQ(code.load(), kThreadIntr);
}

TEST_F(InterruptTest, CancelOfASuspendedStartIsPendingOnceTheThreadRuns) {
    // The thread kind is enabled by the thread body; a Cancel that comes first is not lost.
    std::atomic<unsigned int> code{0};
    CEvent never = NewEvent(true, false);
    for (int i = 0; i < 50; ++i) {
        CThread t;
        code = 0;
        t.Create(Fn([&] { code = RaisedCode([&] { never.Wait(kHangGuardMs); }); }));
        t.Cancel();
        ASSERT_EQ(t.Wait(kHangGuardMs), 1u);
        ASSERT_EQ(code.load(), kThreadIntr);
    }
}

TEST_F(InterruptTest, InterruptAfterAWaitBreaksTheNextOneUntilCleared) {
    CEvent done = NewEvent(true, true);
    CEvent cancelled = NewEvent(true, false);
    std::atomic<unsigned int> first{0}, second{0}, third{0}, mask{0};
    CThread t;
    t.Create(Fn([&] {
        first = done.Wait(0); // completes normally
        cancelled.Wait(kHangGuardMs);
        second = RaisedCode([&] { done.Wait(0); }); // already signalled object: still interrupted
        CCurrentThread ct;
        ct.ClearInterrupt(CCurrentThread::ThreadInterruptOnly);
        third = done.Wait(0);
        mask = ct.GetInterruptMask();
    }));
    ASSERT_TRUE(kel_test::Eventually([&] { return first.load() == 1u; }));
    t.Cancel();
    cancelled.Set();
    ASSERT_EQ(t.Wait(kHangGuardMs), 1u);
    EXPECT_EQ(second.load(), kThreadIntr);
    EXPECT_EQ(third.load(), 1u);
    EXPECT_EQ(mask.load(), 3u);
}

TEST_F(InterruptTest, ClearedThreadInterruptCanBeRaisedAgain) {
    std::atomic<int> raised{0};
    CEvent never = NewEvent(true, false);
    CEvent ready = NewEvent(false, false);
    CThread t;
    t.Create(Fn([&] {
        for (int i = 0; i < 2; ++i) {
            ready.Set();
            if (RaisedCode([&] { never.Wait(kHangGuardMs); }) == kThreadIntr) raised.fetch_add(1);
            CCurrentThread().ClearInterrupt(CCurrentThread::ThreadInterruptOnly);
        }
    }));
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(ready.Wait(kHangGuardMs), 1u);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        t.Cancel();
        ASSERT_TRUE(kel_test::Eventually([&] { return raised.load() == i + 1; }));
    }
    ASSERT_EQ(t.Wait(kHangGuardMs), 1u);
}

TEST_F(InterruptTest, AUserInterruptInstalledAlreadySignalledThrowsAtOnce) {
    CWaitInterrupt intr;
    ASSERT_EQ(intr.Init(), 1u);
    EXPECT_EQ(RaisedCode([&] { intr.Init(); }), 0x20010038u);
    intr.Set();
    CCurrentThread ct;
    ct.SetWaitInterrupt(intr);
    CSyncGuard g;
    ct.EnableInterrupt(g, CCurrentThread::UserInterruptOnly);
    CEvent e = NewEvent(true, true);
    EXPECT_EQ(RaisedCode([&] { e.Wait(0); }), kWaitIntr);
    CWaiter w;
    w << e;
    EXPECT_EQ(RaisedCode([&] { w.Wait(0); }), kWaitIntr);
    EXPECT_EQ(RaisedCode([&] { ct.Sleep(1); }), kWaitIntr);
    // Reset does not clear what is already pending; ClearInterrupt does.
    intr.Reset();
    EXPECT_EQ(RaisedCode([&] { e.Wait(0); }), kWaitIntr);
    ct.ClearInterrupt(CCurrentThread::UserInterruptOnly);
    EXPECT_EQ(e.Wait(0), 1u);
}

TEST_F(InterruptTest, InterruptGuardThrowsForASignalledInterruptAndRestores) {
    CWaitInterrupt intr;
    intr.Init();
    intr.Set();
    CCurrentThread ct;
    ct.SetInterruptMask(1);
    {
        CInterruptGuard guard;
        EXPECT_EQ(RaisedCode([&] { guard.SetWaitInterrupt(intr); }), kWaitIntr);
        EXPECT_EQ(ct.GetInterruptMask(), 2u); // narrowed to the raised kind
    }
    EXPECT_EQ(ct.GetInterruptMask(), 1u);
    CWaitInterrupt installed = ct.SetWaitInterrupt(nullptr);
    EXPECT_FALSE(installed.IsInitialized());
}

TEST_F(InterruptTest, AnUnusedInterruptGuardRemovesTheUserInterruptAndOpensTheMask) {
    CWaitInterrupt intr;
    intr.Init();
    CCurrentThread ct;
    ct.SetWaitInterrupt(intr);
    ct.SetInterruptMask(1);
    { CInterruptGuard guard; }
    EXPECT_EQ(ct.GetInterruptMask(), 0xFFFFFFFFu);
    CWaitInterrupt installed = ct.SetWaitInterrupt(nullptr);
    EXPECT_FALSE(installed.IsInitialized());
}

TEST_F(InterruptTest, BothPendingRaiseThreadInterruptAndKeepOnlyTheThreadKind) {
    CWaitInterrupt intr;
    intr.Init();
    std::atomic<unsigned int> code{0}, mask{0}, pending{0}, again{0};
    CEvent ready = NewEvent(true, false);
    CEvent go = NewEvent(true, false);
    CThread t;
    t.Create(Fn([&] {
        CCurrentThread ct;
        ct.SetWaitInterrupt(intr);
        ready.Set();
        while (ct->GetPendingInterrupts() != 3u) std::this_thread::sleep_for(std::chrono::microseconds(100));
        code = RaisedCode([&] { ct.CheckInterrupt(); });
        mask = ct.GetInterruptMask();
        pending = ct->GetPendingInterrupts(); // a check does not clear
        again = RaisedCode([&] { ct.CheckInterrupt(); });
        ct.ClearInterrupt(3);
        ct.SetWaitInterrupt(nullptr);
    }));
    ASSERT_EQ(ready.Wait(kHangGuardMs), 1u);
    intr.Set();
    t.Cancel();
    ASSERT_EQ(t.Wait(kHangGuardMs), 1u);
    EXPECT_EQ(code.load(), kThreadIntr);
    EXPECT_EQ(mask.load(), 1u);
    EXPECT_EQ(pending.load(), 3u);
    EXPECT_EQ(again.load(), kThreadIntr);
}

TEST_F(InterruptTest, DisableInterruptSetsTheComplementAndTheGuardRestores) {
    CCurrentThread ct;
    ct.SetInterruptMask(0);
    {
        CSyncGuard g;
        ct.DisableInterrupt(g, CCurrentThread::UserInterruptOnly);
        EXPECT_EQ(ct.GetInterruptMask(), 1u);
    }
    EXPECT_EQ(ct.GetInterruptMask(), 0u);
    ct.SetInterruptMask(3);
    {
        CSyncGuard g;
        ct.EnableInterrupt(g, CCurrentThread::UserInterruptOnly);
        EXPECT_EQ(ct.GetInterruptMask(), 2u); // set exactly, not OR-ed
    }
    EXPECT_EQ(ct.GetInterruptMask(), 3u);
    ct.SetInterruptMask(7);
    {
        CSyncGuard g;
        ct.EnableInterrupt(g, 1);
    }
    EXPECT_EQ(ct.GetInterruptMask(), 1u); // old mask 7 has no restore function
}

TEST_F(InterruptTest, SleepIsBrokenByAUserInterruptAndZeroOnlyYields) {
    CCurrentThread ct;
    EXPECT_EQ(ct.Sleep(0), 1u);
    EXPECT_EQ(ct.Sleep(1), 1u);
    CWaitInterrupt intr;
    intr.Init();
    std::atomic<unsigned int> code{0};
    CEvent ready = NewEvent(true, false);
    CThread t;
    t.Create(Fn([&] {
        CInterruptGuard guard;
        guard.SetWaitInterrupt(intr);
        ready.Set();
        code = RaisedCode([&] { CCurrentThread().Sleep(kHangGuardMs); });
    }));
    ASSERT_EQ(ready.Wait(kHangGuardMs), 1u);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    intr.Set();
    ASSERT_EQ(t.Wait(kHangGuardMs), 1u);
    EXPECT_EQ(code.load(), kWaitIntr);
}

TEST_F(InterruptTest, OneUserInterruptBreaksTheWaitsOfSeveralThreads) {
    CWaitInterrupt intr;
    intr.Init();
    CEvent never = NewEvent(true, false);
    std::atomic<int> broken{0}, ready{0};
    CThread threads[3];
    for (auto& t : threads)
        t.Create(Fn([&] {
            CInterruptGuard guard;
            guard.SetWaitInterrupt(intr);
            ready.fetch_add(1);
            if (RaisedCode([&] { never.Wait(kHangGuardMs); }) == kWaitIntr) broken.fetch_add(1);
        }));
    ASSERT_TRUE(kel_test::Eventually([&] { return ready.load() == 3; }));
    intr.Set();
    for (auto& t : threads) ASSERT_EQ(t.Wait(kHangGuardMs), 1u);
    EXPECT_EQ(broken.load(), 3);
}

TEST_F(InterruptTest, DisabledInterruptsDoNotBreakWaits) {
    CEvent e = NewEvent(false, false);
    std::atomic<unsigned int> r{0};
    CEvent waiting = NewEvent(true, false);
    CThread t;
    t.Create(Fn([&] {
        CSyncGuard g;
        CCurrentThread().DisableInterrupt(g, CCurrentThread::ThreadAndUserInterrupt);
        waiting.Set();
        r = e.Wait(kHangGuardMs);
    }));
    ASSERT_EQ(waiting.Wait(kHangGuardMs), 1u);
    t.Cancel();
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    e.Set();
    ASSERT_EQ(t.Wait(kHangGuardMs), 1u);
    EXPECT_EQ(r.load(), 1u);
}

TEST_F(InterruptTest, TimeOutsHoldUnderRepeatedAlerts) {
    // Alerts for a kind that is not enabled wake the wait, which re-checks and goes on with the
    // remaining time: it ends with 130, it does not hang and it does not throw.
    KEL::Internals::CThreadCB* target = nullptr;
    std::atomic<bool> stop{false};
    std::atomic<unsigned int> single{0}, list{0}, slept{0};
    CEvent ready = NewEvent(true, false);
    CThread t;
    t.Create(Fn([&] {
        CCurrentThread ct;
        ct.SetInterruptMask(CCurrentThread::UserInterruptOnly);
        target = ct.operator->();
        ready.Set();
        CEvent e = NewEvent(false, false);
        single = e.Wait(200);
        CWaiter w;
        w << e;
        list = w.Wait(200);
        slept = ct.Sleep(200);
    }));
    ASSERT_EQ(ready.Wait(kHangGuardMs), 1u);
    std::thread alerter([&] {
        while (!stop.load()) {
            target->PostWaitInterrupt(nullptr); // the thread kind: pending, not enabled
            std::this_thread::sleep_for(std::chrono::microseconds(500));
        }
    });
    EXPECT_EQ(t.Wait(kHangGuardMs), 1u);
    stop = true;
    alerter.join();
    EXPECT_EQ(single.load(), 130u);
    EXPECT_EQ(list.load(), 130u);
    EXPECT_EQ(slept.load(), 1u);
}

TEST_F(InterruptTest, AnInterruptArrivingWithAReleaseKeepsTheRelease) {
    // Set and Cancel race: if the wait got the event, the interrupt breaks the next wait;
    // if the interrupt won, the event is still signalled. Nothing is lost either way.
    for (int i = 0; i < 300; ++i) {
        CEvent e = NewEvent(false, false);
        CEvent never = NewEvent(true, false);
        std::atomic<unsigned int> first{0}, second{0};
        CThread t;
        t.Create(Fn([&] {
            first = RaisedCode([&] { e.Wait(kHangGuardMs); });
            second = RaisedCode([&] { never.Wait(kHangGuardMs); });
        }));
        e.Set();
        t.Cancel();
        ASSERT_EQ(t.Wait(kHangGuardMs), 1u);
        if (first.load() == 0) {
            ASSERT_EQ(second.load(), kThreadIntr);
            ASSERT_EQ(e.Wait(0), 130u);
        } else {
            ASSERT_EQ(first.load(), kThreadIntr);
            ASSERT_EQ(e.Wait(0), 1u);
        }
    }
}
