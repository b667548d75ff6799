// kelbase - bench/RatioReporter.h
//
// Shared by the benchmark programs: a console reporter that remembers each benchmark's
// median (or single-run) time so the program can print our figure against its peer's, the
// extra thread every benchmark program starts (glibc skips its lock atomics until a
// process has a second thread, which would flatter single-threaded figures), and the main
// that wires the two together.
#pragma once

#include <benchmark/benchmark.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace kelbench {

class CRatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& r : runs) {
            if (r.aggregate_name.empty() || r.aggregate_name == "median") {
                // Keyed by function and arguments ("BM_Build/40"); the time-type suffix is left
                // out, so callers name benchmarks as they are declared.
                std::string name = r.run_name.function_name;
                if (!r.run_name.args.empty()) name += "/" + r.run_name.args;
                m_Times[name] = {r.GetAdjustedRealTime(), r.GetAdjustedCPUTime(), !r.run_name.time_type.empty()};
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }
    /// Prints ours / peer by CPU time (the machines are shared, so wall time carries other
    /// programs' load) and by wall time, and whether the judged ratio is within `limit`. The
    /// judged ratio is the CPU one, or the wall one when either benchmark measures real or
    /// manual time (a thread that mostly blocks spends little CPU, so only wall time counts).
    void PrintRatio(const std::string& ours, const std::string& peer, double limit) const {
        auto a = m_Times.find(ours), b = m_Times.find(peer);
        if (a == m_Times.end() || b == m_Times.end() || b->second.cpu <= 0 || b->second.wall <= 0) return;
        double cpu = a->second.cpu / b->second.cpu;
        double real = a->second.wall / b->second.wall;
        bool byWall = a->second.realTime || b->second.realTime;
        double judged = byWall ? real : cpu;
        std::printf("RATIO %-22s / %-26s = %.3f cpu, %.3f wall (limit %.2f %s) %s\n", ours.c_str(), peer.c_str(),
                    cpu, real, limit, byWall ? "wall" : "cpu", judged <= limit ? "ok" : "OVER");
    }
    /// The benchmark's median wall time in nanoseconds (the time unit left at its default), or
    /// a negative value when it did not run.
    double WallNanoseconds(const std::string& name) const {
        auto it = m_Times.find(name);
        return it == m_Times.end() ? -1.0 : it->second.wall;
    }

private:
    struct Times {
        double wall;
        double cpu;
        bool realTime; // measured with UseRealTime or UseManualTime
    };
    std::map<std::string, Times> m_Times;
};

/// A thread that only waits, started before the benchmarks and ended after them.
class CSecondThread {
public:
    CSecondThread()
        : m_Thread([this] {
              std::unique_lock<std::mutex> hold(m_Lock);
              m_Cv.wait(hold, [this] { return m_bStop; });
          }) {}
    ~CSecondThread() {
        {
            std::lock_guard<std::mutex> hold(m_Lock);
            m_bStop = true;
        }
        m_Cv.notify_all();
        m_Thread.join();
    }

private:
    std::mutex m_Lock;
    std::condition_variable m_Cv;
    bool m_bStop = false;
    std::thread m_Thread;
};

/// Runs the benchmarks named on the command line with a CRatioReporter while a CSecondThread
/// exists, then calls `printRatios(reporter)`. Returns main's exit status: 1 for arguments the
/// library does not know, 0 otherwise.
template <class PrintRatios>
int RunAndReport(int argc, char** argv, PrintRatios printRatios) {
    CSecondThread second;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    CRatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::printf("\n");
    printRatios(static_cast<const CRatioReporter&>(reporter));
    benchmark::Shutdown();
    return 0;
}

/// The standard library's ping-pong, the peer of every blocking-wake-up benchmark: two
/// threads handing a turn back and forth through a mutex and two condition variables.
inline void StdCondVarPingPong(benchmark::State& state) {
    std::mutex m;
    std::condition_variable cvPing, cvPong;
    bool pinged = false, ponged = false, stop = false;
    std::thread peer([&] {
        std::unique_lock<std::mutex> lock(m);
        for (;;) {
            cvPing.wait(lock, [&] { return pinged || stop; });
            if (stop) break;
            pinged = false;
            ponged = true;
            cvPong.notify_one();
        }
    });
    for (auto _ : state) {
        std::unique_lock<std::mutex> lock(m);
        pinged = true;
        cvPing.notify_one();
        cvPong.wait(lock, [&] { return ponged; });
        ponged = false;
    }
    {
        std::lock_guard<std::mutex> lock(m);
        stop = true;
    }
    cvPing.notify_one();
    peer.join();
}

} // namespace kelbench
