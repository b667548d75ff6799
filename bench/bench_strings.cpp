// Building texts from 4-character pieces: a reused CStringVar next to a reused std::string
// (12, 40 and 200 characters), and a fresh TString<64> next to a fresh std::string for a
// 40-character text (past std::string's 15-character small buffer, inside the TString's 71).
// Prints each pair's ratio of medians at the end (run with --benchmark_repetitions=5
// --benchmark_report_aggregates_only=true).
#include <kel/kelbase.h>

#include "RatioReporter.h"

#include <string>

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

} // namespace

int main(int argc, char** argv) {
    return kelbench::RunAndReport(argc, argv, [](const kelbench::CRatioReporter& reporter) {
        for (const char* size : {"12", "40", "200"})
            reporter.PrintRatio(std::string("BM_Build_Kel_StringVar/") + size, std::string("BM_Build_StdString/") + size,
                                1.0);
        reporter.PrintRatio("BM_Fresh40_Kel_TString64", "BM_Fresh40_StdString", 0.5);
    });
}
