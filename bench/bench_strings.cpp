// Building texts from 4-character pieces: a reused CStringVar next to a reused std::string
// (12, 40 and 200 characters), and a fresh TString<64> next to a fresh std::string for a
// 40-character text (past std::string's 15-character small buffer, inside the TString's 71).
// Prints each pair's ratio of medians at the end (run with --benchmark_repetitions=5
// --benchmark_report_aggregates_only=true).
#include <kel/kelbase.h>

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace {

const char* const kPieces[] = {"abcd", "efgh", "ijkl", "mnop", "qrst", "uvwx", "yz01", "2345"};
constexpr size_t kPieceCount = sizeof kPieces / sizeof kPieces[0];

// The pieces pass through memory each round, so neither side can fold the lengths or text.
struct Pieces {
    const char* p[kPieceCount];
    Pieces() {
        for (size_t i = 0; i < kPieceCount; ++i) p[i] = kPieces[i];
    }
    void Clobber() { benchmark::DoNotOptimize(p); }
};

template <class S>
inline void Build(S& s, Pieces& pieces, size_t count) {
    for (size_t i = 0; i < count; ++i) s += pieces.p[i % kPieceCount];
}

bool Expect(const char* data, size_t length, size_t pieces) {
    std::string expect;
    for (size_t i = 0; i < pieces; ++i) expect += kPieces[i % kPieceCount];
    return std::string(data, length) == expect;
}

void BM_Build_Kel_StringVar(benchmark::State& state) {
    const size_t count = static_cast<size_t>(state.range(0)) / 4;
    Pieces pieces;
    KEL::Strings::CStringVar s;
    for (auto _ : state) {
        pieces.Clobber();
        s = KEL::Misc::Null;
        Build(s, pieces, count);
        benchmark::DoNotOptimize(s.data());
        benchmark::ClobberMemory();
    }
    if (!Expect(s.data(), s.Length(), count)) state.SkipWithError("wrong text");
}
BENCHMARK(BM_Build_Kel_StringVar)->Arg(12)->Arg(40)->Arg(200);

void BM_Build_StdString(benchmark::State& state) {
    const size_t count = static_cast<size_t>(state.range(0)) / 4;
    Pieces pieces;
    std::string s;
    for (auto _ : state) {
        pieces.Clobber();
        s.clear();
        Build(s, pieces, count);
        benchmark::DoNotOptimize(s.data());
        benchmark::ClobberMemory();
    }
    if (!Expect(s.data(), s.size(), count)) state.SkipWithError("wrong text");
}
BENCHMARK(BM_Build_StdString)->Arg(12)->Arg(40)->Arg(200);

void BM_Fresh40_Kel_TString64(benchmark::State& state) {
    Pieces pieces;
    for (auto _ : state) {
        pieces.Clobber();
        KEL::Strings::TString<64> s;
        Build(s, pieces, 10);
        benchmark::DoNotOptimize(s.data());
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_Fresh40_Kel_TString64);

void BM_Fresh40_StdString(benchmark::State& state) {
    Pieces pieces;
    for (auto _ : state) {
        pieces.Clobber();
        std::string s;
        Build(s, pieces, 10);
        benchmark::DoNotOptimize(s.data());
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_Fresh40_StdString);

// Collects the median (or, without repetitions, the single) CPU time of each benchmark: the
// machine's cores are shared, so wall time mostly measures the neighbours.
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

    void PrintRatio(const std::string& ours, const std::string& peer) const {
        auto a = m_Times.find(ours);
        auto b = m_Times.find(peer);
        if (a == m_Times.end() || b == m_Times.end() || b->second <= 0) return;
        std::printf("ratio %-30s / %-26s = %.2fx (%s)\n", ours.c_str(), peer.c_str(), a->second / b->second,
                    a->second <= b->second ? "ours faster or equal" : "ours slower");
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
    for (const char* size : {"12", "40", "200"})
        reporter.PrintRatio(std::string("BM_Build_Kel_StringVar/") + size, std::string("BM_Build_StdString/") + size);
    reporter.PrintRatio("BM_Fresh40_Kel_TString64", "BM_Fresh40_StdString");
    benchmark::Shutdown();
    return 0;
}
