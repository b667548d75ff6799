// kelbase - tests/threads/PrimitivesTest.cpp
//
// The native objects: recursive lock, fast mutex (also as readers/writer lock), fast event, the
// shareable event, mutex and semaphore, counters and guards, with their exact status codes.
#include "../common/TestUtil.h"

#include <kel/Misc.h>
#include <kel/Threading.h>

#include "../common/TraceCapture.h"
#include "KelKrnl/Hooks.h"

#include <string>
#include <thread>
#include <vector>

using namespace KEL::Threading;
using KEL::Threading::Native_OS::CCriticalSection;
using KEL::Threading::Native_OS::CFastEvent;
using KEL::Threading::Native_OS::CFastMutex;
using kel_test::OnOtherThread;
using kel_test::OnThreads;
using kel_test::RaisedCode;

namespace {
// Whether another thread can take `cs` at once (it gives it back if so).
bool IsFreeForAnotherThread(CCriticalSection& cs) {
    return OnOtherThread([&] {
        const unsigned int status = cs.TryEnter();
        if (status == 1u) cs.Leave();
        return status;
    }) == 1u;
}
} // namespace

TEST(SyncCounter, IncrDecrSetReturnTheNewValue) {
    CSyncCounter c(5);
    EXPECT_EQ(c.Incr(), 6);
    EXPECT_EQ(c.Decr(), 5);
    EXPECT_EQ(c.Set(-3), -3);
    EXPECT_EQ(c.Decr(), -4);
    CSyncCounter copy(c);
    EXPECT_EQ(copy.Count(), -4);
}

TEST(SyncCounter, ConcurrentIncrementsAreNotLost) {
    CSyncCounter c(0);
    OnThreads(4, [&] {
        for (int i = 0; i < 50000; ++i) c.Incr();
    });
    EXPECT_EQ(c.Count(), 200000);
}

TEST(CriticalSection, LeaveOnNeverInitialisedLockIsANoOp) {
    CCriticalSection cs;
    EXPECT_EQ(cs.Leave(), 1u);
    EXPECT_EQ(cs.TryEnter(), 1u); // lazily initialised, then free
    EXPECT_EQ(cs.Leave(), 1u);
}

TEST(CriticalSection, TryEnterFromAnotherThreadIsBusyAndLeavesGuardAlone) {
    CCriticalSection cs;
    cs.Enter();
    cs.Enter(); // recursive
    unsigned int status = 0;
    unsigned int guardRestore = 0;
    std::thread([&] {
        CSyncGuard guard;
        status = cs.TryEnter(guard);
        guardRestore = guard.Restore(); // still Nop: returns 1 and leaves nothing
    }).join();
    EXPECT_EQ(status, 130u);
    EXPECT_EQ(guardRestore, 1u);
    cs.Leave();
    // Still held once: the other thread is still refused.
    EXPECT_EQ(OnOtherThread([&] { return cs.TryEnter(); }), 130u);
    cs.Leave();
    EXPECT_TRUE(IsFreeForAnotherThread(cs));
}

TEST(CriticalSection, GuardLeavesExactlyOnce) {
    CCriticalSection cs;
    {
        CSyncGuard g;
        cs.Enter(g);
        EXPECT_EQ(cs.TryEnter(), 1u); // recursion 2
        cs.Leave();                   // back to 1; guard gives the last level back
    }
    EXPECT_TRUE(IsFreeForAnotherThread(cs));
}

TEST(CriticalSection, SpinCountIsKeptAndReported) {
    CCriticalSection cs;
    unsigned int previous = 77;
    EXPECT_EQ(cs.SetSpinCount(400, &previous), 1u);
    EXPECT_EQ(previous, 0u); // was not initialised: Init(400)
    EXPECT_EQ(cs.SetSpinCount(10, &previous), 1u);
    EXPECT_EQ(previous, 400u);
    EXPECT_EQ(cs.Init(99), 1u); // second Init is a no-op
    EXPECT_EQ(cs.SetSpinCount(0, &previous), 1u);
    EXPECT_EQ(previous, 10u);
}

TEST(CriticalSection, ExcludesUnderContention) {
    CCriticalSection cs;
    cs.Init(100);
    long counter = 0;
    OnThreads(3, [&] {
        for (int i = 0; i < 40000; ++i) {
            CSyncGuard g;
            cs.Enter(g);
            ++counter;
        }
    });
    EXPECT_EQ(counter, 120000);
}

TEST(FastMutex, UseBeforeInitRaisesNotInitialized) {
    CFastMutex m;
    EXPECT_EQ(RaisedCode([&] { m.Wait(0u); }), 0x20010018u);
    EXPECT_EQ(RaisedCode([&] { m.Release(); }), 0x20010018u);
    // With throw mode off the same failure comes back as the status.
    KEL::Threading::CThrowState::SetThrow(0);
    EXPECT_EQ(m.Wait(0u), 0x20010018u);
    EXPECT_EQ(KEL::Exceptions::ThreadErrorLog().GetError(), 0x20010018u);
}

TEST(FastMutex, HeldMutexTimesOutElsewhereAndGuardTurnsToNop) {
    CFastMutex m;
    m.Init();
    ASSERT_EQ(m.Wait(), 1u);
    ASSERT_EQ(m.Wait(), 1u); // recursive
    auto waitWithGuard = [&](unsigned int ms) {
        CSyncGuard g;
        return m.Wait(g, ms);
    };
    EXPECT_EQ(OnOtherThread([&] { return waitWithGuard(20); }), 130u);
    m.Release();
    m.Release();
    EXPECT_EQ(OnOtherThread([&] { return waitWithGuard(0); }), 1u);
    // The other thread's guard released it: we get it at once.
    EXPECT_EQ(m.Wait(0u), 1u);
    m.Release();
}

TEST(FastMutex, ReleaseByANonOwnerIsIgnored) {
    CFastMutex m;
    m.Init();
    ASSERT_EQ(m.Wait(), 1u);
    EXPECT_EQ(OnOtherThread([&] {
                  m.Release();
                  return m.Wait(0u);
              }),
              130u);
    m.Release();
}

TEST(FastMutex, ReadersShareTheMutexTheFirstTakesTheLastGivesBack) {
    CFastMutex m;
    EXPECT_EQ(m.InitForReadWrite(), 1u);
    CSyncGuard r1, r2;
    ASSERT_EQ(m.WaitForRead(r1, 0), 1u);
    ASSERT_EQ(m.WaitForRead(r2, 0), 1u); // second reader: never touches the mutex
    auto writer = [&] {
        const unsigned int status = m.Wait(0u);
        if (status == 1u) m.Release();
        return status;
    };
    EXPECT_EQ(OnOtherThread(writer), 130u);
    EXPECT_EQ(m.ReadRelease(), 1u); // one reader left: still held
    EXPECT_EQ(OnOtherThread(writer), 130u);
    r1.DoNotRestore();
    r2.DoNotRestore();
    EXPECT_EQ(m.ReadRelease(), 1u); // the last reader gives it back
    EXPECT_EQ(OnOtherThread(writer), 1u);
}

TEST(FastMutex, ReaderWaitsForAWriter) {
    CFastMutex m;
    m.InitForReadWrite();
    ASSERT_EQ(m.Wait(), 1u);
    auto reader = [&](unsigned int ms) {
        const unsigned int status = m.WaitForRead(ms);
        if (status == 1u) m.ReadRelease();
        return status;
    };
    EXPECT_EQ(OnOtherThread([&] { return reader(10u); }), 130u);
    m.Release();
    EXPECT_EQ(OnOtherThread([&] { return reader(0u); }), 1u);
}

TEST(FastMutex, CountsStayExactUnderContention) {
    CFastMutex m;
    m.Init();
    long counter = 0;
    OnThreads(3, [&] {
        for (int i = 0; i < 20000; ++i) {
            CSyncGuard g;
            m.Wait(g);
            ++counter;
        }
    });
    EXPECT_EQ(counter, 60000);
}

TEST(FastEvent, TracesItsStepsUnderBit0x20) {
    kel_test::CTraceCapture trace(0x20, true);
    {
        CFastEvent e;
        e.Init(1);
        e.Set();
        EXPECT_EQ(e.Wait(0), 1u);
    }
    for (const char* step : {"After CreateEvent handle=(x", "Before Tcb->Wait(x", ", x0)=1", "Before CloseHandle(x"})
        EXPECT_GT(trace.Count(step), 0u) << step;
}

TEST(FastEvent, UseBeforeInitAndAutoResetConsumption) {
    CFastEvent e;
    EXPECT_EQ(RaisedCode([&] { e.Wait(0); }), 0x20010018u);
    EXPECT_EQ(RaisedCode([&] { e.Set(); }), 0x20010018u);
    e.Init(0);
    EXPECT_EQ(e.Wait(0), 130u);
    e.Set();
    EXPECT_EQ(e.Wait(0), 1u);
    EXPECT_EQ(e.Wait(0), 130u); // consumed
    e.Set();
    e.Reset();
    EXPECT_EQ(e.Wait(0), 130u);
}

TEST(Event, SecondInitKeepsTheFirstEvent) {
    CEvent e;
    ASSERT_EQ(e.Init(true, true), 1u);
    auto* first = e.GetCB();
    EXPECT_EQ(e.Init(false, false), 1u);
    EXPECT_EQ(e.GetCB(), first);
    EXPECT_EQ(e.Wait(0), 1u); // still the manual, signalled one
    EXPECT_EQ(e.Wait(0), 1u);
}

TEST(Event, WaitWithoutBlockRaisesNotInitialized) {
    CEvent e;
    EXPECT_EQ(RaisedCode([&] { e.Wait(0); }), 0x20010018u);
}

// Releasing an object that was never made must be a status, not a call through a null block.
TEST(MutexAndSemaphore, ReleaseWithoutBlockRaisesNotInitialized) {
    CMutex m;
    CSemaphore s;
    EXPECT_EQ(RaisedCode([&] { m.Release(); }), 0x20010018u);
    EXPECT_EQ(RaisedCode([&] { s.Release(); }), 0x20010018u);
}

TEST(Event, CopiesShareTheBlockAndADuplicateSharesTheObject) {
    CEvent a;
    a.Init(false, false);
    CEvent b = a;
    EXPECT_EQ(a.GetCB(), b.GetCB());
    EXPECT_EQ(a.GetCB()->Count(), 2);
    CEvent dup;
    ASSERT_EQ(dup.Init(static_cast<void*>(a.GetCB()->GetHandle())), 1u);
    a.Set();
    EXPECT_EQ(dup.Wait(0), 1u); // the same object: the signal is consumed through the duplicate
    EXPECT_EQ(b.Wait(0), 130u);
    a = CEvent();
    EXPECT_EQ(b.GetCB()->Count(), 1);
    b.Set(); // the duplicate keeps the object alive
    EXPECT_EQ(dup.Wait(0), 1u);
}

TEST(Semaphore, ReleaseBeyondTheMaximumFails) {
    CSemaphore s;
    ASSERT_EQ(s.Init(1, 2), 1u);
    EXPECT_EQ(s.Release(), 1u);
    EXPECT_EQ(RaisedCode([&] { s.Release(); }), 0x2001001Au);
    KEL::Exceptions::NATIVE_ERROR native;
    EXPECT_EQ(KEL::Exceptions::ThreadErrorLog().GetError(native), 0x2001001Au);
    EXPECT_EQ(native.kind, 2u);
    EXPECT_EQ(s.Wait(0u), 1u);
    EXPECT_EQ(s.Wait(0u), 1u);
    EXPECT_EQ(s.Wait(0u), 130u);
}

TEST(Semaphore, InitRejectsACountAboveTheMaximum) {
    CSemaphore s;
    EXPECT_EQ(RaisedCode([&] { s.Init(3, 2); }), 0x20010039u);
}

TEST(Semaphore, GuardReleasesTheCount) {
    CSemaphore s;
    s.Init(1, 1);
    {
        CSyncGuard g;
        ASSERT_EQ(s.Wait(g, 0), 1u);
        EXPECT_EQ(s.Wait(0u), 130u);
    }
    EXPECT_EQ(s.Wait(0u), 1u);
}

TEST(Mutex, AbandonedMutexGivesItsNextOwner65ThenBehavesAsOwned) {
    CMutex m;
    m.Init(false);
    std::thread([&] { ASSERT_EQ(m.Wait(), 1u); }).join(); // ends while owning it
    EXPECT_EQ(m.Wait(0), 65u);
    EXPECT_EQ(OnOtherThread([&] { return m.Wait(0); }), 130u); // owned by us now
    m.Release();
    EXPECT_EQ(m.Wait(0), 1u); // the abandonment is reported once
    m.Release();
}

TEST(Mutex, InitialOwnerAndRecursion) {
    CMutex m;
    m.Init(true);
    EXPECT_EQ(m.Wait(0), 1u);
    m.Release();
    EXPECT_EQ(OnOtherThread([&] { return m.Wait(0); }), 130u); // still owned once
    m.Release();
    EXPECT_EQ(OnOtherThread([&] {
                  const unsigned int status = m.Wait(0);
                  m.Release();
                  return status;
              }),
              1u);
}

TEST(Mutex, AWaiterGetsTheMutexWhenItsOwnerEnds) {
    CMutex m;
    m.Init(false);
    CEvent owned;
    owned.Init(false, false);
    CEvent finish;
    finish.Init(false, false);
    std::thread owner([&] {
        m.Wait();
        owned.Set();
        finish.Wait();
    });
    ASSERT_EQ(owned.Wait(kel_test::kHangGuardMs), 1u);
    std::thread ender([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        finish.Set();
    });
    EXPECT_EQ(m.Wait(kel_test::kHangGuardMs), 65u);
    owner.join();
    ender.join();
    m.Release();
}

TEST(SyncGuard, RestoresOnceAndNeverThrowsFromItsDestructor) {
    static int calls = 0;
    struct CThrowing {
        unsigned int Fail() {
            ++calls;
            KEL_RAISE(0x2001001Au, "restore failed");
        }
    } target;
    calls = 0;
    unsigned int old = CThrowState::SetThrow(1);
    EXPECT_NO_THROW({
        CSyncGuard g;
        KEL::Internals::CSyncObject::SetRestoreFn(
            &g, KEL::Delegates_and_Calls::TFastDelegateR<unsigned int>(&target, &CThrowing::Fail));
    });
    CThrowState::SetThrow(old);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(KEL::Exceptions::ThreadErrorLog().GetError(), 0x2001001Au);

    CCriticalSection cs;
    CSyncGuard g;
    cs.Enter(g);
    EXPECT_EQ(g.Restore(), 1u);
    EXPECT_EQ(g.Restore(), 1u); // second time: Nop
    EXPECT_TRUE(IsFreeForAnotherThread(cs));
}

TEST(FastDelegate, EqualityByObjectAndFunction) {
    using D = KEL::Delegates_and_Calls::TFastDelegateR<unsigned int>;
    struct C {
        unsigned int F() { return 7; }
    } a, b;
    EXPECT_EQ(D(&CSyncGuard::Nop), D(&CSyncGuard::Nop));
    EXPECT_EQ(D(&CSyncGuard::Nop)(), 1u);
    EXPECT_NE(D(&a, &C::F), D(&b, &C::F));
    EXPECT_EQ(D(&a, &C::F), D(&a, &C::F));
    EXPECT_EQ(D(&b, &C::F)(), 7u);
    EXPECT_TRUE(D().IsEmpty());
}

TEST(ModuleRegistry, LockGuardHoldsTheListLock) {
    CEvent done;
    done.Init(true, false);
    std::thread reg;
    unsigned int whileHeld = 0;
    {
        CSyncGuard g;
        EXPECT_EQ(KEL::Misc::CModuleInfo::Lock(g), 1u);
        EXPECT_NE(KEL::Misc::CModuleInfo::Enum(nullptr), nullptr);
        // Registering a module needs the list lock: it must wait for the guard.
        reg = std::thread([&] {
            KEL::Misc::CModuleInfo extra(0x1F00, "extra", "1");
            done.Set();
        });
        whileHeld = done.Wait(30);
    }
    EXPECT_EQ(whileHeld, 130u);
    EXPECT_EQ(done.Wait(kel_test::kHangGuardMs), 1u);
    reg.join();
}
