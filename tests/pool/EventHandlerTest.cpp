// Tests of the counting event mailbox.
#include <kel/Threading.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

using KEL::Threading::CEventHandler;
using TResult = KEL::Threading::CEventHandlerNS::wait_forNS::TResult;

namespace {

void ExpectTimedOut(const TResult& r) {
    EXPECT_FALSE(r.signalled);
    EXPECT_EQ(r.event, 0x7FFFFFFF);
}

} // namespace

TEST(EventHandlerResult, DefaultsToNotSignalledAndMaxId) {
    TResult r;
    ExpectTimedOut(r);
    TResult s(true, -3);
    EXPECT_TRUE(s.signalled);
    EXPECT_EQ(s.event, -3);
}

TEST(EventHandlerWait, NothingPendingWithZeroTimeoutReturnsAtOnce) {
    CEventHandler h;
    ExpectTimedOut(h.wait_for({1, 2}, 0));
}

TEST(EventHandlerWait, EachPostIsConsumedOnce) {
    CEventHandler h;
    h.notifyOne(5);
    h.notifyOne(5);
    TResult a = h.wait_for({5}, 100);
    EXPECT_TRUE(a.signalled);
    EXPECT_EQ(a.event, 5);
    TResult b = h.wait_for({5}, 100);
    EXPECT_TRUE(b.signalled);
    EXPECT_EQ(b.event, 5);
    ExpectTimedOut(h.wait_for({5}, 100));
}

TEST(EventHandlerWait, ListOrderIsThePriority) {
    CEventHandler h;
    h.notifyOne(1);
    h.notifyOne(2);
    EXPECT_EQ(h.wait_for({2, 1}, 0).event, 2);
    EXPECT_EQ(h.wait_for({2, 1}, 0).event, 1);
    ExpectTimedOut(h.wait_for({2, 1}, 0));
}

TEST(EventHandlerWait, IdsNotAskedForStayPending) {
    CEventHandler h;
    h.notifyOne(7);
    h.notifyOne(8);
    h.notifyOne(7);
    ExpectTimedOut(h.wait_for({9}, 0));
    EXPECT_EQ(h.wait_for({8}, 0).event, 8);
    // Removing 8 from the middle must keep both counts of 7.
    EXPECT_EQ(h.wait_for({8, 7}, 0).event, 7);
    EXPECT_EQ(h.wait_for({8, 7}, 0).event, 7);
    ExpectTimedOut(h.wait_for({8, 7}, 0));
}

TEST(EventHandlerWait, NegativeAndExtremeIdsAreOrdinaryIds) {
    CEventHandler h;
    h.notifyOne(-1);
    h.notifyOne(0x7FFFFFFF);
    TResult r = h.wait_for({0x7FFFFFFF}, 0);
    EXPECT_TRUE(r.signalled);
    EXPECT_EQ(r.event, 0x7FFFFFFF);
    EXPECT_EQ(h.wait_for({-1}, 0).event, -1);
}

TEST(EventHandlerWait, EmptyIdListNeverSignals) {
    CEventHandler h;
    h.notifyOne(1);
    ExpectTimedOut(h.wait_for({}, 0));
    EXPECT_TRUE(h.wait_for({1}, 0).signalled);
}

TEST(EventHandlerWait, TopBitTimeoutChecksOnceWithoutWaiting) {
    CEventHandler h;
    std::atomic<bool> done{false};
    // A time-out read as negative must not block; run it on a thread so a fault shows as a
    // failed expectation rather than a hung test.
    std::thread t([&] {
        ExpectTimedOut(h.wait_for({3}, 0x8000000000000000ULL));
        ExpectTimedOut(h.wait_for({3}, ~0ULL));
        done = true;
    });
    for (int i = 0; i < 500 && !done; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    bool finished = done;
    if (!finished) h.notifyOne(3), h.notifyOne(3);
    t.join();
    EXPECT_TRUE(finished);
    h.notifyOne(3);
    EXPECT_EQ(h.wait_for({3}, 0x8000000000000001ULL).event, 3);
}

TEST(EventHandlerWait, WaiterWakesOnPostFromAnotherThread) {
    CEventHandler h;
    std::thread producer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        h.notifyOne(42);
    });
    TResult r = h.wait_for({41, 42}, 30000);
    producer.join();
    EXPECT_TRUE(r.signalled);
    EXPECT_EQ(r.event, 42);
}

TEST(EventHandlerWait, WaiterIgnoresOtherIdsUntilItsOwnArrives) {
    CEventHandler h;
    std::thread producer([&] {
        h.notifyOne(1);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        h.notifyOne(2);
    });
    TResult r = h.wait_for({2}, 30000);
    producer.join();
    EXPECT_EQ(r.event, 2);
    EXPECT_EQ(h.wait_for({1}, 0).event, 1);
}

TEST(EventHandlerConcurrency, EveryPostOfManyProducersIsConsumedExactlyOnce) {
    CEventHandler h;
    constexpr int kProducers = 4, kPerProducer = 2000;
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p)
        producers.emplace_back([&h, p] {
            for (int i = 0; i < kPerProducer; ++i)
                h.notifyOne(p);
        });
    std::vector<int> got(kProducers, 0);
    std::atomic<int> total{0};
    std::vector<std::thread> consumers;
    std::mutex gotMutex;
    for (int c = 0; c < 2; ++c)
        consumers.emplace_back([&] {
            for (;;) {
                TResult r = h.wait_for({0, 1, 2, 3}, 2000);
                if (!r.signalled) return;
                std::lock_guard<std::mutex> lock(gotMutex);
                ++got[r.event];
                if (++total == kProducers * kPerProducer) return;
            }
        });
    for (auto& t : producers)
        t.join();
    for (auto& t : consumers)
        t.join();
    for (int p = 0; p < kProducers; ++p)
        EXPECT_EQ(got[p], kPerProducer) << "id " << p;
    ExpectTimedOut(h.wait_for({0, 1, 2, 3}, 0));
}

TEST(EventHandlerMove, MoveKeepsPendingPosts) {
    CEventHandler a;
    a.notifyOne(9);
    CEventHandler b(std::move(a));
    EXPECT_EQ(b.wait_for({9}, 0).event, 9);
    CEventHandler c;
    c.notifyOne(4);
    b = std::move(c);
    EXPECT_EQ(b.wait_for({4}, 0).event, 4);
}

TEST(EventHandlerConcurrency, PingPongLosesNoWakeUp) {
    // Each side waits for the other's post before it posts again, so a single lost wake-up
    // shows as a time-out (the generous time-out is only a hang guard).
    constexpr int kRounds = 20000;
    CEventHandler ping, pong;
    std::atomic<int> peerMissed{0};
    std::thread peer([&] {
        for (int i = 0; i < kRounds; ++i) {
            TResult r = ping.wait_for({1}, 30000);
            if (!r.signalled) {
                ++peerMissed;
                return;
            }
            pong.notifyOne(2);
        }
    });
    int missed = 0;
    for (int i = 0; i < kRounds && missed == 0; ++i) {
        ping.notifyOne(1);
        TResult r = pong.wait_for({2}, 30000);
        if (!r.signalled || r.event != 2) ++missed;
    }
    if (missed) ping.notifyOne(1);
    peer.join();
    EXPECT_EQ(missed, 0);
    EXPECT_EQ(peerMissed.load(), 0);
    ExpectTimedOut(ping.wait_for({1}, 0));
    ExpectTimedOut(pong.wait_for({2}, 0));
}
