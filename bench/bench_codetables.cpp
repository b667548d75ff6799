// The code tables next to the obvious alternative, a std::map<int, std::string> per unit filled
// from the same rows during static initialisation:
//
//  - start-up: what one unit that includes the header pays before main. kelbase's tables are
//    constant-initialised (checked below at compile time), so a unit pays nothing; the peer
//    builds five maps. BM_StartUp_Kel_Build runs the same builder the compiler runs, only to
//    show what was moved out of start-up;
//  - look-ups by code and by name, and a full walk, on the event table (the largest).
//
// Prints the ratios and the start-up estimate for a program of 20 such units at the end (run
// with --benchmark_repetitions=5 --benchmark_report_aggregates_only=true).
#include <kel/CodeTables.h>

#include "RatioReporter.h"

#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace {

namespace Rows = KEL::Internals::CodeTables;

// A unit that includes the header has no start-up work for the tables: these are constants.
static_assert(KEL::EventCodeNames.size() == 1341 && KEL::LayoutCodeNames.find(1)->second == "UNDEFINED",
              "the code tables must be constant-initialised");

using PeerMap = std::map<int, std::string>;

template <std::size_t N>
PeerMap PeerBuild(const Rows::CODE_ROW (&list)[N]) {
    PeerMap map;
    long long next = 0;
    for (const Rows::CODE_ROW& row : list) {
        const long long code = row.startsRun ? row.code : next;
        next = code + 1;
        map.emplace_hint(map.end(), static_cast<int>(code), std::string(row.name, row.length));
    }
    return map;
}

struct PeerTables {
    PeerMap error = PeerBuild(Rows::ErrorCodeRows);
    PeerMap event = PeerBuild(Rows::EventCodeRows);
    PeerMap operation = PeerBuild(Rows::OperationCodeRows);
    PeerMap layout = PeerBuild(Rows::LayoutCodeRows);
    PeerMap value = PeerBuild(Rows::ValueCodeRows);
};

const PeerTables& Peer() {
    static const PeerTables tables;
    return tables;
}

// Start-up work of one unit for the peer: five maps built and, at exit, destroyed.
void BM_StartUp_StdMap_FiveTables(benchmark::State& state) {
    for (auto _ : state) {
        PeerTables tables;
        benchmark::DoNotOptimize(tables.event.size());
    }
    const PeerTables check;
    if (check.event.size() != KEL::EventCodeNames.size() || check.layout.size() != KEL::LayoutCodeNames.size())
        state.SkipWithError("peer tables differ");
}
BENCHMARK(BM_StartUp_StdMap_FiveTables);

// The builder the compiler evaluates for kelbase's tables, run at run time for comparison.
// No program runs this at start-up.
void BM_StartUp_Kel_Build(benchmark::State& state) {
    // Through opaque pointers, or the compiler would fold the calls into the constants again.
    auto* errorRows = &Rows::ErrorCodeRows;
    auto* eventRows = &Rows::EventCodeRows;
    auto* operationRows = &Rows::OperationCodeRows;
    auto* layoutRows = &Rows::LayoutCodeRows;
    auto* valueRows = &Rows::ValueCodeRows;
    for (auto _ : state) {
        benchmark::DoNotOptimize(errorRows);
        benchmark::DoNotOptimize(eventRows);
        benchmark::DoNotOptimize(operationRows);
        benchmark::DoNotOptimize(layoutRows);
        benchmark::DoNotOptimize(valueRows);
        auto error = Rows::Number(*errorRows);
        auto event = Rows::Number(*eventRows);
        auto operation = Rows::Number(*operationRows);
        auto layout = Rows::Number(*layoutRows);
        auto value = Rows::Number(*valueRows);
        benchmark::DoNotOptimize(error.count + event.count + operation.count + layout.count + value.count);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_StartUp_Kel_Build);

// 1024 event codes: seven in eight present, the rest in the gaps.
std::vector<int> ProbeCodes() {
    std::vector<int> codes;
    std::mt19937 random(20240611);
    std::uniform_int_distribution<std::size_t> pick(0, KEL::EventCodeNames.size() - 1);
    const int absent[] = {0, 6, 9999, 10854, 10914, 11500, 12150, 99999};
    for (int i = 0; i < 1024; ++i)
        codes.push_back(i % 8 == 7 ? absent[(i / 8) % 8] : KEL::EventCodeNames.begin()[pick(random)].first);
    return codes;
}

void BM_NameOf_Kel(benchmark::State& state) {
    const std::vector<int> codes = ProbeCodes();
    std::size_t found = 0;
    for (auto _ : state) {
        for (int code : codes) {
            const auto name = KEL::CodeTables::NameOf(KEL::EventCodeNames, code);
            found += name ? name->size() : 0;
        }
        benchmark::DoNotOptimize(found);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(codes.size()));
}
BENCHMARK(BM_NameOf_Kel);

void BM_NameOf_StdMap(benchmark::State& state) {
    const std::vector<int> codes = ProbeCodes();
    const PeerMap& map = Peer().event;
    std::size_t found = 0;
    for (auto _ : state) {
        for (int code : codes) {
            const auto it = map.find(code);
            found += it != map.end() ? it->second.size() : 0;
        }
        benchmark::DoNotOptimize(found);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(codes.size()));
}
BENCHMARK(BM_NameOf_StdMap);

// By name: neither side keeps a name index, both walk the table.
const char* const kProbeNames[] = {"UNKNOWN", "PD_FAIL_EX", "BIOS_BOOT_MODE_HCOE", "EVT_MV_CODE_MISC_PD_TOO_SMALL_FOR_AUTOREBUILD",
                                   "NO_SUCH_EVENT"};

void BM_CodeOf_Kel(benchmark::State& state) {
    long long sum = 0;
    for (auto _ : state) {
        for (const char* name : kProbeNames) {
            const auto code = KEL::CodeTables::CodeOf(KEL::EventCodeNames, name);
            sum += code ? *code : -1;
        }
        benchmark::DoNotOptimize(sum);
    }
}
BENCHMARK(BM_CodeOf_Kel);

void BM_CodeOf_StdMap(benchmark::State& state) {
    const PeerMap& map = Peer().event;
    long long sum = 0;
    for (auto _ : state) {
        for (const char* name : kProbeNames) {
            const std::string_view wanted(name);
            int code = -1;
            for (const auto& [c, n] : map)
                if (n == wanted) {
                    code = c;
                    break;
                }
            sum += code;
        }
        benchmark::DoNotOptimize(sum);
    }
}
BENCHMARK(BM_CodeOf_StdMap);

void BM_Walk_Kel(benchmark::State& state) {
    std::size_t total = 0;
    for (auto _ : state) {
        for (const auto& [code, name] : KEL::EventCodeNames)
            total += static_cast<std::size_t>(code) + name.size();
        benchmark::DoNotOptimize(total);
    }
}
BENCHMARK(BM_Walk_Kel);

void BM_Walk_StdMap(benchmark::State& state) {
    const PeerMap& map = Peer().event;
    std::size_t total = 0;
    for (auto _ : state) {
        for (const auto& [code, name] : map)
            total += static_cast<std::size_t>(code) + name.size();
        benchmark::DoNotOptimize(total);
    }
}
BENCHMARK(BM_Walk_StdMap);

} // namespace

int main(int argc, char** argv) {
    return kelbench::RunAndReport(argc, argv, [](const kelbench::CRatioReporter& reporter) {
        // No targets for the look-ups: reported so a regression shows.
        reporter.PrintRatio("BM_NameOf_Kel", "BM_NameOf_StdMap", 100.0);
        reporter.PrintRatio("BM_CodeOf_Kel", "BM_CodeOf_StdMap", 100.0);
        reporter.PrintRatio("BM_Walk_Kel", "BM_Walk_StdMap", 100.0);
        const double peer = reporter.WallNanoseconds("BM_StartUp_StdMap_FiveTables");
        if (peer > 0) {
            std::printf("start-up per unit: kelbase 0 us (constant-initialised), std::map peer %.1f us\n",
                        peer / 1000.0);
            std::printf("start-up for 20 units: kelbase 0 ms, std::map peer %.2f ms (budget 10 ms)\n",
                        20.0 * peer / 1.0e6);
        }
    });
}
