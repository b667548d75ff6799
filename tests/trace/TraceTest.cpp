// Tests of the trace: entry headers, switched-off trace points, the trace file with its
// banner, settings, rotation, collection, failures and the module hooks.
#include <kel/Exceptions.h>
#include <kel/FileSystem.h>
#include <kel/Functions.h>
#include <kel/Trace.h>

#include "KelKrnl/Hooks.h"
#include "threads/ThreadCB.h"
#include "trace/TraceInternal.h"

#include <gtest/gtest.h>

#include <boost/filesystem.hpp>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <new>
#include <regex>
#include <thread>

// Counting allocator: a switched-off trace point must not allocate. GCC cannot see that the
// replaced operators pair malloc with free. Under AddressSanitizer the sanitizer owns the
// allocation operators, so the count is only taken in plain builds.
#if defined(__SANITIZE_ADDRESS__)
#define KEL_COUNT_ALLOCATIONS 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KEL_COUNT_ALLOCATIONS 0
#endif
#endif
#ifndef KEL_COUNT_ALLOCATIONS
#define KEL_COUNT_ALLOCATIONS 1
#endif

static std::atomic<unsigned long long> g_uAllocations{0};
#if KEL_COUNT_ALLOCATIONS
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif
void* operator new(std::size_t size) {
    g_uAllocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
#endif

namespace {

namespace fs = boost::filesystem;
using KEL::Internals::CTraceStreamBuffer;
using KEL::Trace::CTrace;

KEL::Misc::CModuleInfo& Kel() { return KEL::KEL_MODULE_INFO_KelLib; }

std::string Entry(unsigned int category, const char* second = nullptr) {
    if (second) return CTraceStreamBuffer(category, Kel(), "KEL::Test::Fn", second, 42).GetEntry().C_Str();
    return CTraceStreamBuffer(category, Kel(), "KEL::Test::Fn", 42).GetEntry().C_Str();
}

TEST(TraceHeader, CategoryIsFourDigitsUpToFFFFAndEightAbove) {
    std::string thread = KEL::Internals::CThreadCB::Current().m_Name.C_Str();
    std::regex four("\n\\*\\*F0020\\*\\* [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{4} \\[TID=" + thread +
                    "\\] kelbase::KEL::Test::Fn@42\n");
    EXPECT_TRUE(std::regex_match(Entry(0x20), four)) << Entry(0x20);
    EXPECT_EQ(Entry(0xFFFF).substr(0, 10), "\n**FFFFF**");
    EXPECT_EQ(Entry(0x10000).substr(0, 14), "\n**F00010000**");
    EXPECT_EQ(Entry(0x40000000).substr(0, 14), "\n**F40000000**");
}

TEST(TraceHeader, SecondTextAndContinuationForms) {
    std::regex second("\n\\*\\*F0001\\*\\* [0-9:.]{13} \\[TID=[^\\]]*\\] kelbase::KEL::Test::Fn:extra@42\n");
    EXPECT_TRUE(std::regex_match(Entry(1, "extra"), second)) << Entry(1, "extra");
    std::regex cont("\\*\\*F80000020\\*\\* [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{4} \\[TID=[^\\]]*\\]: ");
    EXPECT_TRUE(std::regex_match(Entry(0x80000020u), cont)) << Entry(0x80000020u);
}

TEST(TraceHeader, TimeIsTheTickTimeInTenThousandthsSplit) {
    unsigned long long before = KEL::Functions::GetTickTime(10000);
    std::string e = Entry(0x20);
    unsigned long long after = KEL::Functions::GetTickTime(10000);
    unsigned int h = 0, m = 0, s = 0, f = 0;
    ASSERT_EQ(std::sscanf(e.c_str(), "\n**F0020** %u:%u:%u.%u", &h, &m, &s, &f), 4);
    EXPECT_LT(m, 60u);
    EXPECT_LT(s, 60u);
    unsigned long long t = h * 36000000ull + m * 600000ull + s * 10000ull + f;
    EXPECT_GE(t, before);
    EXPECT_LE(t, after);
}

TEST(TraceHeader, ThreadNameComesFromTheControlBlock) {
    std::string seen;
    std::thread([&] {
        KEL::Internals::CThreadCB::Current().m_Name = "pool-worker-3";
        seen = Entry(0x20);
    }).join();
    EXPECT_NE(seen.find("[TID=pool-worker-3] "), std::string::npos) << seen;
}

unsigned int g_uEvaluated = 0;
unsigned int Evaluated() { return ++g_uEvaluated; }

TEST(TracePoint, SwitchedOffCostsNoFormattingAndNoAllocation) {
    unsigned int saved = Kel().GetTrcPoints();
    Kel().SetTrcPoints(0x1);
    g_uEvaluated = 0;
    unsigned long long before = g_uAllocations.load();
    for (int i = 0; i < 1000; ++i)
        KEL_TRACE(Kel(), 0x20, "KEL::Test::Off", "value %d %s") << Evaluated() << std::string(100, 'x');
    EXPECT_EQ(g_uAllocations.load(), before);
    EXPECT_EQ(g_uEvaluated, 0u);
    KEL_TRACE(Kel(), 0x1, "KEL::Test::On", "value %d") << Evaluated();
    EXPECT_EQ(g_uEvaluated, 1u);
    Kel().SetTrcPoints(saved);
}

TEST(CircularBuffer, KeepsTheNewestEntriesOldestFirstAndCutsLongOnes) {
    KEL::Internals::CCircularBuffer ring(3, 5);
    for (const char* e : {"one", "two", "three", "four", "fivefive"}) ring.Write(KEL::Strings::CStringRef(e));
    std::vector<std::string> kept = ring.GetEntries();
    EXPECT_EQ(kept, (std::vector<std::string>{"three", "four", "fivef"}));
    ring.Clear();
    EXPECT_EQ(ring.Count(), 0u);
    ring.Write(KEL::Strings::CStringRef("again"));
    EXPECT_EQ(ring.GetEntries(), std::vector<std::string>{"again"});
}

// ---- the trace file -------------------------------------------------------------------------

class TraceFile : public ::testing::Test {
protected:
    void SetUp() override {
        m_Dir = fs::temp_directory_path() / fs::unique_path("kel-trace-%%%%-%%%%");
        fs::create_directories(m_Dir);
        m_uSaved = Kel().GetTrcPoints();
        m_bDebugWait = KEL::Misc::pKelApp->GetDebugWait();
    }
    void TearDown() override {
        KEL::Internals::g_pfnTraceFreeSpace.store(nullptr);
        Kel().SetTrcPoints(m_uSaved);
        KEL::Misc::pKelApp->SetDebugWait(m_bDebugWait);
        boost::system::error_code ec;
        fs::permissions(m_Dir, fs::owner_all, ec);
        fs::remove_all(m_Dir, ec);
    }
    void Ini(const std::string& text) { std::ofstream((m_Dir / "Test.ini").string()) << text; }
    fs::path FirstFile() const {
        return m_Dir / "logs" / ("Test_" + std::to_string(KEL::Functions::GetCurrentProcessID()) + "_0.log");
    }
    static std::string Read(const fs::path& p) {
        std::ifstream in(p.string(), std::ios::binary);
        return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    }
    fs::path m_Dir;
    unsigned int m_uSaved = 0;
    bool m_bDebugWait = false;
};

TEST_F(TraceFile, OpenWritesTheBannerAndRecordsWithTimeStamps) {
    {
        CTrace trace;
        ASSERT_EQ(trace.Open(m_Dir, "Test"), 1u);
        EXPECT_EQ(CTrace::GetInstance(), &trace);
        EXPECT_EQ(trace.GetFlags(), 0x60000000u);
        EXPECT_EQ(Kel().GetTrcPoints(), 0x60000000u);
        KEL_TRACE(Kel(), 0x20000000, "KEL::Test::Body", "hello %d") << 7;
        trace.Close();
    }
    std::string text = Read(FirstFile());
    std::regex banner("\\[[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:.]+\\]: \n\\*{49,50} \\*{49,50}"
                      "\n\nTracing started at: [A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9]{2} [0-9:]{8} [0-9]{4}\nModule list: ");
    EXPECT_TRUE(std::regex_search(text, banner)) << text.substr(0, 300);
    EXPECT_NE(text.find("             kelbase, Version=P:7.10.2 F:7.10.2   , Trace flags=60000000\n"), std::string::npos)
        << text;
    std::regex record("\\]: \n\\*\\*F20000000\\*\\* [0-9:.]{13} \\[TID=[^\\]]*\\] kelbase::KEL::Test::Body@[0-9]+\nhello 7\n");
    EXPECT_TRUE(std::regex_search(text, record)) << text;
}

TEST_F(TraceFile, SettingsComeFromTheIniFile) {
    Ini("[Trace]\nTest_DebugWait=1\nTest_FileTrace=0x20000001\nTest_MaxFileSize=3\nTest_MaxBackupIndex=4\n"
        "Other_FileTrace=0x1\n");
    CTrace trace;
    ASSERT_EQ(trace.Open(m_Dir, "Test"), 1u);
    EXPECT_TRUE(KEL::Misc::pKelApp->GetDebugWait());
    EXPECT_EQ(trace.GetFlags(), 0x20000001u);
    EXPECT_EQ(trace.GetMaxFileSize(), 3u);
    EXPECT_EQ(trace.GetMaxBackupIndex(), 4u);
    EXPECT_EQ(KEL::Functions::GetModuleInfo(2)->GetTrcPoints(), 0x20000001u);
}

TEST_F(TraceFile, SecondInstanceAndSecondOpenAreRefused) {
    CTrace trace;
    try {
        CTrace second;
        ADD_FAILURE() << "a second trace was constructed";
    } catch (const KEL::Exceptions::CKelException&) {
        const KEL::Exceptions::CErrorLog& log = KEL::Exceptions::ThreadErrorLog();
        EXPECT_EQ(log.GetError(), 0x20010007u);
        EXPECT_STREQ(log.GetErrorMsg(0), "Attempt to start a second trace instance");
    }
    EXPECT_EQ(CTrace::GetInstance(), &trace);
    ASSERT_EQ(trace.Open(m_Dir, "Test"), 1u);
    EXPECT_NE(trace.Open(m_Dir, "Test"), 1u);
    EXPECT_EQ(KEL::Exceptions::ThreadErrorLog().GetError(), 0x20010007u);
    EXPECT_TRUE(trace.IsOpen());
}

TEST_F(TraceFile, UncreatableLogDirectoryGivesAClearStatus) {
    std::ofstream((m_Dir / "logs").string()) << "a file where the folder should be";
    CTrace trace;
    EXPECT_NE(trace.Open(m_Dir, "Test"), 1u);
    KEL::Exceptions::NATIVE_ERROR native;
    EXPECT_EQ(KEL::Exceptions::ThreadErrorLog().GetError(native), 0x20010017u);
    EXPECT_EQ(native.kind, 2u);
    EXPECT_NE(native.value, 0u);
    EXPECT_FALSE(trace.IsOpen());
    // The same object opens once the way is clear.
    fs::remove(m_Dir / "logs");
    EXPECT_EQ(trace.Open(m_Dir, "Test"), 1u);
}

TEST_F(TraceFile, RotatesAtMaxFileSizeAndCollectsOldFiles) {
    Ini("[Trace]\nTest_MaxFileSize=1\nTest_MaxBackupIndex=2\n");
    {
        CTrace trace;
        ASSERT_EQ(trace.Open(m_Dir, "Test"), 1u);
        std::string text(1000, 'r');
        for (int i = 0; i < 6000; ++i) KEL_TRACE(Kel(), 0x40000000, "KEL::Test::Fill", "%d %s") << i << text;
    }
    unsigned long long total = 0;
    unsigned int files = 0;
    KEL::FileSystem::CDirectory logs(m_Dir / "logs");
    for (const fs::path& p : logs.GetEntries()) {
        ++files;
        unsigned long long size = fs::file_size(p);
        EXPECT_LE(size, (1ull << 20) + 4096) << p; // one record may pass the limit
        total += size;
    }
    EXPECT_GE(files, 2u);
    EXPECT_LE(total, (2ull << 20) + 2 * 4096);
    EXPECT_FALSE(fs::exists(FirstFile())) << "the oldest file was kept";
}

TEST_F(TraceFile, EarlierRunsCountAgainstTheCollectorLimit) {
    Ini("[Trace]\nTest_MaxFileSize=1\nTest_MaxBackupIndex=1\n");
    fs::create_directories(m_Dir / "logs");
    std::ofstream((m_Dir / "logs" / "Test_1_0.log").string()) << std::string(700000, 'o');
    std::ofstream((m_Dir / "logs" / "Test_2_0.log").string()) << std::string(700000, 'n');
    std::ofstream((m_Dir / "logs" / "Other_1_0.log").string()) << std::string(700000, 'x');
    fs::last_write_time(m_Dir / "logs" / "Test_1_0.log", std::time(nullptr) - 100);
    CTrace trace;
    ASSERT_EQ(trace.Open(m_Dir, "Test"), 1u);
    EXPECT_FALSE(fs::exists(m_Dir / "logs" / "Test_1_0.log"));
    EXPECT_TRUE(fs::exists(m_Dir / "logs" / "Test_2_0.log"));
    EXPECT_TRUE(fs::exists(m_Dir / "logs" / "Other_1_0.log"));
}

unsigned long long g_uFree = ~0ull;
unsigned long long FakeSpace(const fs::path&) { return g_uFree; }

TEST_F(TraceFile, FullDiskEndsTheFileWithTheFinalEntry) {
    g_uFree = ~0ull;
    KEL::Internals::g_pfnTraceFreeSpace.store(&FakeSpace);
    {
        CTrace trace;
        ASSERT_EQ(trace.Open(m_Dir, "Test"), 1u);
        KEL_TRACE(Kel(), 0x40000000, "KEL::Test::Disk", "before");
        g_uFree = 1000;
        std::string text(1000, 'd');
        for (int i = 0; i < 100; ++i) KEL_TRACE(Kel(), 0x40000000, "KEL::Test::Disk", "%s") << text;
        g_uFree = ~0ull;
        KEL_TRACE(Kel(), 0x40000000, "KEL::Test::Disk", "after");
        trace.DumpRecent();
    }
    std::string text = Read(FirstFile());
    EXPECT_NE(text.find("before"), std::string::npos);
    std::string final = "]: Final trace entry: file system space exhausted!\n";
    ASSERT_GE(text.size(), final.size());
    EXPECT_EQ(text.substr(text.size() - final.size()), final);
    EXPECT_EQ(text.find("after"), std::string::npos);
}

TEST_F(TraceFile, RecentEntriesCanBeDumpedIntoTheFile) {
    {
        CTrace trace;
        ASSERT_EQ(trace.Open(m_Dir, "Test"), 1u);
        KEL_TRACE(Kel(), 0x40000000, "KEL::Test::Ring", "remember me");
        trace.DumpRecent();
    }
    std::string text = Read(FirstFile());
    size_t dump = text.find("Recent trace entries (2):");
    ASSERT_NE(dump, std::string::npos);
    EXPECT_NE(text.find("remember me", dump), std::string::npos);
    EXPECT_NE(text.find("End of recent trace entries.", dump), std::string::npos);
}

TEST_F(TraceFile, ModulesLoadedWhileOpenAreAnnouncedAndGetTheFlags) {
    {
        CTrace trace;
        ASSERT_EQ(trace.Open(m_Dir, "Test"), 1u);
        {
            KEL::Misc::CModuleInfo plugin(0x77, "plugin", "1.0");
            EXPECT_EQ(plugin.GetTrcPoints(), 0x60000000u);
        }
        trace.Close();
        KEL_TRACE(Kel(), 0x40000000, "KEL::Test::Closed", "dropped");
        KEL::Misc::CModuleInfo late(0x78, "late", "2.0");
        EXPECT_EQ(late.GetTrcPoints(), 0u);
    }
    std::string text = Read(FirstFile());
    EXPECT_NE(text.find("kelbase::KEL::Trace::CTrace::ModuleLoaded@"), std::string::npos);
    EXPECT_NE(text.find("New KEL-powered Module loaded (System time: "), std::string::npos);
    EXPECT_NE(text.find("Module=plugin, Version=1.0, Trace flags=00000000.\n"), std::string::npos) << text;
    EXPECT_NE(text.find("KEL-powered Module unloaded (Module=plugin, System time: "), std::string::npos);
    EXPECT_EQ(text.find("dropped"), std::string::npos);
    EXPECT_EQ(text.find("late"), std::string::npos);
}

TEST_F(TraceFile, ConcurrentWritersLoseNoEntry) {
    {
        CTrace trace;
        ASSERT_EQ(trace.Open(m_Dir, "Test"), 1u);
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([t] {
                for (int i = 0; i < 500; ++i) KEL_TRACE(Kel(), 0x40000000, "KEL::Test::Mt", "w%d-%d") << t << i;
            });
        for (std::thread& th : threads) th.join();
    }
    std::string text = Read(FirstFile());
    for (int t = 0; t < 4; ++t) {
        for (int i = 0; i < 500; i += 97) {
            std::string mark = "\nw" + std::to_string(t) + "-" + std::to_string(i) + "\n";
            EXPECT_NE(text.find(mark), std::string::npos) << mark;
        }
    }
    size_t records = 0;
    for (size_t at = text.find("KEL::Test::Mt@"); at != std::string::npos; at = text.find("KEL::Test::Mt@", at + 1))
        ++records;
    EXPECT_EQ(records, 2000u);
}

} // namespace
