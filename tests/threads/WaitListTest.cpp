// kelbase - tests/threads/WaitListTest.cpp
//
// List waits: limits and error codes, which entry wins, wait-all taking all objects or none,
// exactly-one wake-ups of auto-reset events and semaphores, lost wake-ups under hot loops, and
// the time-out arithmetic.
#include "../common/TestUtil.h"

#include <kel/Functions.h>
#include <kel/Threading.h>

#include <atomic>
#include <thread>
#include <vector>

using namespace KEL::Threading;
using kel_test::kHangGuardMs;
using kel_test::NewEvent;
using kel_test::RaisedCode;


TEST(WaiterLimits, SixtyFifthHandleAndWaitingOnSixtyFourRaiseMaxCount) {
    CEvent e = NewEvent(true, true);
    CWaiter w;
    for (int i = 0; i < 64; ++i) w << e;
    EXPECT_EQ(w.Count(), 64u);
    EXPECT_EQ(RaisedCode([&] { w << e; }), 0x20010036u);
    EXPECT_EQ(RaisedCode([&] { w.Wait(0); }), 0x20010036u);
    w.Clear();
    for (int i = 0; i < 63; ++i) w << e;
    EXPECT_EQ(w.Wait(0), 1u); // 63 can be waited on (the heap array is kept)
}

TEST(WaiterLimits, EmptyHandleSetsTheErrorFlagWhenNotThrown) {
    CWaiter w;
    CEvent empty;
    CThrowState::SetThrow(0);
    w << empty; // not thrown: flag set
    EXPECT_EQ(w.ErrorFlag(), 1u);
    EXPECT_EQ(KEL::Exceptions::ThreadErrorLog().GetError(), 0x20010018u);
    EXPECT_STREQ(KEL::Exceptions::ThreadErrorLog().GetErrorMsg(0), "current count=0");
    CEvent e = NewEvent(false, true);
    EXPECT_EQ(RaisedCode([&] { w << e; }), 0x20010035u);
    w.Clear();
    EXPECT_EQ(w.ErrorFlag(), 0u);
    w << e;
    EXPECT_EQ(w.Wait(0), 1u);
}

TEST(WaiterLimits, AnEntryWithoutObjectIsAnInvalidHandle) {
    CWaitInterrupt intr;
    intr.Init();
    CEvent e = NewEvent(true, true);
    CWaiter w;
    w << e << intr;
    EXPECT_EQ(RaisedCode([&] { w.Wait(0); }), 0x20010037u);
}

TEST(WaiterLimits, ADuplicateInAWaitAllIsAnOsError) {
    CEvent e = NewEvent(true, true);
    CWaiter w;
    w << e << e;
    EXPECT_EQ(w.Wait(0, false), 1u);
    EXPECT_EQ(RaisedCode([&] { w.Wait(0, true); }), 0x20010017u);
}

TEST(WaitAny, ReturnsIndexPlusOneAndTheLowestSignalledWins) {
    CEvent e0 = NewEvent(false, false), e1 = NewEvent(false, false), e2 = NewEvent(false, false);
    CWaiter w;
    w << e0 << e1 << e2;
    e2.Set();
    EXPECT_EQ(w.Wait(0), 3u);
    e1.Set();
    e2.Set();
    EXPECT_EQ(w.Wait(0), 2u);
    EXPECT_EQ(w.Wait(0), 3u);
    EXPECT_EQ(w.Wait(0), 130u);
}

TEST(WaitAny, AbandonedMutexInAListIsReportedAsItsIndex) {
    CMutex m;
    m.Init(false);
    std::thread([&] { m.Wait(); }).join();
    CEvent e = NewEvent(false, false);
    CWaiter w;
    w << m << e;
    EXPECT_EQ(w.Wait(0), 1u); // entry 0, abandoned: n + 1 all the same
    m.Release();
    CWaiter w2;
    CMutex m2;
    m2.Init(false);
    std::thread([&] { m2.Wait(); }).join();
    w2 << e << m2;
    EXPECT_EQ(w2.Wait(0), 2u);
    m2.Release();
}

TEST(WaitAny, WakesWhenAnyObjectIsSignalledLater) {
    std::vector<CEvent> events;
    CWaiter w;
    for (int i = 0; i < 8; ++i) {
        events.push_back(NewEvent(false, false));
        w << events.back();
    }
    std::thread t([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        events[5].Set();
    });
    EXPECT_EQ(w.Wait(kHangGuardMs), 6u);
    t.join();
}

TEST(WaitAll, AMutexHeldElsewhereKeepsTheOthersUnconsumed) {
    CMutex m;
    m.Init(false);
    CEvent e = NewEvent(false, true);
    CSemaphore s;
    s.Init(1, 1);
    CEvent held = NewEvent(true, false), release = NewEvent(false, false);
    std::thread owner([&] {
        m.Wait();
        held.Set();
        release.Wait();
        m.Release();
    });
    ASSERT_EQ(held.Wait(kHangGuardMs), 1u);
    CWaiter w;
    w << e << m << s;
    EXPECT_EQ(w.Wait(20, true), 130u);
    // Nothing was taken: the auto-reset event and the semaphore are still there.
    EXPECT_EQ(e.Wait(0), 1u);
    e.Set();
    EXPECT_EQ(s.Wait(0u), 1u);
    s.Release();
    release.Set();
    EXPECT_EQ(w.Wait(kHangGuardMs, true), 1u);
    owner.join();
    // Everything was taken at once.
    EXPECT_EQ(e.Wait(0), 130u);
    EXPECT_EQ(s.Wait(0u), 130u);
    unsigned int other = 0;
    std::thread([&] { other = m.Wait(0); }).join();
    EXPECT_EQ(other, 130u);
    m.Release();
}

TEST(WaitAll, CompletesWhenTheLastObjectArrivesWhileQueued) {
    CEvent a = NewEvent(false, false), b = NewEvent(false, false);
    CWaiter w;
    w << a << b;
    std::thread t([&] {
        a.Set();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        b.Set();
    });
    EXPECT_EQ(w.Wait(kHangGuardMs, true), 1u);
    t.join();
    EXPECT_EQ(a.Wait(0), 130u);
    EXPECT_EQ(b.Wait(0), 130u);
}

TEST(WaitAll, AnAbandonedMutexReportsItsIndex) {
    CEvent e = NewEvent(true, true);
    CMutex m;
    m.Init(false);
    std::thread([&] { m.Wait(); }).join();
    CWaiter w;
    w << e << m;
    EXPECT_EQ(w.Wait(0, true), 2u);
    m.Release();
}

TEST(WaitAll, RacesWithAnySingleWaiterNeverDoubleConsume) {
    // Two auto-reset events fed once per round: a wait-all and a wait-any compete; each round
    // exactly one of them may take each event.
    CEvent a = NewEvent(false, false), b = NewEvent(false, false);
    CEvent go = NewEvent(false, false);
    std::atomic<int> taken{0};
    std::atomic<bool> stop{false};
    std::thread anyWaiter([&] {
        CWaiter w;
        w << a << b;
        while (!stop.load()) {
            if (w.Wait(5) != 130) taken.fetch_add(1);
        }
    });
    int allTaken = 0;
    int drained = 0;
    CWaiter all;
    all << a << b;
    for (int round = 0; round < 2000; ++round) {
        // Both events are clear here, so each Set makes exactly one signal.
        a.Set();
        b.Set();
        if (all.Wait(1, true) == 1u) allTaken += 2;
        drained += (a.Wait(0) == 1u ? 1 : 0) + (b.Wait(0) == 1u ? 1 : 0);
    }
    stop.store(true);
    anyWaiter.join();
    // Every signal was consumed exactly once, by one of the three.
    EXPECT_EQ(allTaken + taken.load() + drained, 4000);
}

TEST(AutoResetEvent, OneSetWakesExactlyOneOfSeveralWaiters) {
    CEvent e = NewEvent(false, false);
    std::atomic<int> woken{0};
    std::atomic<int> started{0};
    std::vector<std::thread> ts;
    for (int i = 0; i < 4; ++i)
        ts.emplace_back([&] {
            started.fetch_add(1);
            if (e.Wait(kHangGuardMs) == 1u) woken.fetch_add(1);
        });
    ASSERT_TRUE(kel_test::Eventually([&] { return started.load() == 4; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    for (int round = 1; round <= 4; ++round) {
        e.Set();
        ASSERT_TRUE(kel_test::Eventually([&] { return woken.load() >= round; }));
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        EXPECT_EQ(woken.load(), round);
    }
    for (auto& t : ts) t.join();
    EXPECT_EQ(e.Wait(0), 130u);
}

TEST(ManualResetEvent, SetWakesEveryWaiter) {
    CEvent e = NewEvent(true, false);
    std::atomic<int> woken{0};
    std::vector<std::thread> ts;
    for (int i = 0; i < 4; ++i)
        ts.emplace_back([&] {
            if (e.Wait(kHangGuardMs) == 1u) woken.fetch_add(1);
        });
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    e.Set();
    for (auto& t : ts) t.join();
    EXPECT_EQ(woken.load(), 4);
    EXPECT_EQ(e.Wait(0), 1u);
}

TEST(SemaphoreWaits, EachCountWakesExactlyOneWaiter) {
    CSemaphore s;
    s.Init(0, 10);
    std::atomic<int> woken{0};
    std::vector<std::thread> ts;
    for (int i = 0; i < 3; ++i)
        ts.emplace_back([&] {
            if (s.Wait(kHangGuardMs) == 1u) woken.fetch_add(1);
        });
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    s.Release();
    ASSERT_TRUE(kel_test::Eventually([&] { return woken.load() == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(woken.load(), 1);
    s.Release();
    s.Release();
    for (auto& t : ts) t.join();
    EXPECT_EQ(woken.load(), 3);
    EXPECT_EQ(s.Wait(0u), 130u);
}

TEST(LostWakeups, PingPongThroughTwoAutoResetEventsManyTimes) {
    CEvent ping = NewEvent(false, false), pong = NewEvent(false, false);
    constexpr int kRounds = 20000;
    std::atomic<int> failures{0};
    std::thread peer([&] {
        for (int i = 0; i < kRounds; ++i) {
            if (ping.Wait(kHangGuardMs) != 1u) failures.fetch_add(1);
            pong.Set();
        }
    });
    for (int i = 0; i < kRounds; ++i) {
        ping.Set();
        if (pong.Wait(kHangGuardMs) != 1u) failures.fetch_add(1);
    }
    peer.join();
    EXPECT_EQ(failures.load(), 0);
}

TEST(LostWakeups, PingPongThroughAListOfEightManyTimes) {
    std::vector<CEvent> toPeer, toUs;
    CWaiter peerList, ourList;
    for (int i = 0; i < 8; ++i) {
        toPeer.push_back(NewEvent(false, false));
        toUs.push_back(NewEvent(false, false));
        peerList << toPeer.back();
        ourList << toUs.back();
    }
    constexpr int kRounds = 10000;
    std::atomic<int> failures{0};
    std::thread peer([&] {
        for (int i = 0; i < kRounds; ++i) {
            unsigned int r = peerList.Wait(kHangGuardMs);
            if (r != static_cast<unsigned int>(i % 8) + 1) failures.fetch_add(1);
            toUs[(i + 3) % 8].Set();
        }
    });
    for (int i = 0; i < kRounds; ++i) {
        toPeer[i % 8].Set();
        if (ourList.Wait(kHangGuardMs) != static_cast<unsigned int>((i + 3) % 8) + 1) failures.fetch_add(1);
    }
    peer.join();
    EXPECT_EQ(failures.load(), 0);
}

TEST(LostWakeups, ContendedMutexHandOverWithTimeouts) {
    CMutex m;
    m.Init(false);
    long counter = 0;
    std::atomic<int> timeouts{0};
    std::vector<std::thread> ts;
    for (int t = 0; t < 3; ++t)
        ts.emplace_back([&] {
            for (int i = 0; i < 5000; ++i) {
                // Short time-outs make waiters leave queues while the mutex is handed over.
                unsigned int r;
                while ((r = m.Wait(i % 3 == 0 ? 0u : 1u)) == 130u) timeouts.fetch_add(1);
                ASSERT_EQ(r, 1u);
                ++counter;
                m.Release();
            }
        });
    for (auto& t : ts) t.join();
    EXPECT_EQ(counter, 15000);
    EXPECT_EQ(m.Wait(0), 1u);
    m.Release();
}

TEST(LostWakeups, TimedOutWaiterNeitherLosesNorStealsASignal) {
    CEvent e = NewEvent(false, false);
    for (int i = 0; i < 3000; ++i) {
        std::atomic<unsigned int> r{0};
        std::thread t([&] { r = e.Wait(1); });
        e.Set();
        t.join();
        // Either the waiter took the signal or it is still there for us.
        if (r.load() == 130u) {
            ASSERT_EQ(e.Wait(0), 1u) << "round " << i;
        } else {
            ASSERT_EQ(r.load(), 1u);
            ASSERT_EQ(e.Wait(0), 130u) << "round " << i;
        }
    }
}

TEST(TimeOuts, AFiniteWaitNeverEndsEarly) {
    CEvent e = NewEvent(false, false);
    const unsigned long long start = KEL::Functions::GetTickTime(1000);
    EXPECT_EQ(e.Wait(30), 130u);
    EXPECT_GE(KEL::Functions::GetTickTime(1000) - start, 30u);
    CWaiter w;
    w << e;
    const unsigned long long start2 = KEL::Functions::GetTickTime(1000);
    EXPECT_EQ(w.Wait(30), 130u);
    EXPECT_GE(KEL::Functions::GetTickTime(1000) - start2, 30u);
}

TEST(TimeOuts, WaitIntervalShrinksToZero) {
    CWaitInterval iv(100);
    EXPECT_LE(static_cast<unsigned int>(iv), 100u);
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    EXPECT_EQ(static_cast<unsigned int>(iv), 0u);
    iv.Restart(1000);
    EXPECT_GT(static_cast<unsigned int>(iv), 500u);
}
