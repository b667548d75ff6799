// kelbase - Trace.h
//
// Trace entries (KEL::Trace). Code writes an entry only when its module's trace-point mask has
// the entry's category bit set, so a switched-off trace point costs one load and one test:
//
//     KEL_TRACE(KEL::KEL_MODULE_INFO_KelLib, 0x20, "KEL::Threading::Native_OS::CFastEvent::Init",
//               "After CreateEvent handle=(x%x)") << handle;
//
// Categories used by the library: 0x20 threading steps, 0x20000000 module and socket events,
// 0x40000000 string limits, TLS and failure reports.
#pragma once

#include <kel/Misc.h>
#include <kel/OutputStreams.h>

#include <boost/filesystem/path.hpp>

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace KEL {
namespace Trace {

/// The process's trace file. At most one trace exists per process; it writes the entries of
/// every module whose trace-point mask has the entry's category bit (see KEL_TRACE) into
/// rotating files through Boost.Log:
///
///     KEL::Trace::CTrace trace;
///     trace.Open(programFolder, "Demo");          // reads programFolder/Demo.ini, [Trace]
///     ...                                          // files: programFolder/logs/Demo_<pid>_<n>.log
///
/// Settings (keys in the INI section, each prefixed with the trace name and "_"):
///   _DebugWait        0      sets the application's debug-wait flag (pKelApp->SetDebugWait)
///   _FileTrace        0x60000000  the trace-point mask given to every module (hex with 0x or
///                              decimal); 0 leaves the file with its start banner only
///   _MaxFileSize      10     MiB per file before the sink rotates to the next file
///   _MaxBackupIndex   10     files kept: the collector keeps at most MaxFileSize x
///                              MaxBackupIndex MiB of older files and deletes the oldest
/// A missing INI file, section or key means the default. File names are `<name>_<pid>_<n>.log`,
/// `<n>` counting rotations from 0, in the sub-directory "logs" of the given directory.
///
/// When the free space of the log directory falls below 128 KiB the trace writes "Final trace
/// entry: file system space exhausted!" and writes nothing more to the file until it is opened
/// again; entries still reach the in-memory ring (DumpRecent). Files of earlier runs of the
/// same name (other process ids) count against the collector limit and are deleted oldest
/// first at Open.
class KEL_API CTrace {
public:
    /// Becomes the process's trace; a second instance while one exists raises 0x20010007
    /// ("Attempt to start a second trace instance") from the constructor.
    CTrace();
    /// Closes the trace and gives the process slot back.
    ~CTrace();
    CTrace(const CTrace&) = delete;
    CTrace& operator=(const CTrace&) = delete;

    /// Reads the settings of `name` from `iniFile` (default: `directory`/`name`.ini) in
    /// section `section` with CIniFile::Read(file, 2000), creates `directory`/logs and starts
    /// the file sink, then writes the start banner and gives every registered module the
    /// configured trace-point mask. Returns 1, or the status (or throws, by the thread's throw mode):
    /// 0x20010007 when this trace is already open and 0x20010017 with the system error when
    /// the log directory cannot be created or written.
    unsigned int Open(const boost::filesystem::path& directory, const std::string& name,
                      const boost::filesystem::path& iniFile = boost::filesystem::path(),
                      const std::string& section = "Trace");
    /// Ends the sink (flushing it); entries are dropped until the next Open. Never fails.
    void Close() noexcept;
    bool IsOpen() const noexcept;

    /// Called by the module registry for a module that registers while the trace is open:
    /// writes "New KEL-powered Module loaded ..." and "Module=..., Version=..., Trace flags=..."
    /// (kelbase category 0x20000000) and gives the module the configured mask.
    void ModuleLoaded(Misc::CModuleInfo& module);
    /// Gives `module` the configured trace-point mask.
    void SetModuleFlags(Misc::CModuleInfo& module) noexcept;
    /// Writes the entries kept in the in-memory ring (oldest first) into the file, framed by
    /// "Recent trace entries (n):" and "End of recent trace entries.".
    void DumpRecent();

    /// The settings in force (after Open).
    unsigned int GetFlags() const noexcept { return m_uFlags; }
    unsigned long long GetMaxFileSize() const noexcept { return m_uMaxFileSize; }
    unsigned int GetMaxBackupIndex() const noexcept { return m_uMaxBackupIndex; }
    /// The folder the files go to ("logs" below the directory given to Open).
    const boost::filesystem::path& GetLogDirectory() const noexcept { return m_LogDir; }

    /// The process's trace, null while none exists.
    static CTrace* GetInstance() noexcept;

    struct CImpl;

private:
    void WriteBanner();
    static void RemoveOldRuns(const boost::filesystem::path& logDir, const std::string& name,
                              unsigned long long keepBytes);
    std::unique_ptr<CImpl> m_pImpl;
    unsigned int m_uFlags = 0;
    unsigned long long m_uMaxFileSize = 0;
    unsigned int m_uMaxBackupIndex = 0;
    boost::filesystem::path m_LogDir;
};

} // namespace Trace

namespace Internals {

/// A ring of the most recent entry texts, kept in memory (thread-safe). When full, each new
/// entry replaces the oldest; texts longer than the slot limit are cut at it.
class KEL_API CCircularBuffer {
public:
    explicit CCircularBuffer(size_t capacity = 128, size_t maxEntryLength = 4096);
    void Write(const Strings::CStringRef& entry);
    /// The kept entries, oldest first.
    std::vector<std::string> GetEntries() const;
    size_t Count() const;
    void Clear();

private:
    mutable std::mutex m_Lock;
    std::vector<std::string> m_Slots;
    size_t m_nNext = 0;
    size_t m_nCount = 0;
    size_t m_nMaxLength;
};

/// The sink of one trace entry: writes the entry header at construction (tick time, category,
/// thread name, module, function, line) and hands the finished entry to the trace when it is
/// destroyed. An entry whose category has bit 31 set continues the previous one.
class KEL_API CTraceStreamBuffer : public Output_Streams::Base_Classes::CFormatStreamBuffer {
public:
    CTraceStreamBuffer(unsigned int category, Misc::CModuleInfo& module, const char* function, unsigned int line);
    CTraceStreamBuffer(unsigned int category, Misc::CModuleInfo& module, const char* function, const char* second,
                       unsigned int line);
    ~CTraceStreamBuffer() override;
    CTraceStreamBuffer(const CTraceStreamBuffer&) = delete;
    CTraceStreamBuffer& operator=(const CTraceStreamBuffer&) = delete;

    void Write(const char* text, size_t length, unsigned int upperCase) override;
    void Fill(int ch, size_t count) override;
    /// The entry so far (header and text).
    const Strings::CStringVar& GetEntry() const noexcept { return m_Entry; }

private:
    void WriteHeader(unsigned int category, Misc::CModuleInfo& module, const char* function, const char* second,
                     unsigned int line);
    Strings::TString<512> m_Entry;
};

} // namespace Internals
} // namespace KEL

/// Starts a trace entry of `category` for `module` from `function` when that trace point is on;
/// the format's arguments follow with <<. Nothing is formatted when the point is off.
#define KEL_TRACE(module, category, function, format)                                                          \
    if (!(module).CheckTrcPoint((category), 1)) {                                                              \
    } else                                                                                                     \
        ::KEL::Internals::CTraceStreamBuffer((category), (module), (function), __LINE__).Format(format)
