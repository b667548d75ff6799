// kelbase - tests/threads/ThreadTest.cpp
//
// Threads and the current thread: starting, waiting, the running-state checks, failures of a
// thread function, names, the random generator, thread-local storage and blocks of threads the
// library did not start.
#include "../common/TestUtil.h"

#include <kel/Functions.h>
#include <kel/Threading.h>

#include "threads/ThreadCB.h"

#include <pthread.h>

#include <atomic>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>

using namespace KEL::Threading;
using kel_test::Fn;
using kel_test::kHangGuardMs;
using kel_test::NewEvent;
using kel_test::RaisedCode;


TEST(Thread, WaitReportsRunningThenEnded) {
    CEvent go = NewEvent(true, false);
    CThread t;
    ASSERT_EQ(t.Create(Fn([&] { go.Wait(kHangGuardMs); })), 1u);
    EXPECT_NE(t.GetThreadID(), CCurrentThread().GetThreadID());
    EXPECT_EQ(t.Wait(0), 130u);
    go.Set();
    EXPECT_EQ(t.Wait(kHangGuardMs), 1u);
    EXPECT_EQ(t.Wait(0), 1u);
}

TEST(Thread, CreateWhileRunningRaisesAndKeepsTheRunningBlock) {
    CEvent go = NewEvent(true, false);
    CThread t;
    t.Create(Fn([&] { go.Wait(kHangGuardMs); }));
    const unsigned int id = t.GetThreadID();
    auto* block = t.GetCB();
    EXPECT_EQ(RaisedCode([&] { t.Create(Fn([] {})); }), 0x20010031u);
    EXPECT_EQ(RaisedCode([&] { t.initialize(); }), 0x20010031u);
    EXPECT_EQ(t.GetCB(), block);
    EXPECT_EQ(t.GetThreadID(), id);
    go.Set();
    ASSERT_EQ(t.Wait(kHangGuardMs), 1u);
    // Once ended, a new thread may be started on the same object.
    std::atomic<int> ran{0};
    ASSERT_EQ(t.Create(Fn([&] { ran = 1; })), 1u);
    ASSERT_EQ(t.Wait(kHangGuardMs), 1u);
    EXPECT_EQ(ran.load(), 1);
}

TEST(Thread, OperationsWithoutBlockRaiseTheirCodes) {
    CThread t;
    EXPECT_EQ(RaisedCode([&] { t.Wait(0); }), 0x20010018u);
    EXPECT_EQ(RaisedCode([&] { t.Suspend(); }), 0x20010033u);
    EXPECT_EQ(RaisedCode([&] { t.Resume(); }), 0x20010033u);
    EXPECT_EQ(t.initialize(), 1u);
    EXPECT_EQ(t.Wait(0), 1u); // an unstarted block has nothing to wait for
}

TEST(Thread, SuspendAndResumeRefuseARunningThread) {
    CEvent go = NewEvent(true, false);
    CThread t;
    t.Create(Fn([&] { go.Wait(kHangGuardMs); }));
    EXPECT_EQ(RaisedCode([&] { t.Suspend(); }), 0x20010034u);
    EXPECT_EQ(RaisedCode([&] { t.Resume(); }), 0x20010034u);
    go.Set();
    ASSERT_EQ(t.Wait(kHangGuardMs), 1u);
    EXPECT_EQ(t.Suspend(), 1u); // the inverted test lets an ended thread through
    EXPECT_EQ(t.Resume(), 1u);
}

TEST(Thread, ASuspendedThreadDoesNotRun) {
    std::atomic<int> ran{0};
    CThread t;
    ASSERT_EQ(t.Create(Fn([&] { ran = 1; }), true), 1u);
    EXPECT_EQ(t.Wait(20), 130u);
    EXPECT_EQ(ran.load(), 0);
    // Resume refuses a thread that has not ended; release the gate directly so it finishes.
    EXPECT_EQ(RaisedCode([&] { t.Resume(); }), 0x20010034u);
    t.GetCB()->OpenStartGate();
    ASSERT_EQ(t.Wait(kHangGuardMs), 1u);
    EXPECT_EQ(ran.load(), 1);
}

TEST(Thread, ALibraryExceptionEndsTheThreadAndReachesTheDelegate) {
    std::atomic<int> failed{0};
    KEL::Delegates_and_Calls::CDelegate d = Fn([] { KEL_RAISE(0x20010036u, "limit %d", 5); }, &failed);
    CThread t;
    ASSERT_EQ(t.Create(d), 1u);
    ASSERT_EQ(t.Wait(kHangGuardMs), 1u);
    EXPECT_EQ(failed.load(), 1);
    EXPECT_EQ(d.GetError(), 0x20010036u);
    KEL::Exceptions::CErrorLog log;
    EXPECT_EQ(d.GetError(log), 0x20010036u);
    EXPECT_STREQ(log.GetErrorMsg(0), "limit 5");
    EXPECT_EQ(log.GetLogCount(), 2u); // the thread body added its position
}

TEST(Thread, AForeignExceptionDoesNotEndTheProcess) {
    CThread t;
    ASSERT_EQ(t.Create(Fn([] { throw std::runtime_error("foreign"); })), 1u);
    ASSERT_EQ(t.Wait(kHangGuardMs), 1u);
}

TEST(Thread, ThreadBodyEnablesBothInterruptKinds) {
    std::atomic<unsigned int> mask{0};
    CThread t;
    t.Create(Fn([&] { mask = CCurrentThread().GetInterruptMask(); }));
    ASSERT_EQ(t.Wait(kHangGuardMs), 1u);
    EXPECT_EQ(mask.load(), 3u);
}

TEST(Thread, ListWaitOnThreadEnds) {
    CEvent go = NewEvent(true, false);
    CThread a, b;
    a.Create(Fn([&] { go.Wait(kHangGuardMs); }));
    b.Create(Fn([] {}));
    CWaiter w;
    w << a << b;
    EXPECT_EQ(w.Wait(kHangGuardMs), 2u);
    go.Set();
    EXPECT_EQ(w.Wait(kHangGuardMs, true), 1u);
}

TEST(CurrentThread, NameIsUndefinedUntilSetAndReachesTheSystem) {
    std::string before, after;
    char osName[32] = {};
    CThread t;
    t.Create(Fn([&] {
        CCurrentThread ct;
        before = ct.GetThreadName().C_Str();
        ct.SetThreadName("worker-%d-of-the-pool") << 42;
        after = ct.GetThreadName().C_Str();
        pthread_getname_np(pthread_self(), osName, sizeof osName);
    }));
    ASSERT_EQ(t.Wait(kHangGuardMs), 1u);
    EXPECT_EQ(before, "undefined");
    EXPECT_EQ(after, "worker-42-of-the-pool");
    EXPECT_STREQ(osName, "worker-42-of-th");
}

TEST(CurrentThread, LcgRandFollowsTheMinimalStandard) {
    std::atomic<int> r1{0}, r2{0}, r3{0};
    std::thread([&] {
        CCurrentThread ct;
        ct->m_iRandomSeed = 1;
        r1 = ct.LCG_Rand();
        r2 = ct.LCG_Rand();
        ct->m_iRandomSeed = 2147483646;
        r3 = ct.LCG_Rand();
    }).join();
    EXPECT_EQ(r1.load(), 16807);
    EXPECT_EQ(r2.load(), 282475249);
    EXPECT_EQ(r3.load(), 2147466840);
}

TEST(CurrentThread, StartedThreadsGetDifferentSeeds) {
    std::atomic<int> a{0}, b{0};
    CThread t1, t2;
    t1.Create(Fn([&] { a = CCurrentThread().LCG_Rand(); }));
    t2.Create(Fn([&] { b = CCurrentThread().LCG_Rand(); }));
    ASSERT_EQ(t1.Wait(kHangGuardMs), 1u);
    ASSERT_EQ(t2.Wait(kHangGuardMs), 1u);
    EXPECT_NE(a.load(), b.load());
    EXPECT_GT(a.load(), 0);
}

TEST(CurrentThread, ForeignThreadBlockIsReleasedAndItsMutexesAbandoned) {
    CMutex m;
    m.Init(false);
    KEL::Internals::CThreadCB* seen = nullptr;
    int countWhileHeld = 0;
    std::thread([&] {
        KEL::Internals::CThreadCB* cb = KEL::Internals::CThreadCB::GetCurrent();
        seen = cb;
        countWhileHeld = cb->Count();
        cb->Release();
        m.Wait();
    }).join();
    EXPECT_NE(seen, nullptr);
    EXPECT_EQ(countWhileHeld, 2);
    EXPECT_EQ(m.Wait(0), 65u);
    m.Release();
}

TEST(CurrentThread, LanguageIdIsPerThread) {
    CCurrentThread ct;
    ct.SetLngId(25966);
    unsigned int other = 1;
    std::thread([&] { other = CCurrentThread().GetLngId(); }).join();
    EXPECT_EQ(other, 0u);
    EXPECT_EQ(ct.GetLngId(), 25966u);
    ct.SetLngId(0);
}

TEST(Tls, ValuesArePerThread) {
    TTls<int*> slot;
    EXPECT_FALSE(slot.IsAllocated());
    ASSERT_EQ(slot.Init(), 1u);
    EXPECT_EQ(slot.Init(), 1u);
    int mine = 1, theirs = 2;
    slot = &mine;
    int* seen = &mine;
    std::thread([&] {
        seen = slot;
        slot = &theirs;
    }).join();
    EXPECT_EQ(seen, nullptr);
    EXPECT_EQ(static_cast<int*>(slot), &mine);
}

TEST(Delegate, EmptyCallSucceedsAndErrorsAreRecorded) {
    KEL::Delegates_and_Calls::CDelegate empty;
    EXPECT_FALSE(empty.IsValid());
    EXPECT_EQ(empty(), 1u);
    EXPECT_EQ(empty.GetError(), 0u);
    std::atomic<int> failed{0};
    auto d = Fn([] { KEL_RAISE(0x2001003Bu, "stop"); }, &failed);
    EXPECT_EQ(d(), 0u);
    EXPECT_EQ(failed.load(), 1);
    EXPECT_EQ(d.GetError(), 0x2001003Bu);
    auto copy = d;
    EXPECT_EQ(copy.GetError(), 0x2001003Bu);
}

TEST(Delegate, MemberCallBindsObjectAndFunction) {
    struct CCounter {
        int n = 0;
        void Bump() { ++n; }
    } counter;
    KEL::Delegates_and_Calls::TDelegate<KEL::Delegates_and_Calls::CCall> call(&counter, &CCounter::Bump);
    EXPECT_EQ(call(), 1u);
    CThread t;
    t.Create(call);
    ASSERT_EQ(t.Wait(kHangGuardMs), 1u);
    EXPECT_EQ(counter.n, 2);
}
