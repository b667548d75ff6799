// Threading: locks uncontended, event ping-pong across two threads (single events and a list of
// eight) and the latency of a Cancel, each next to its standard-library or raw-futex peer. The
// ratios are printed at the end from the medians of the same run.
#include <kel/kelbase.h>

#include "RatioReporter.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <thread>
#include <vector>

using namespace KEL::Threading;

namespace {

// ---- uncontended locks ---------------------------------------------------------------------

void BM_CriticalSection_EnterLeave(benchmark::State& state) {
    static Native_OS::CCriticalSection cs;
    cs.Init(1000);
    for (auto _ : state) {
        cs.Enter();
        cs.Leave();
    }
}
BENCHMARK(BM_CriticalSection_EnterLeave);

void BM_StdRecursiveMutex_LockUnlock(benchmark::State& state) {
    static std::recursive_mutex m;
    for (auto _ : state) {
        m.lock();
        m.unlock();
    }
}
BENCHMARK(BM_StdRecursiveMutex_LockUnlock);

void BM_FastMutex_WaitRelease(benchmark::State& state) {
    static Native_OS::CFastMutex m;
    m.Init();
    for (auto _ : state) {
        m.Wait();
        m.Release();
    }
}
BENCHMARK(BM_FastMutex_WaitRelease);

void BM_StdMutex_LockUnlock(benchmark::State& state) {
    static std::mutex m;
    for (auto _ : state) {
        m.lock();
        m.unlock();
    }
}
BENCHMARK(BM_StdMutex_LockUnlock);

// ---- ping-pong: one round trip per iteration ------------------------------------------------

void BM_PingPong_CEvent(benchmark::State& state) {
    CEvent ping, pong;
    ping.Init(false, false);
    pong.Init(false, false);
    std::atomic<bool> stop{false};
    std::thread peer([&] {
        for (;;) {
            ping.Wait();
            if (stop.load(std::memory_order_relaxed)) break;
            pong.Set();
        }
    });
    for (auto _ : state) {
        ping.Set();
        pong.Wait();
    }
    stop = true;
    ping.Set();
    peer.join();
}
BENCHMARK(BM_PingPong_CEvent)->UseRealTime();

void BM_PingPong_Waiter8(benchmark::State& state) {
    std::vector<CEvent> toPeer(8), toUs(8);
    CWaiter peerList, ourList;
    for (int i = 0; i < 8; ++i) {
        toPeer[i].Init(false, false);
        toUs[i].Init(false, false);
        peerList << toPeer[i];
        ourList << toUs[i];
    }
    std::atomic<bool> stop{false};
    std::thread peer([&] {
        for (;;) {
            unsigned int r = peerList.Wait(0xFFFFFFFF);
            if (stop.load(std::memory_order_relaxed)) break;
            toUs[(r + 2) % 8].Set();
        }
    });
    unsigned int i = 0;
    for (auto _ : state) {
        toPeer[i++ % 8].Set();
        ourList.Wait(0xFFFFFFFF);
    }
    stop = true;
    toPeer[0].Set();
    peer.join();
}
BENCHMARK(BM_PingPong_Waiter8)->UseRealTime();

void BM_PingPong_StdCondVar(benchmark::State& state) { kelbench::StdCondVarPingPong(state); }
BENCHMARK(BM_PingPong_StdCondVar)->UseRealTime();

long Futex(std::atomic<int>* word, int op, int value) {
    return ::syscall(SYS_futex, reinterpret_cast<int*>(word), op, value, nullptr, nullptr, 0);
}

void BM_PingPong_RawFutex(benchmark::State& state) {
    // 0 idle, 1 ping posted, 2 pong posted, 3 stop.
    std::atomic<int> word{0};
    std::thread peer([&] {
        for (;;) {
            int v;
            while ((v = word.load()) != 1 && v != 3) Futex(&word, FUTEX_WAIT_PRIVATE, v);
            if (v == 3) break;
            word.store(2);
            Futex(&word, FUTEX_WAKE_PRIVATE, 1);
        }
    });
    for (auto _ : state) {
        word.store(1);
        Futex(&word, FUTEX_WAKE_PRIVATE, 1);
        int v;
        while ((v = word.load()) != 2) Futex(&word, FUTEX_WAIT_PRIVATE, v);
    }
    word.store(3);
    Futex(&word, FUTEX_WAKE_PRIVATE, 1);
    peer.join();
}
BENCHMARK(BM_PingPong_RawFutex)->UseRealTime();

// ---- Cancel latency: from Cancel to the target's "Thread interrupt" -------------------------

struct CCancelCb : KEL::Delegates_and_Calls::CDelegate::CCbBase {
    CCancelCb(CEvent& never, CEvent& waiting, std::atomic<long long>& caught)
        : m_Never(never), m_Waiting(waiting), m_Caught(caught) {}
    void Call() override {
        m_Waiting.Set();
        // Throw mode is off on a new thread: the interrupt comes back as the status.
        if (m_Never.Wait() == 0x2001003Au)
            m_Caught = std::chrono::duration_cast<std::chrono::nanoseconds>(
                           std::chrono::steady_clock::now().time_since_epoch())
                           .count();
    }
    CEvent& m_Never;
    CEvent& m_Waiting;
    std::atomic<long long>& m_Caught;
};


void BM_CancelLatency(benchmark::State& state) {
    CEvent never, waiting;
    never.Init(true, false);
    waiting.Init(true, false);
    for (auto _ : state) {
        std::atomic<long long> caught{0};
        waiting.Reset();
        CThread t;
        t.Create(KEL::Delegates_and_Calls::CDelegate(new CCancelCb(never, waiting, caught)));
        waiting.Wait();
        std::this_thread::sleep_for(std::chrono::microseconds(200)); // parked for sure
        const long long start = std::chrono::duration_cast<std::chrono::nanoseconds>(
                                    std::chrono::steady_clock::now().time_since_epoch())
                                    .count();
        t.Cancel();
        t.Wait();
        state.SetIterationTime(static_cast<double>(caught.load() - start) * 1e-9);
    }
}

BENCHMARK(BM_CancelLatency)->UseManualTime()->Iterations(200);

} // namespace

int main(int argc, char** argv) {
    return kelbench::RunAndReport(argc, argv, [](const kelbench::CRatioReporter& reporter) {
        reporter.PrintRatio("BM_CriticalSection_EnterLeave", "BM_StdRecursiveMutex_LockUnlock", 1.2);
        reporter.PrintRatio("BM_FastMutex_WaitRelease", "BM_StdMutex_LockUnlock", 1.5);
        // Ping-pong figures are times per round trip: at least the peer's rate is a time ratio
        // of at most 1.0; the raw futex's aim of 0.7 of its rate is 1/0.7 of its time; the
        // CWaiter's floor of half the single event's rate is twice its time.
        reporter.PrintRatio("BM_PingPong_CEvent", "BM_PingPong_StdCondVar", 1.0);
        reporter.PrintRatio("BM_PingPong_CEvent", "BM_PingPong_RawFutex", 1.0 / 0.7);
        reporter.PrintRatio("BM_PingPong_Waiter8", "BM_PingPong_CEvent", 2.0);
        const double cancel = reporter.WallNanoseconds("BM_CancelLatency");
        if (cancel > 0)
            std::printf("CThread::Cancel to \"Thread interrupt\" (median): %.1f us\n", cancel / 1000.0);
    });
}
