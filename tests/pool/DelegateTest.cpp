// Tests of counted and waitable delegates.
#include <kel/Delegates.h>
#include <kel/Exceptions.h>
#include <kel/Threading.h>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <thread>

using namespace KEL::Delegates_and_Calls;

namespace {

struct Counter {
    int calls = 0;
    void Bump() { ++calls; }
    void Fail() {
        ++calls;
        KEL_RAISE(0x20010036u, "Maximum buff size (%d) already reached", 7);
    }
};

} // namespace

TEST(CountedDelegate, EmptyDelegateReturnsOneAndDoesNothing) {
    CDelegate d;
    EXPECT_FALSE(d.IsValid());
    EXPECT_EQ(d(), 1u);
    EXPECT_EQ(d.GetError(), 0u);
}

TEST(CountedDelegate, MemberCallRunsAndReturnsOne) {
    Counter c;
    TDelegate<CCall> d(&c, &Counter::Bump);
    EXPECT_EQ(d(), 1u);
    EXPECT_EQ(d(), 1u);
    EXPECT_EQ(c.calls, 2);
    EXPECT_EQ(d.GetError(), 0u);
}

TEST(CountedDelegate, FailingCallReturnsZeroAndRecordsTheError) {
    Counter c;
    TDelegate<CCall> d(&c, &Counter::Fail);
    EXPECT_EQ(d(), 0u);
    EXPECT_EQ(d.GetError(), 0x20010036u);
    KEL::Exceptions::CErrorLog log;
    EXPECT_EQ(d.GetError(log), 0x20010036u);
    EXPECT_EQ(log.GetError(), 0x20010036u);
}

TEST(CountedDelegate, GetErrorLogIsClearedWhenThereIsNoError) {
    Counter fail;
    TDelegate<CCall> bad(&fail, &Counter::Fail);
    bad();
    KEL::Exceptions::CErrorLog log;
    ASSERT_NE(bad.GetError(log), 0u);
    Counter ok;
    TDelegate<CCall> good(&ok, &Counter::Bump);
    good();
    EXPECT_EQ(good.GetError(log), 0u);
    EXPECT_EQ(log.GetError(), 0u);
}

TEST(CountedDelegate, ASuccessfulRunClearsTheErrorOfTheLastOne) {
    bool fail = true;
    auto d = MakeDelegate([&] {
        if (fail) KEL_RAISE(0x2001003Du, "Pool not initialized");
    });
    EXPECT_EQ(d(), 0u);
    EXPECT_EQ(d.GetError(), 0x2001003Du);
    fail = false;
    EXPECT_EQ(d(), 1u);
    EXPECT_EQ(d.GetError(), 0u);
}

TEST(CountedDelegate, CopiesShareTheBlockAndItsError) {
    auto d = MakeDelegate([] { KEL_RAISE(0x2001003Cu, "Pool already initialized"); });
    CDelegate copy = d;
    d();
    EXPECT_EQ(copy.GetError(), 0x2001003Cu);
    d.Release();
    EXPECT_FALSE(d.IsValid());
    EXPECT_TRUE(copy.IsValid());
}

TEST(CountedDelegate, LastHandleDeletesTheBoundCallable) {
    auto alive = std::make_shared<int>(1);
    std::weak_ptr<int> watch = alive;
    {
        CDelegate d = MakeDelegate([keep = std::move(alive)] { (void)keep; });
        CDelegate copy = d;
        d.Release();
        EXPECT_FALSE(watch.expired());
    }
    EXPECT_TRUE(watch.expired());
}

TEST(WaitableCall, FreshCallIsSignalled) {
    auto call = MakeWaitableCall([] {});
    EXPECT_EQ(call.Wait(0), 1u);
    // Auto reset: the start signal is consumed by the first wait.
    EXPECT_EQ(call.Wait(0), 130u);
}

TEST(WaitableCall, ArmedCallSignalsOnlyAfterItsRun) {
    std::atomic<int> ran{0};
    auto call = MakeWaitableCall([&] { ++ran; });
    call.Arm();
    EXPECT_EQ(call.Wait(0), 130u);
    CWaitableCall copy = call;
    std::thread t([copy]() mutable { copy(); });
    EXPECT_EQ(call.Wait(30000), 1u);
    EXPECT_EQ(ran.load(), 1);
    t.join();
}

TEST(WaitableCall, FailedRunSignalsAfterTheErrorIsRecorded) {
    auto call = MakeWaitableCall([] { KEL_RAISE(0x20010036u, "Maximum buff size (%d) already reached", 1); });
    call.Arm();
    CWaitableCall copy = call;
    std::thread t([copy]() mutable { EXPECT_EQ(copy(), 0u); });
    ASSERT_EQ(call.Wait(30000), 1u);
    EXPECT_EQ(call.GetError(), 0x20010036u);
    t.join();
}

TEST(WaitableCall, ForeignExceptionStillSignals) {
    auto call = MakeWaitableCall([] { throw std::runtime_error("x"); });
    call.Arm();
    EXPECT_THROW(call(), std::runtime_error);
    EXPECT_EQ(call.Wait(0), 1u);
}

TEST(WaitableCall, CanBeWaitedOnInAWaiter) {
    auto a = MakeWaitableCall([] {});
    auto b = MakeWaitableCall([] {});
    a.Arm();
    b.Arm();
    b();
    KEL::Threading::CWaiter waiter;
    waiter << static_cast<KEL::Threading::CWaitHandle>(a) << static_cast<KEL::Threading::CWaitHandle>(b);
    EXPECT_EQ(waiter.Wait(0), 2u);
}
