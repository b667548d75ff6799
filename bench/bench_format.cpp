// Formatting an error header into a reused string next to snprintf and {fmt}'s format_to, and
// an aligned line next to snprintf. Prints each pair's ratio of medians at the end (run with
// --benchmark_repetitions=5 --benchmark_report_aggregates_only=true).
#include <kel/kelbase.h>

#include "RatioReporter.h"

#include <fmt/format.h>

#include <cstdio>
#include <iterator>
#include <string>

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

} // namespace

int main(int argc, char** argv) {
    return kelbench::RunAndReport(argc, argv, [](const kelbench::CRatioReporter& reporter) {
        reporter.PrintRatio("BM_Header_Kel_StringVar", "BM_Header_Snprintf", 1.0);
        reporter.PrintRatio("BM_Header_Kel_StringVar", "BM_Header_FmtFormatTo", 1.5);
        reporter.PrintRatio("BM_Header_Kel_ChrBuffer", "BM_Header_Snprintf", 1.0);
        reporter.PrintRatio("BM_Aligned_Kel_StringVar", "BM_Aligned_Snprintf", 1.0);
    });
}
