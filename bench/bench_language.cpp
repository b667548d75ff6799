// Resolving a present label into a reused string: CLanguageSupport::ResolveString (thread
// language, binary search over the 3499 labels) next to the obvious peer, a
// std::unordered_map<unsigned int, std::string> lookup and assignment.
#include <kel/kelbase.h>

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
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
        for (size_t i = 0; i < CLanguageSupport::Label_Count; ++i) t.emplace(d[i].id, d[i].text);
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

// Collects each benchmark's median (or plain) time to print the ratio to the peer at the end.
class CRatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& r : runs) {
            if (r.run_type == Run::RT_Aggregate && r.aggregate_name != "median") continue;
            m_Times[r.run_name.function_name] = r.GetAdjustedRealTime();
        }
    }
    void Finalize() override {
        ConsoleReporter::Finalize();
        double peer = m_Times["BM_PeerUnorderedMap"];
        if (peer <= 0) return;
        for (const char* name : {"BM_KelResolveString", "BM_KelResolveStringVar"}) {
            if (m_Times.count(name))
                std::printf("%-24s %7.1f ns  %.2fx the peer (unordered_map + assign, %.1f ns)\n", name,
                            m_Times[name], m_Times[name] / peer, peer);
        }
    }

private:
    std::map<std::string, double> m_Times;
};

} // namespace

int main(int argc, char** argv) {
    BackgroundThread background;
    benchmark::Initialize(&argc, argv);
    CRatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
