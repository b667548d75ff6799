// Raising a status and reading it back (throw mode off) next to a plain C++ throw/catch.
#include <kel/kelbase.h>

#include "RatioReporter.h"

#include <stdexcept>

namespace {

[[gnu::noinline]] unsigned int FailingOperation(int value) {
    return KEL::Exceptions::Guarded(KEL_SITE(), [&]() -> unsigned int {
        if (value >= 0) KEL_RAISE(0x20010029u, "Integer out of range (%d)", value);
        return 1u;
    });
}

[[gnu::noinline]] void ThrowPlain(int value) {
    if (value >= 0) throw std::runtime_error("Integer out of range");
}

[[gnu::noinline]] unsigned int SucceedingOperation(int value) {
    return KEL::Exceptions::Guarded(KEL_SITE(), [&]() -> unsigned int { return value < 0 ? 0u : 1u; });
}

void BM_KelRaiseAndReadStatus(benchmark::State& state) {
    unsigned int sum = 0;
    for (auto _ : state) {
        unsigned int status = FailingOperation(5);
        sum += status + KEL::Exceptions::ThreadErrorLog().GetError();
    }
    benchmark::DoNotOptimize(sum);
}
BENCHMARK(BM_KelRaiseAndReadStatus);

void BM_PlainThrowCatch(benchmark::State& state) {
    unsigned int sum = 0;
    for (auto _ : state) {
        try {
            ThrowPlain(5);
        } catch (const std::runtime_error& e) {
            sum += static_cast<unsigned int>(e.what()[0]);
        }
    }
    benchmark::DoNotOptimize(sum);
}
BENCHMARK(BM_PlainThrowCatch);

void BM_KelBoundaryNoFailure(benchmark::State& state) {
    unsigned int sum = 0;
    for (auto _ : state) sum += SucceedingOperation(5);
    benchmark::DoNotOptimize(sum);
}
BENCHMARK(BM_KelBoundaryNoFailure);

} // namespace

int main(int argc, char** argv) {
    return kelbench::RunAndReport(argc, argv, [](const kelbench::CRatioReporter& reporter) {
        // No target: the figure is reported so a regression shows.
        reporter.PrintRatio("BM_KelRaiseAndReadStatus", "BM_PlainThrowCatch", 100.0);
    });
}
