// Formatting an error header into a reused string next to snprintf and {fmt}'s format_to, and
// an aligned line next to snprintf. Prints each pair's ratio of medians at the end (run with
// --benchmark_repetitions=5 --benchmark_report_aggregates_only=true).
#include <kel/kelbase.h>

#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <iterator>
#include <map>
#include <string>
#include <thread>

namespace {

const char* const kHeader = "Error   : %s::%d (0x%X)\nMessage : %s\n";

struct Arguments {
    const char* module = "kelbase";
    int number = 16;
    unsigned int code = 0x20010010u;
    const char* text = "Bad format";
};

// The arguments pass through memory each round, so no side can fold them into its format.
inline void Clobber(Arguments& a) {
    benchmark::DoNotOptimize(a.module);
    benchmark::DoNotOptimize(a.number);
    benchmark::DoNotOptimize(a.code);
    benchmark::DoNotOptimize(a.text);
}

void BM_Header_Kel_StringVar(benchmark::State& state) {
    Arguments a;
    KEL::Strings::TString<128> s;
    for (auto _ : state) {
        Clobber(a);
        s.Cut(0);
        s.Format(kHeader) << a.module << a.number << a.code << a.text;
        benchmark::DoNotOptimize(s.data());
    }
    if (std::string(s.data(), s.Length()) != "Error   : kelbase::16 (0x20010010)\nMessage : Bad format\n")
        state.SkipWithError("wrong text");
}
BENCHMARK(BM_Header_Kel_StringVar);

void BM_Header_Kel_ChrBuffer(benchmark::State& state) {
    Arguments a;
    KEL::Output_Streams::CChrStreamBuffer b(256);
    for (auto _ : state) {
        Clobber(a);
        b.Reset();
        b.Format(kHeader) << a.module << a.number << a.code << a.text;
        benchmark::DoNotOptimize(b.GetBuffer());
    }
}
BENCHMARK(BM_Header_Kel_ChrBuffer);

void BM_Header_Snprintf(benchmark::State& state) {
    Arguments a;
    char buffer[256];
    for (auto _ : state) {
        Clobber(a);
        int n = std::snprintf(buffer, sizeof buffer, kHeader, a.module, a.number, a.code, a.text);
        benchmark::DoNotOptimize(n);
        benchmark::DoNotOptimize(buffer);
    }
}
BENCHMARK(BM_Header_Snprintf);

void BM_Header_FmtFormatTo(benchmark::State& state) {
    Arguments a;
    fmt::memory_buffer buffer;
    for (auto _ : state) {
        Clobber(a);
        buffer.clear();
        fmt::format_to(std::back_inserter(buffer), "Error   : {}::{} (0x{:X})\nMessage : {}\n", a.module, a.number,
                       a.code, a.text);
        benchmark::DoNotOptimize(buffer.data());
    }
}
BENCHMARK(BM_Header_FmtFormatTo);

// Fields with widths: left-aligned text, zero-filled and right-aligned numbers.
void BM_Aligned_Kel_StringVar(benchmark::State& state) {
    Arguments a;
    KEL::Strings::TString<128> s;
    for (auto _ : state) {
        Clobber(a);
        s.Cut(0);
        s.Format("[%- 12s] %05d %+ 10X\n") << a.module << a.number << a.code;
        benchmark::DoNotOptimize(s.data());
    }
}
BENCHMARK(BM_Aligned_Kel_StringVar);

void BM_Aligned_Snprintf(benchmark::State& state) {
    Arguments a;
    char buffer[256];
    for (auto _ : state) {
        Clobber(a);
        int n = std::snprintf(buffer, sizeof buffer, "[%-12s] %05d %10X\n", a.module, a.number, a.code);
        benchmark::DoNotOptimize(n);
        benchmark::DoNotOptimize(buffer);
    }
}
BENCHMARK(BM_Aligned_Snprintf);

// Collects the median (or, without repetitions, the single) CPU time of each benchmark: on
// shared machines the wall time also counts the time other processes hold the CPU.
class CRatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            std::string name = run.benchmark_name();
            if (run.run_type == Run::RT_Aggregate) {
                if (run.aggregate_name != "median") continue;
                name = name.substr(0, name.rfind('_'));
            }
            m_Times[name] = run.GetAdjustedCPUTime();
        }
        ConsoleReporter::ReportRuns(runs);
    }

    void PrintRatio(const char* ours, const char* peer) const {
        auto a = m_Times.find(ours);
        auto b = m_Times.find(peer);
        if (a == m_Times.end() || b == m_Times.end() || b->second <= 0) return;
        std::printf("ratio %-26s / %-24s = %.2fx\n", ours, peer, a->second / b->second);
    }

private:
    std::map<std::string, double> m_Times;
};

// A second thread exists for the whole run, as in any real service (glibc's single-thread
// shortcuts would otherwise flatter every figure).
struct BackgroundThread {
    std::atomic<bool> stop{false};
    std::thread t{[this] {
        while (!stop.load()) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }};
    ~BackgroundThread() {
        stop = true;
        t.join();
    }
};

} // namespace

int main(int argc, char** argv) {
    BackgroundThread background;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    CRatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::printf("\n");
    reporter.PrintRatio("BM_Header_Kel_StringVar", "BM_Header_Snprintf");
    reporter.PrintRatio("BM_Header_Kel_StringVar", "BM_Header_FmtFormatTo");
    reporter.PrintRatio("BM_Header_Kel_ChrBuffer", "BM_Header_Snprintf");
    reporter.PrintRatio("BM_Aligned_Kel_StringVar", "BM_Aligned_Snprintf");
    benchmark::Shutdown();
    return 0;
}
