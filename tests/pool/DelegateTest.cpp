// Tests of counted and waitable delegates.
#include <kel/Delegates.h>
#include <kel/Exceptions.h>
#include <kel/Threading.h>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

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

// ---- the block cache ----------------------------------------------------------------------
//
// Call blocks of up to 256 bytes are recycled through per-thread caches and a shared depot.
// The captures below sit on both sides of every size class, carry a pattern tied to their
// index, and travel between threads; a block handed out too small, or twice, shows up as a
// wrong pattern or a count that does not add up.
namespace {

template <std::size_t N>
struct Payload {
    unsigned char bytes[N];
    explicit Payload(unsigned int seed) {
        for (std::size_t i = 0; i < N; ++i) bytes[i] = static_cast<unsigned char>(seed * 31 + i);
    }
    bool Intact(unsigned int seed) const {
        for (std::size_t i = 0; i < N; ++i)
            if (bytes[i] != static_cast<unsigned char>(seed * 31 + i)) return false;
        return true;
    }
};

template <std::size_t N>
CDelegate MakeChecked(unsigned int seed, std::atomic<unsigned int>& good) {
    Payload<N> payload(seed);
    return MakeDelegate([payload, seed, &good] {
        if (payload.Intact(seed)) good.fetch_add(1, std::memory_order_relaxed);
    });
}

// One delegate of each capture size: around 32, 64, 128 and 256 bytes of block, and beyond.
void MakeRound(std::vector<CDelegate>& out, unsigned int seed, std::atomic<unsigned int>& good) {
    out.push_back(MakeChecked<1>(seed, good));
    out.push_back(MakeChecked<8>(seed, good));
    out.push_back(MakeChecked<9>(seed, good));
    out.push_back(MakeChecked<24>(seed, good));
    out.push_back(MakeChecked<40>(seed, good));
    out.push_back(MakeChecked<100>(seed, good));
    out.push_back(MakeChecked<200>(seed, good));
    out.push_back(MakeChecked<215>(seed, good));
    out.push_back(MakeChecked<232>(seed, good));
    out.push_back(MakeChecked<300>(seed, good));
}
constexpr unsigned int kPerRound = 10;

} // namespace

TEST(DelegateBlocks, BlocksMadeOnOneThreadAndFreedOnAnotherStayIntact) {
    // Two producers hand their delegates to a consumer, which runs and drops them; the
    // producers keep making new ones from whatever the depot returns.
    constexpr unsigned int kRounds = 3000;
    std::atomic<unsigned int> good{0};
    std::mutex lock;
    std::vector<CDelegate> handed;
    std::atomic<int> producing{2};
    auto producer = [&](unsigned int base) {
        std::vector<CDelegate> batch;
        for (unsigned int r = 0; r < kRounds; ++r) {
            batch.clear();
            MakeRound(batch, base + r, good);
            std::lock_guard<std::mutex> guard(lock);
            for (CDelegate& d : batch) handed.push_back(std::move(d));
        }
        producing.fetch_sub(1);
    };
    unsigned int ran = 0;
    std::thread a(producer, 0u), b(producer, 100000u);
    for (;;) {
        std::vector<CDelegate> mine;
        {
            std::lock_guard<std::mutex> guard(lock);
            mine.swap(handed);
        }
        for (CDelegate& d : mine) {
            EXPECT_EQ(d(), 1u);
            ++ran;
        }
        mine.clear(); // frees the blocks here, on the consumer
        if (producing.load() == 0) {
            std::lock_guard<std::mutex> guard(lock);
            if (handed.empty()) break;
        }
    }
    a.join();
    b.join();
    EXPECT_EQ(ran, 2 * kRounds * kPerRound);
    EXPECT_EQ(good.load(), 2 * kRounds * kPerRound);
}

TEST(DelegateBlocks, BlocksOutliveTheThreadThatMadeOrFreedThem) {
    std::atomic<unsigned int> good{0};
    std::vector<CDelegate> made;
    // Made on a thread that ends before they are used: its cache goes to the depot.
    std::thread maker([&] {
        for (unsigned int r = 0; r < 200; ++r) MakeRound(made, r, good);
        std::vector<CDelegate> dropped;
        for (unsigned int r = 0; r < 200; ++r) MakeRound(dropped, r, good);
    });
    maker.join();
    // Freed on a thread that ends with them in its cache.
    std::thread freer([&] {
        std::vector<CDelegate> mine;
        mine.swap(made);
        for (CDelegate& d : mine) d();
    });
    freer.join();
    EXPECT_EQ(good.load(), 200 * kPerRound);
    // New blocks, many of them out of the depot, are whole and distinct: each records where
    // its capture lives.
    std::vector<CDelegate> again;
    std::set<const void*> blocks;
    for (unsigned int r = 0; r < 500; ++r) {
        MakeRound(again, 7000 + r, good);
        Payload<40> payload(r);
        again.push_back(MakeDelegate([payload, &blocks] { EXPECT_TRUE(blocks.insert(&payload).second); }));
    }
    for (CDelegate& d : again) d();
    EXPECT_EQ(blocks.size(), 500u);
    EXPECT_EQ(good.load(), 700 * kPerRound);
}

TEST(DelegateBlocks, OverAlignedCapturesKeepTheirAlignment) {
    struct alignas(64) Wide {
        int value = 5;
    };
    Wide wide;
    std::atomic<int> seen{0};
    std::vector<CDelegate> keep;
    for (int i = 0; i < 50; ++i) {
        keep.push_back(MakeDelegate([wide, &seen] {
            EXPECT_EQ(reinterpret_cast<uintptr_t>(&wide) % 64, 0u);
            seen.fetch_add(wide.value);
        }));
    }
    for (CDelegate& d : keep) d();
    EXPECT_EQ(seen.load(), 250);
}
