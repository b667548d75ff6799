// Escaping a user name for an LDAP search filter: kelbase next to OpenLDAP's own
// ldap_bv2escaped_filter_value, in the same process; the ratio is printed at the end.
#include <kel/kelbase.h>

#include <benchmark/benchmark.h>
#include <ldap.h>

#include <atomic>
#include <cstdio>
#include <map>
#include <string>
#include <thread>

namespace {

// Names as the suite meets them: mostly plain, some with characters that must be escaped.
const std::string kNames[] = {"jdoe", "maria.lopez-garcia", "svc_raid_monitor", "o'brien (contractor)",
                              "admin*", "back\\slash", "Ren\xc3\xa9", "a.very.long.account.name.of.someone"};

void BM_KelEscapeFilterValue(benchmark::State& state) {
    size_t total = 0;
    for (auto _ : state) {
        for (const std::string& name : kNames) total += KEL::Ldap::CLDAPServer::EscapeFilterValue(name).size();
    }
    benchmark::DoNotOptimize(total);
}
BENCHMARK(BM_KelEscapeFilterValue);

void BM_OpenLdapEscapedFilterValue(benchmark::State& state) {
    size_t total = 0;
    for (auto _ : state) {
        for (const std::string& name : kNames) {
            berval in{name.size(), const_cast<char*>(name.data())};
            berval out{0, nullptr};
            if (ldap_bv2escaped_filter_value(&in, &out) == 0) {
                // The caller ends with a std::string either way.
                std::string escaped(out.bv_val, out.bv_len);
                total += escaped.size();
                ber_memfree(out.bv_val);
            }
        }
    }
    benchmark::DoNotOptimize(total);
}
BENCHMARK(BM_OpenLdapEscapedFilterValue);

// Remembers each benchmark's CPU time (the median when repetitions are asked for; CPU time,
// as the machine is shared and wall time carries other programs' load) and prints
// ours against the peer's when the run ends.
class CRatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (!run.aggregate_name.empty() && run.aggregate_name != "median") continue;
            m_Times[run.run_name.function_name] = run.GetAdjustedCPUTime();
        }
    }
    void PrintRatio(const char* ours, const char* peer) const {
        auto a = m_Times.find(ours);
        auto b = m_Times.find(peer);
        if (a == m_Times.end() || b == m_Times.end() || b->second <= 0) return;
        std::printf("ratio %s / %s = %.2f\n", ours, peer, a->second / b->second);
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
    CRatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.PrintRatio("BM_KelEscapeFilterValue", "BM_OpenLdapEscapedFilterValue");
    benchmark::Shutdown();
    return 0;
}
