// kelbase - bench/RatioReporter.h
//
// Shared by the benchmark programs: a console reporter that remembers each benchmark's
// median (or single-run) time so the program can print our figure against its peer's, and
// the extra thread every benchmark program starts (glibc skips its lock atomics until a
// process has a second thread, which would flatter single-threaded figures).
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
            if (r.aggregate_name.empty() || r.aggregate_name == "median")
                m_Times[r.run_name.function_name] = {r.GetAdjustedRealTime(), r.GetAdjustedCPUTime()};
        }
        ConsoleReporter::ReportRuns(runs);
    }
    /// Prints ours / peer by CPU time (the machines are shared, so wall time carries other
    /// programs' load) and by wall time, and whether the CPU ratio is within `limit`.
    void PrintRatio(const std::string& ours, const std::string& peer, double limit) const {
        auto a = m_Times.find(ours), b = m_Times.find(peer);
        if (a == m_Times.end() || b == m_Times.end() || b->second.second <= 0 || b->second.first <= 0) return;
        double cpu = a->second.second / b->second.second;
        double real = a->second.first / b->second.first;
        std::printf("RATIO %-22s / %-26s = %.3f cpu, %.3f wall (limit %.2f) %s\n", ours.c_str(), peer.c_str(), cpu,
                    real, limit, cpu <= limit ? "ok" : "OVER");
    }

private:
    std::map<std::string, std::pair<double, double>> m_Times; // wall, CPU
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

} // namespace kelbench
