// kelbase - Src/trace/Trace.cpp
//
// The process's trace file on Boost.Log: a synchronous text-file sink with rotation and a file
// collector. Entries arrive through the kernel's writer hook; the sink accepts only records of
// this trace, so a program's own Boost.Log sinks and ours do not see each other's records.
#define KEL_SOURCE_FILE "Src/trace"
#include <kel/Exceptions.h>
#include <kel/FileSystem.h>
#include <kel/Functions.h>
#include <kel/IniFiles.h>
#include <kel/Trace.h>

#include "KelKrnl/Hooks.h"
#include "KelKrnl/KelModule.h"
#include "trace/TraceInternal.h"

#include <boost/filesystem/operations.hpp>
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

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <shared_mutex>

namespace KEL {
namespace Internals {
std::atomic<PFN_FREE_SPACE> g_pfnTraceFreeSpace{nullptr};
} // namespace Internals

namespace Trace {

namespace fs = boost::filesystem;
namespace logging = boost::log;
namespace sinks = boost::log::sinks;
namespace keywords = boost::log::keywords;

using CFileSink = sinks::synchronous_sink<sinks::text_file_backend>;

namespace {

constexpr unsigned int kDefaultFlags = 0x60000000u;
constexpr long long kDefaultMaxFileSize = 10;
constexpr long long kDefaultMaxBackupIndex = 10;
constexpr const char* kTag = "KelTrace";

// The process slot. Writers (the hook) hold s_Gate shared; Open, Close and the destructor hold
// it exclusively, so no entry is inside the sink while it is swapped.
std::atomic<CTrace*> s_pInstance{nullptr};
std::shared_mutex s_Gate;

// The module list lock is a protected part of CModuleInfo; the trace walks the list under it.
struct CModuleList : Misc::CModuleInfo {
    using Misc::CModuleInfo::EnterListLock;
    using Misc::CModuleInfo::LeaveListLock;
};

class CListHold {
public:
    CListHold() { CModuleList::EnterListLock(); }
    ~CListHold() { CModuleList::LeaveListLock(); }
    CListHold(const CListHold&) = delete;
    CListHold& operator=(const CListHold&) = delete;
};

unsigned long long FreeSpace(const fs::path& dir) {
    if (Internals::PFN_FREE_SPACE probe = Internals::g_pfnTraceFreeSpace.load(std::memory_order_acquire))
        return probe(dir);
    boost::system::error_code ec;
    fs::space_info info = fs::space(dir, ec);
    return ec ? ~0ull : static_cast<unsigned long long>(info.available);
}

std::string EscapeRegex(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (std::string("\\^$.|?*+()[]{}").find(c) != std::string::npos) out += '\\';
        out += c;
    }
    return out;
}

} // namespace

struct CTrace::CImpl {
    boost::shared_ptr<CFileSink> m_pSink;
    logging::sources::logger_mt m_Logger;
    Internals::CCircularBuffer m_Recent{128, 4096};
    fs::path m_Dir;
    std::atomic<bool> m_bExhausted{false};
    std::atomic<unsigned long long> m_uSinceCheck{0};
    std::mutex m_CheckLock;

    CImpl() {
        m_Logger.add_attribute("TimeStamp", logging::attributes::local_clock());
        m_Logger.add_attribute(kTag, logging::attributes::constant<bool>(true));
    }

    // One record through the sink; filesystem failures propagate (Open reports them).
    void Push(const char* text, size_t length) {
        logging::record rec = m_Logger.open_record();
        if (!rec) return;
        {
            logging::record_ostream stream(rec);
            stream.write(text, static_cast<std::streamsize>(length));
            stream.flush();
        }
        m_Logger.push_record(std::move(rec));
    }

    // The free space is asked after every kTraceSpaceCheckBytes written; when it runs out the
    // final entry goes out and the file is left alone from then on.
    void Write(const char* text, size_t length) {
        if (m_bExhausted.load(std::memory_order_relaxed)) return;
        if (m_uSinceCheck.fetch_add(length, std::memory_order_relaxed) + length >= Internals::kTraceSpaceCheckBytes)
            CheckSpace();
        if (m_bExhausted.load(std::memory_order_relaxed)) return;
        Push(text, length);
    }

    void CheckSpace() {
        std::lock_guard<std::mutex> hold(m_CheckLock);
        if (m_bExhausted.load(std::memory_order_relaxed)) return;
        m_uSinceCheck.store(0, std::memory_order_relaxed);
        if (FreeSpace(m_Dir) >= Internals::kTraceSpaceReserve) return;
        static const char kFinal[] = "Final trace entry: file system space exhausted!";
        try {
            Push(kFinal, sizeof kFinal - 1);
        } catch (...) {
            // Nothing more can be said when even the last entry does not fit.
        }
        m_bExhausted.store(true, std::memory_order_relaxed);
    }

    // The kernel's writer hook: every finished entry of a switched-on trace point.
    static void WriteHook(const Strings::CStringRef& entry) {
        std::shared_lock<std::shared_mutex> hold(s_Gate);
        CTrace* trace = s_pInstance.load(std::memory_order_acquire);
        if (!trace || !trace->m_pImpl->m_pSink) return;
        CImpl& impl = *trace->m_pImpl;
        impl.m_Recent.Write(entry);
        try {
            impl.Write(entry.data(), entry.Length());
        } catch (...) {
            // A file that cannot be written must not fail the code that traces.
        }
    }

    // The registry's hook for a module that registers while the trace is open. It runs
    // outside the gate: ModuleLoaded writes entries, which take the gate themselves.
    static void ModuleHook(Misc::CModuleInfo& module) {
        if (CTrace* trace = s_pInstance.load(std::memory_order_acquire)) trace->ModuleLoaded(module);
    }
};

CTrace* CTrace::GetInstance() noexcept { return s_pInstance.load(std::memory_order_acquire); }

CTrace::CTrace() : m_pImpl(new CImpl()) {
    CTrace* expected = nullptr;
    if (!s_pInstance.compare_exchange_strong(expected, this, std::memory_order_acq_rel))
        KEL_RAISE(0x20010007u, "%s", "Attempt to start a second trace instance");
}

CTrace::~CTrace() {
    Close();
    CTrace* self = this;
    s_pInstance.compare_exchange_strong(self, nullptr, std::memory_order_acq_rel);
}

bool CTrace::IsOpen() const noexcept { return m_pImpl->m_pSink != nullptr; }

void CTrace::SetModuleFlags(Misc::CModuleInfo& module) noexcept { module.SetTrcPoints(m_uFlags); }

unsigned int CTrace::Open(const fs::path& directory, const std::string& name, const fs::path& iniFile,
                          const std::string& section) {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        if (IsOpen() || s_pInstance.load(std::memory_order_acquire) != this)
            KEL_RAISE(0x20010007u, "%s", "Attempt to start a second trace instance");

        // Settings: a missing or unreadable INI file means the defaults.
        INI_Files::CIniFile ini;
        fs::path settings = iniFile.empty() ? directory / (name + ".ini") : iniFile;
        try {
            if (ini.Read(settings, 2000) != 1) Exceptions::ThreadErrorLog().Clear();
        } catch (const Exceptions::CKelException&) {
            Exceptions::ThreadErrorLog().Clear();
        }
        long long debugWait = ini.GetInt(section, name + "_DebugWait", 0);
        long long flags = ini.GetInt(section, name + "_FileTrace", kDefaultFlags);
        long long maxFileSize = ini.GetInt(section, name + "_MaxFileSize", kDefaultMaxFileSize);
        long long maxBackup = ini.GetInt(section, name + "_MaxBackupIndex", kDefaultMaxBackupIndex);
        maxFileSize = std::min<long long>(std::max<long long>(maxFileSize, 1), 1 << 20);
        maxBackup = std::min<long long>(std::max<long long>(maxBackup, 0), 1 << 20);
        if (Misc::pKelApp) Misc::pKelApp->SetDebugWait(debugWait != 0);

        fs::path logDir = directory / "logs";
        boost::system::error_code ec;
        fs::create_directories(logDir, ec);
        if (ec || !fs::is_directory(logDir, ec)) {
            Exceptions::NATIVE_ERROR native{2u, static_cast<unsigned int>(ec ? ec.value() : ENOTDIR)};
            KEL_RAISE_NATIVE(0x20010017u, native, "Can't create the trace directory %s", logDir.string());
        }
        const unsigned long long fileBytes = static_cast<unsigned long long>(maxFileSize) << 20;
        const unsigned long long keepBytes = fileBytes * static_cast<unsigned long long>(maxBackup);
        RemoveOldRuns(logDir, name, keepBytes);

        char pattern[512];
        std::snprintf(pattern, sizeof pattern, "%s_%d_%%N.log", name.c_str(),
                      static_cast<int>(Functions::GetCurrentProcessID()));
        auto backend = boost::make_shared<sinks::text_file_backend>(
            keywords::file_name = (logDir / pattern).string(), keywords::rotation_size = fileBytes,
            keywords::open_mode = std::ios_base::out | std::ios_base::trunc);
        backend->set_file_collector(
            sinks::file::make_collector(keywords::target = logDir.string(), keywords::max_size = keepBytes));
        backend->scan_for_files(sinks::file::scan_matching, true);
        backend->auto_flush(true);
        auto sink = boost::make_shared<CFileSink>(backend);
        sink->set_formatter(logging::parse_formatter("[%TimeStamp%]: %Message%"));
        sink->set_filter(logging::expressions::has_attr<bool>(kTag));

        {
            std::unique_lock<std::shared_mutex> hold(s_Gate);
            m_uFlags = static_cast<unsigned int>(flags);
            m_uMaxFileSize = static_cast<unsigned long long>(maxFileSize);
            m_uMaxBackupIndex = static_cast<unsigned int>(maxBackup);
            m_LogDir = logDir;
            m_pImpl->m_Dir = logDir;
            m_pImpl->m_bExhausted = false;
            m_pImpl->m_uSinceCheck = Internals::kTraceSpaceCheckBytes; // ask before the first entry
            m_pImpl->m_pSink = sink;
            logging::core::get()->add_sink(sink);
        }
        {
            CListHold hold;
            for (Misc::CModuleInfo* m = Misc::CModuleInfo::Enum(nullptr); m; m = Misc::CModuleInfo::Enum(m))
                SetModuleFlags(*m);
        }
        try {
            WriteBanner();
        } catch (const std::exception& e) {
            int err = EIO;
            if (auto* fe = dynamic_cast<const fs::filesystem_error*>(&e)) err = fe->code().value();
            Close();
            Exceptions::NATIVE_ERROR native{2u, static_cast<unsigned int>(err)};
            KEL_RAISE_NATIVE(0x20010017u, native, "Can't write the trace file in %s: %s", logDir.string(), e.what());
        }
        Internals::g_pfnModuleLoaded.store(&CImpl::ModuleHook, std::memory_order_release);
        Internals::g_pfnTraceWrite.store(&CImpl::WriteHook, std::memory_order_release);
        return 1u;
    });
}

void CTrace::WriteBanner() {
    Strings::TString<2048> text;
    text.Format("\n%=*100c\n\n") << int(' ');
    text.Format("Tracing started at: %s\nModule list: ") << Internals::AscTimeNow();
    CListHold hold;
    for (Misc::CModuleInfo* m = Misc::CModuleInfo::Enum(nullptr); m; m = Misc::CModuleInfo::Enum(m)) {
        text.Format("%+ 20s, Version=%- 20s, Trace flags=%08X\n")
            << m->GetModuleName() << m->GetVersionInfo() << m->GetTrcPoints();
    }
    m_pImpl->m_Recent.Write(text);
    m_pImpl->Push(text.data(), text.Length());
}

void CTrace::RemoveOldRuns(const fs::path& logDir, const std::string& name, unsigned long long keepBytes) {
    // Files of earlier processes with this trace name: the sink's collector only knows the
    // files of its own pattern (which holds this process's id).
    struct OLD {
        fs::path path;
        std::time_t time;
        unsigned long long size;
    };
    std::vector<OLD> old;
    unsigned long long total = 0;
    try {
        FileSystem::CDirectory dir(logDir, "^" + EscapeRegex(name) + "_[0-9]+_[0-9]+\\.log$",
                                   FileSystem::CDirectory::STC_File);
        for (const fs::path& p : dir.GetEntries()) {
            boost::system::error_code ec;
            unsigned long long size = fs::file_size(p, ec);
            if (ec) continue;
            std::time_t time = fs::last_write_time(p, ec);
            if (ec) continue;
            old.push_back({p, time, size});
            total += size;
        }
    } catch (const Exceptions::CKelException&) {
        Exceptions::ThreadErrorLog().Clear();
        return;
    }
    std::sort(old.begin(), old.end(), [](const OLD& a, const OLD& b) { return a.time < b.time; });
    for (const OLD& o : old) {
        if (total <= keepBytes) break;
        boost::system::error_code ec;
        if (fs::remove(o.path, ec)) total -= o.size;
    }
}

void CTrace::Close() noexcept {
    boost::shared_ptr<CFileSink> sink;
    {
        std::unique_lock<std::shared_mutex> hold(s_Gate);
        if (!m_pImpl || !m_pImpl->m_pSink) return;
        if (s_pInstance.load(std::memory_order_acquire) == this) {
            Internals::g_pfnTraceWrite.store(nullptr, std::memory_order_release);
            Internals::g_pfnModuleLoaded.store(nullptr, std::memory_order_release);
        }
        sink.swap(m_pImpl->m_pSink);
    }
    try {
        logging::core::get()->remove_sink(sink);
        sink->flush();
        sink->locked_backend()->rotate_file();
    } catch (...) {
        // Closing never fails; a file that cannot be flushed is lost either way.
    }
}

void CTrace::ModuleLoaded(Misc::CModuleInfo& module) {
    KEL_TRACE(KEL_MODULE_INFO_KelLib, 0x20000000, "KEL::Trace::CTrace::ModuleLoaded",
              "New KEL-powered Module loaded (System time: %s).\nModule=%s, Version=%s, Trace flags=%08X.\n")
        << Internals::AscTimeNow() << module.GetModuleName() << module.GetVersionInfo() << module.GetTrcPoints();
    SetModuleFlags(module);
}

void CTrace::DumpRecent() {
    std::vector<std::string> entries = m_pImpl->m_Recent.GetEntries();
    std::shared_lock<std::shared_mutex> hold(s_Gate);
    if (!m_pImpl->m_pSink) return;
    try {
        Strings::CStringVar line;
        line.Format("Recent trace entries (%d):") << static_cast<unsigned long long>(entries.size());
        m_pImpl->Write(line.data(), line.Length());
        for (const std::string& e : entries) m_pImpl->Write(e.data(), e.size());
        static const char kEnd[] = "End of recent trace entries.";
        m_pImpl->Write(kEnd, sizeof kEnd - 1);
    } catch (...) {
        // As for every entry: the caller's work goes on when the file cannot be written.
    }
}

} // namespace Trace
} // namespace KEL

