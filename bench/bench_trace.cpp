// kelbase - bench/bench_trace.cpp
//
// A switched-off trace point against an empty function call, and a trace entry written to
// the file sink against the same text written through Boost.Log directly (same backend,
// rotation, formatter and flushing).
#include <kel/Exceptions.h>
#include <kel/Functions.h>
#include <kel/Trace.h>

#include "RatioReporter.h"

#include <boost/filesystem.hpp>
#include <boost/log/attributes/clock.hpp>
#include <boost/log/attributes/constant.hpp>
#include <boost/log/core.hpp>
#include <boost/log/expressions.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/log/sinks/text_file_backend.hpp>
#include <boost/log/sources/logger.hpp>
#include <boost/log/sources/record_ostream.hpp>
#include <boost/log/utility/setup/formatter_parser.hpp>
#include <boost/make_shared.hpp>

#include <cstdio>
#include <fstream>

namespace {

namespace fs = boost::filesystem;
namespace logging = boost::log;

KEL::Misc::CModuleInfo g_Module(0x1F00, "benchmod", "1.0");

__attribute__((noinline)) void EmptyFunction(int value) { benchmark::DoNotOptimize(value); }

void BM_EmptyCall(benchmark::State& state) {
    int i = 0;
    for (auto _ : state) EmptyFunction(++i);
}
BENCHMARK(BM_EmptyCall);

void BM_TraceSwitchedOff(benchmark::State& state) {
    g_Module.SetTrcPoints(0x1);
    int i = 0;
    for (auto _ : state) {
        KEL_TRACE(g_Module, 0x20, "KEL::Bench::Off", "value %d") << ++i;
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_TraceSwitchedOff);

const char* const kText = "Socket event on channel %d: %s, %d bytes pending";

fs::path g_Dir;
KEL::Trace::CTrace* g_pTrace = nullptr;

void BM_TraceToFile(benchmark::State& state) {
    g_Module.SetTrcPoints(0x20000000);
    int i = 0;
    for (auto _ : state) KEL_TRACE(g_Module, 0x20000000, "KEL::Bench::Socket", kText) << ++i << "read" << 4096;
}
BENCHMARK(BM_TraceToFile);

// The peer: a logger and sink of its own in the same core, with the same record layout; the
// message is the same entry text (header included), formatted with snprintf.
void BM_BoostLogDirect(benchmark::State& state) {
    auto backend = boost::make_shared<logging::sinks::text_file_backend>(
        logging::keywords::file_name = (g_Dir / "peer" / "Peer_%N.log").string(),
        logging::keywords::rotation_size = 10u << 20);
    backend->set_file_collector(logging::sinks::file::make_collector(
        logging::keywords::target = (g_Dir / "peer").string(), logging::keywords::max_size = 100u << 20));
    backend->scan_for_files();
    backend->auto_flush(true);
    auto sink = boost::make_shared<logging::sinks::synchronous_sink<logging::sinks::text_file_backend>>(backend);
    sink->set_formatter(logging::parse_formatter("[%TimeStamp%]: %Message%"));
    sink->set_filter(logging::expressions::has_attr<bool>("PeerTrace"));
    logging::core::get()->add_sink(sink);
    logging::sources::logger_mt logger;
    logger.add_attribute("TimeStamp", logging::attributes::local_clock());
    logger.add_attribute("PeerTrace", logging::attributes::constant<bool>(true));
    int i = 0;
    char text[256];
    for (auto _ : state) {
        unsigned long long t = KEL::Functions::GetTickTime(10000);
        int n = std::snprintf(text, sizeof text,
                              "\n**F%08X** %02u:%02u:%02u.%04u [TID=%s] %s::%s@%d\nSocket event on channel %d: %s, "
                              "%d bytes pending",
                              0x20000000u, unsigned(t / 36000000), unsigned(t % 36000000 / 600000),
                              unsigned(t % 600000 / 10000), unsigned(t % 10000), "undefined", "benchmod",
                              "KEL::Bench::Socket", 60, ++i, "read", 4096);
        logging::record rec = logger.open_record();
        if (rec) {
            logging::record_ostream stream(rec);
            stream.write(text, n);
            stream.flush();
            logger.push_record(std::move(rec));
        }
    }
    logging::core::get()->remove_sink(sink);
}
BENCHMARK(BM_BoostLogDirect);

} // namespace

int main(int argc, char** argv) {
    kelbench::CSecondThread second;
    benchmark::Initialize(&argc, argv);
    g_Dir = fs::temp_directory_path() / fs::unique_path("kel-bench-trace-%%%%-%%%%");
    fs::create_directories(g_Dir / "peer");
    {
        KEL::Trace::CTrace trace;
        std::ofstream((g_Dir / "Bench.ini").string()) << "[Trace]\nBench_FileTrace=0x20000000\n";
        if (trace.Open(g_Dir, "Bench") != 1) {
            std::fprintf(stderr, "cannot open the trace in %s\n", g_Dir.string().c_str());
            return 1;
        }
        g_pTrace = &trace;
        kelbench::CRatioReporter reporter;
        benchmark::RunSpecifiedBenchmarks(&reporter);
        reporter.PrintRatio("BM_TraceSwitchedOff", "BM_EmptyCall", 2.0);
        reporter.PrintRatio("BM_TraceToFile", "BM_BoostLogDirect", 1.5);
    }
    boost::system::error_code ec;
    fs::remove_all(g_Dir, ec);
    benchmark::Shutdown();
    return 0;
}
