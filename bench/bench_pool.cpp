// Thread pool, event handler and delegates next to their peers: 100,000 empty jobs through a
// pool of two workers against boost::asio::thread_pool(2), a CEventHandler ping-pong against a
// std::condition_variable one, and a CFastDelegate call against a virtual call.
#include <kel/kelbase.h>

#include "RatioReporter.h"

#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

using namespace KEL::Threading;
using namespace KEL::Delegates_and_Calls;

namespace {

constexpr int kJobs = 100000;

void WaitForCount(const std::atomic<int>& count, int target) {
    while (count.load(std::memory_order_acquire) < target)
        std::this_thread::yield();
}

// ---- pool throughput -------------------------------------------------------------------------

void BM_Pool_100kEmptyJobs(benchmark::State& state) {
    CThreadPool pool;
    // Maximum 1: the pool holds one worker more, so two workers run.
    pool.Init(2, 1, 600000);
    std::atomic<int> done{0};
    for (auto _ : state) {
        done.store(0);
        for (int i = 0; i < kJobs; ++i)
            pool.Enqueue(MakeDelegate([&done] { done.fetch_add(1, std::memory_order_release); }));
        WaitForCount(done, kJobs);
    }
    pool.Stop();
    state.SetItemsProcessed(state.iterations() * kJobs);
}
BENCHMARK(BM_Pool_100kEmptyJobs)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_AsioPool_100kEmptyJobs(benchmark::State& state) {
    boost::asio::thread_pool pool(2);
    std::atomic<int> done{0};
    for (auto _ : state) {
        done.store(0);
        for (int i = 0; i < kJobs; ++i)
            boost::asio::post(pool, [&done] { done.fetch_add(1, std::memory_order_release); });
        WaitForCount(done, kJobs);
    }
    pool.join();
    state.SetItemsProcessed(state.iterations() * kJobs);
}
BENCHMARK(BM_AsioPool_100kEmptyJobs)->UseRealTime()->Unit(benchmark::kMillisecond);

// ---- event handler ping-pong -------------------------------------------------------------------

void BM_PingPong_EventHandler(benchmark::State& state) {
    CEventHandler ping, pong;
    std::thread peer([&] {
        for (;;) {
            auto r = ping.wait_for({1, 2}, 600000);
            if (r.event == 2) break;
            pong.notifyOne(1);
        }
    });
    for (auto _ : state) {
        ping.notifyOne(1);
        pong.wait_for({1}, 600000);
    }
    ping.notifyOne(2);
    peer.join();
}
BENCHMARK(BM_PingPong_EventHandler)->UseRealTime();

void BM_PingPong_StdCondVar(benchmark::State& state) { kelbench::StdCondVarPingPong(state); }
BENCHMARK(BM_PingPong_StdCondVar)->UseRealTime();

// ---- delegate call -----------------------------------------------------------------------------

// Neither target may be inlined into the loop: GCC would otherwise devirtualise the only
// override speculatively and time an inlined increment against a real call.
struct CTarget {
    unsigned int n = 0;
    [[gnu::noinline]] unsigned int Bump() { return ++n; }
};

struct CVirtualBase {
    virtual ~CVirtualBase() = default;
    virtual unsigned int Bump() = 0;
};
struct CVirtualTarget : CVirtualBase {
    unsigned int n = 0;
    [[gnu::noinline]] unsigned int Bump() override { return ++n; }
};
// A second override that the loop may meet: with a single override in this file GCC sees the
// whole hierarchy and turns the "virtual" call into a direct one.
struct CVirtualOther : CVirtualBase {
    unsigned int n = 0;
    [[gnu::noinline]] unsigned int Bump() override { return n += 2; }
};

void BM_FastDelegate_Call(benchmark::State& state) {
    CTarget target;
    TFastDelegateR<unsigned int> d(&target, &CTarget::Bump);
    for (auto _ : state) {
        benchmark::DoNotOptimize(d);
        benchmark::DoNotOptimize(d());
    }
}
BENCHMARK(BM_FastDelegate_Call);

void BM_VirtualCall(benchmark::State& state) {
    CVirtualTarget target;
    CVirtualOther other;
    bool useOther = false;
    benchmark::DoNotOptimize(useOther);
    CVirtualBase* p = useOther ? static_cast<CVirtualBase*>(&other) : &target;
    for (auto _ : state) {
        benchmark::DoNotOptimize(p);
        benchmark::DoNotOptimize(p->Bump());
    }
}
BENCHMARK(BM_VirtualCall);

} // namespace

int main(int argc, char** argv) {
    return kelbench::RunAndReport(argc, argv, [](const kelbench::CRatioReporter& reporter) {
        // Times per batch and per round trip: at least the peer's rate is a time ratio of at most
        // 1.0; 0.9 of its rate is 1/0.9 of its time.
        reporter.PrintRatio("BM_Pool_100kEmptyJobs", "BM_AsioPool_100kEmptyJobs", 1.0);
        reporter.PrintRatio("BM_PingPong_EventHandler", "BM_PingPong_StdCondVar", 1.0 / 0.9);
        reporter.PrintRatio("BM_FastDelegate_Call", "BM_VirtualCall", 1.5);
    });
}
