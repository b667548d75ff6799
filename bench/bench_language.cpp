// Resolving a present label into a reused string: CLanguageSupport::ResolveString (thread
// language, binary search over the 3499 labels) next to the obvious peer, a
// std::unordered_map<unsigned int, std::string> lookup and assignment.
#include <kel/kelbase.h>

#include "RatioReporter.h"

#include <cstdio>
#include <string>
#include <unordered_map>

namespace {

using KEL::Language_Support::CLanguageSupport;

// Labels spread over the table: events, values, properties and interface texts.
const unsigned int kLabels[] = {2u, 10500u, 20121u, 30100u, 35600u, 40007u, 50064u, 22010u};
constexpr size_t kLabelCount = sizeof(kLabels) / sizeof(kLabels[0]);

void BM_KelResolveString(benchmark::State& state) {
    std::string text;
    text.reserve(128);
    CLanguageSupport::ResolveString(kLabels[0], text, false); // languages built before timing
    size_t i = 0, sum = 0;
    for (auto _ : state) {
        CLanguageSupport::ResolveString(kLabels[i++ % kLabelCount], text, false);
        sum += text.size();
    }
    benchmark::DoNotOptimize(sum);
}
BENCHMARK(BM_KelResolveString);

void BM_KelResolveStringVar(benchmark::State& state) {
    KEL::Strings::TString<128> text;
    CLanguageSupport::ResolveString(kLabels[0], text, false);
    size_t i = 0, sum = 0;
    for (auto _ : state) {
        CLanguageSupport::ResolveString(kLabels[i++ % kLabelCount], text, false);
        sum += text.Length();
    }
    benchmark::DoNotOptimize(sum);
}
BENCHMARK(BM_KelResolveStringVar);

const std::unordered_map<unsigned int, std::string>& PeerTable() {
    static const std::unordered_map<unsigned int, std::string> table = [] {
        std::unordered_map<unsigned int, std::string> t;
        const KEL::Language_Support::NLS_DEFAULT* d = CLanguageSupport::GetDefaults();
        for (size_t i = 0; i < CLanguageSupport::Label_Count; ++i)
            t.emplace(d[i].id, d[i].text);
        return t;
    }();
    return table;
}

void BM_PeerUnorderedMap(benchmark::State& state) {
    const std::unordered_map<unsigned int, std::string>& table = PeerTable();
    std::string text;
    text.reserve(128);
    size_t i = 0, sum = 0;
    for (auto _ : state) {
        auto it = table.find(kLabels[i++ % kLabelCount]);
        if (it != table.end())
            text = it->second;
        else
            text = "?: There is no information available!";
        sum += text.size();
    }
    benchmark::DoNotOptimize(sum);
}
BENCHMARK(BM_PeerUnorderedMap);

} // namespace

int main(int argc, char** argv) {
    return kelbench::RunAndReport(argc, argv, [](const kelbench::CRatioReporter& reporter) {
        // No ratio target: the aim is a median under 100 ns per resolved label.
        for (const char* name : {"BM_KelResolveString", "BM_KelResolveStringVar"}) {
            reporter.PrintRatio(name, "BM_PeerUnorderedMap", 100.0);
            const double ns = reporter.WallNanoseconds(name);
            if (ns > 0) std::printf("%-24s %7.1f ns median (aim under 100 ns)\n", name, ns);
        }
    });
}
