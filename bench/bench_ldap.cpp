// Escaping a user name for an LDAP search filter: kelbase next to OpenLDAP's own
// ldap_bv2escaped_filter_value, in the same process; the ratio is printed at the end.
#include <kel/kelbase.h>

#include "RatioReporter.h"

#include <ldap.h>

#include <string>

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

} // namespace

int main(int argc, char** argv) {
    return kelbench::RunAndReport(argc, argv, [](const kelbench::CRatioReporter& reporter) {
        // No target: reported so a regression shows.
        reporter.PrintRatio("BM_KelEscapeFilterValue", "BM_OpenLdapEscapedFilterValue", 100.0);
    });
}
