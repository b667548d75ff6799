// kelbase - Src/LngSupport/LngFile.cpp
//
// A module's message strings: entry 0 is built from the strings compiled into the module, the
// other entries come from the module's binary ".nls" file, searched once along the
// application's NLS search path. Every integer of the file is a 32-bit little-endian number:
//
//     magic 0x25031961 | string count | N | N headers of 48 bytes | string blocks
//     header: language id | block offset | block size | UTF-8 flag | name (32 bytes)
//
// A file whose size is not exactly 12 + 48N plus its blocks is corrupt, and so is one whose
// blocks lie outside it or do not hold exactly the module's number of strings.
#define KEL_SOURCE_FILE "Src/LngSupport"
#include <kel/Exceptions.h>
#include <kel/Functions.h>
#include <kel/LanguageSupport.h>
#include <kel/Misc.h>
#include <kel/Threading.h>
#include <kel/Trace.h>

#include <cerrno>
#include <cstring>
#include <new>

namespace KEL {
namespace Language_Support {

namespace {

constexpr unsigned int Nls_Magic = 0x25031961u;
constexpr unsigned int Status_Corrupt = 0x2001000Au;
constexpr unsigned int Status_Memory = 0x2001000Fu;
constexpr size_t Header_Size = 12;
constexpr size_t Entry_Header_Size = 48;

inline unsigned int ReadLE32(const unsigned char* p) noexcept {
    return static_cast<unsigned int>(p[0]) | (static_cast<unsigned int>(p[1]) << 8) |
           (static_cast<unsigned int>(p[2]) << 16) | (static_cast<unsigned int>(p[3]) << 24);
}

// The bytes of a loaded entry: its pointer table, followed by its string block.
inline void FreeStrings(LNGDATA& entry) noexcept {
    delete[] reinterpret_cast<char*>(const_cast<char**>(entry.strings));
    entry.strings = nullptr;
}

// A caller may be rendering the thread's error log while it asks for a text: a failure found
// on the way must not replace that log under its feet. While one of these lives, a new failure
// goes to the thread's log only if the log was empty; otherwise it is traced and the caller's
// log comes back.
class CCallerLog {
public:
    CCallerLog() : m_Log(Exceptions::ThreadErrorLog()), m_pSaved(m_Log.ReleaseLogData()) {}
    ~CCallerLog() {
        if (!m_pSaved) return;
        if (unsigned int status = m_Log.GetError()) {
            KEL_TRACE(KEL_MODULE_INFO_KelLib, 0x40000000u, "KEL::Language_Support::CLngFile::GetLngData",
                      "Language file not used (0x%X)")
                << status;
        }
        m_Log.Clear();
        m_Log.SetLogData(m_pSaved);
    }
    CCallerLog(const CCallerLog&) = delete;
    CCallerLog& operator=(const CCallerLog&) = delete;

private:
    Exceptions::CErrorLog& m_Log;
    void* m_pSaved;
};

} // namespace

CLngFile::CLngFile(const char* fileName, unsigned int languageId, const char* languageName,
                   unsigned int isUtf8, const char* const* strings, unsigned long long stringCount)
    : m_FileName(fileName ? fileName : ""), m_nStrings(stringCount), m_pEntries(&m_Default) {
    m_Default.languageId = languageId;
    m_Default.isUtf8 = isUtf8;
    m_Default.strings = strings;
    m_Default.file = this;
    if (languageName) {
        // The name field holds 32 characters and a terminating NUL behind them.
        std::strncpy(m_Default.name, languageName, 32);
        m_Default.name[32] = '\0';
    }
}

CLngFile::~CLngFile() {
    Release();
}

void CLngFile::Release() noexcept {
    if (m_pEntries != &m_Default) {
        for (size_t i = 1; i < m_nEntries; ++i)
            FreeStrings(m_pEntries[i]);
        delete[] m_pEntries;
        m_pEntries = &m_Default;
        m_nEntries = 1;
    }
    if (m_pFile) {
        std::fclose(m_pFile);
        m_pFile = nullptr;
    }
}

unsigned int CLngFile::Open(const char* path) {
    std::FILE* file = std::fopen(path, "rb");
    if (!file) return 0; // not there: not found, nothing to report
    LNGDATA* entries = nullptr;
    try {
        if (std::fseek(file, 0, SEEK_END) != 0)
            KEL_RAISE_NATIVE(Status_Corrupt, Functions::GetOsError(), "Corrupt language file %s", path);
        long end = std::ftell(file);
        if (end < 0 || std::fseek(file, 0, SEEK_SET) != 0)
            KEL_RAISE_NATIVE(Status_Corrupt, Functions::GetOsError(), "Corrupt language file %s", path);
        unsigned long long fileSize = static_cast<unsigned long long>(end);

        unsigned char header[Header_Size];
        if (std::fread(header, 1, sizeof(header), file) != sizeof(header))
            KEL_RAISE(Status_Corrupt, "Language file %s: header truncated", path);
        if (ReadLE32(header) != Nls_Magic) KEL_RAISE(Status_Corrupt, "Language file %s: bad magic", path);
        if (ReadLE32(header + 4) != m_nStrings)
            KEL_RAISE(Status_Corrupt, "Language file %s: %d strings instead of %d", path,
                      ReadLE32(header + 4), static_cast<unsigned int>(m_nStrings));
        unsigned long long count = ReadLE32(header + 8);
        unsigned long long expected = Header_Size + Entry_Header_Size * count;
        // Checked before allocating: a huge N in a small file is corruption, not a memory shortage.
        if (expected > fileSize)
            KEL_RAISE(Status_Corrupt, "Language file %s: %d entries do not fit", path,
                      static_cast<unsigned int>(count));

        entries = new (std::nothrow) LNGDATA[count + 1];
        if (!entries)
            KEL_RAISE(Status_Memory, "Out of memory for %d language entries",
                      static_cast<unsigned int>(count));
        entries[0] = m_Default;
        for (unsigned long long i = 1; i <= count; ++i) {
            unsigned char raw[Entry_Header_Size];
            if (std::fread(raw, 1, sizeof(raw), file) != sizeof(raw))
                KEL_RAISE(Status_Corrupt, "Language file %s: entry header truncated", path);
            LNGDATA& e = entries[i];
            e.languageId = ReadLE32(raw);
            unsigned int offset = ReadLE32(raw + 4);
            e.offset = static_cast<int>(offset);
            e.size = ReadLE32(raw + 8);
            e.isUtf8 = ReadLE32(raw + 12);
            e.file = this;
            std::memcpy(e.name, raw + 16, 32);
            e.name[32] = '\0';
            if (e.offset < 0 || offset < Header_Size + Entry_Header_Size * count ||
                static_cast<unsigned long long>(offset) + e.size > fileSize)
                KEL_RAISE(Status_Corrupt, "Language file %s: entry %d lies outside the file", path,
                          static_cast<unsigned int>(i));
            expected += e.size;
        }
        if (expected != fileSize)
            KEL_RAISE(Status_Corrupt, "Language file %s: size %d instead of %d", path,
                      static_cast<unsigned int>(fileSize), static_cast<unsigned int>(expected));

        Release(); // a file opened before gives way to this one
        m_pEntries = entries;
        m_nEntries = static_cast<size_t>(count + 1);
        m_pFile = file;
        return 1;
    } catch (const Exceptions::CKelException&) {
        // The failure stays in the thread's error log; the module keeps its own strings.
    } catch (const std::bad_alloc&) {
        try {
            KEL_RAISE(Status_Memory, "Out of memory reading %s", path);
        } catch (const Exceptions::CKelException&) {
        }
    }
    delete[] entries;
    std::fclose(file);
    return 0;
}

void CLngFile::LoadStrings(size_t entryIndex) {
    LNGDATA& e = m_pEntries[entryIndex];
    if (e.strings) return;
    size_t table = sizeof(char*) * static_cast<size_t>(m_nStrings);
    char* block = new (std::nothrow) char[table + e.size];
    if (!block) KEL_RAISE(Status_Memory, "Out of memory for entry %d", static_cast<unsigned int>(entryIndex));
    char* text = block + table;
    errno = 0;
    if (std::fseek(m_pFile, e.offset, SEEK_SET) != 0 || std::fread(text, 1, e.size, m_pFile) != e.size) {
        Exceptions::NATIVE_ERROR native = Functions::GetOsError();
        delete[] block;
        KEL_RAISE_NATIVE(Status_Corrupt, native, "Language file %s: entry %d truncated", m_FileName.C_Str(),
                         static_cast<unsigned int>(entryIndex));
    }
    // Pointer k points at the k-th NUL-terminated string; the block must hold exactly that many.
    const char** strings = reinterpret_cast<const char**>(block);
    const char* p = text;
    const char* end = text + e.size;
    for (unsigned long long k = 0; k < m_nStrings; ++k) {
        const void* nul = p < end ? std::memchr(p, '\0', static_cast<size_t>(end - p)) : nullptr;
        if (!nul) {
            delete[] block;
            KEL_RAISE(Status_Corrupt, "Language file %s: entry %d holds too few strings", m_FileName.C_Str(),
                      static_cast<unsigned int>(entryIndex));
        }
        strings[k] = p;
        p = static_cast<const char*>(nul) + 1;
    }
    if (p != end) {
        delete[] block;
        KEL_RAISE(Status_Corrupt, "Language file %s: entry %d holds too many strings", m_FileName.C_Str(),
                  static_cast<unsigned int>(entryIndex));
    }
    e.strings = strings;
}

LNGDATA& CLngFile::GetLngData() {
    unsigned int language = Threading::CCurrentThread().GetLngId();
    if (language == 0) language = Default_Language_ID;

    if (m_uState.load(std::memory_order_acquire) == 1) {
        Threading::CSyncGuard lock;
        m_Lock.Enter(lock);
        if (m_uState.load(std::memory_order_relaxed) == 1) {
            m_uState.store(2, std::memory_order_relaxed);
            CCallerLog callerLog;
            Strings::TString<256> searchPath;
            if (Misc::pKelApp) Misc::pKelApp->GetNlsSearchPath(searchPath);
            searchPath += ";";
            const char* item = searchPath.C_Str();
            unsigned int opened = 0;
            while (!opened && *item) {
                const char* sep = std::strchr(item, ';');
                if (sep != item) {
                    Strings::TString<256> path(Strings::CSubStringRef(item, static_cast<size_t>(sep - item)));
                    path += "/";
                    path += m_FileName;
                    opened = Open(path.C_Str());
                }
                item = sep + 1;
            }
            m_uState.store(opened ? 0u : 2u, std::memory_order_release);
        }
    }
    // Entry 0 is answered from the object itself: while a search is under way the entry array
    // may be changing.
    if (m_uState.load(std::memory_order_acquire) != 0) return m_Default;

    Threading::CSyncGuard lock;
    m_Lock.Enter(lock);
    for (size_t i = 0; i < m_nEntries; ++i) {
        if (m_pEntries[i].languageId != language) continue;
        if (i == 0) break;
        CCallerLog callerLog;
        try {
            LoadStrings(i);
            return m_pEntries[i];
        } catch (const Exceptions::CKelException&) {
            // Logged; the module's own strings stand in.
        }
        break;
    }
    return m_Default;
}

CLanguageStrg::CLanguageStrg(LNGDATA& entry, size_t stringIndex) noexcept
    : m_pText(""), m_uUtf8(entry.isUtf8) {
    unsigned long long count = entry.file ? entry.file->GetStringCount() : 0;
    if (entry.strings && stringIndex < count && entry.strings[stringIndex])
        m_pText = entry.strings[stringIndex];
}

void CLanguageStrg::UTF8ToChar(Strings::CStringVar& out, unsigned int codePage) const {
    constexpr unsigned int CodePage_Utf8 = 65001;
    if (!m_uUtf8 || codePage == CodePage_Utf8) {
        out = m_pText;
        return;
    }
    // A text that is no acceptable UTF-8 is shown as it is rather than lost.
    unsigned int status;
    try {
        status = out.CopyFromUTF8(Strings::CSubStringRef(m_pText));
    } catch (const Exceptions::CKelException&) {
        status = 0;
    }
    if (status != 1) out = m_pText;
}

} // namespace Language_Support
} // namespace KEL
