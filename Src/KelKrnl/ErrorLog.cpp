// kelbase - Src/KelKrnl/ErrorLog.cpp
//
// The error log block. One heap block holds the header, a table with one entry per message and
// the messages' texts; adding a message moves the texts up by one table entry. Every function
// here is noexcept: a log that cannot grow drops the message and the status still travels.
#define KEL_SOURCE_FILE "Src/KelKrnl"
#include <kel/Exceptions.h>
#include <kel/Misc.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace KEL {
namespace Exceptions {

namespace {
struct ENTRY {
    const SOURCE_INFO* site;
    uint32_t offset; // of the NUL-terminated text, from the start of the text area
    uint32_t length;
};
constexpr size_t kInitialBlock = 256;
constexpr size_t kMaxBlock = 1u << 24; // a runaway message is cut, not grown without bound
} // namespace

// Aligned so that the table of entries (which hold pointers) right behind it is aligned too.
struct alignas(8) CErrorLog::LOGDATA {
    unsigned int code;
    NATIVE_ERROR native;
    unsigned int count;
    unsigned int unloadCount;
    uint32_t capacity; // bytes of the whole block
    uint32_t used;     // bytes in use of the whole block

    ENTRY* Table() noexcept { return reinterpret_cast<ENTRY*>(this + 1); }
    const ENTRY* Table() const noexcept { return reinterpret_cast<const ENTRY*>(this + 1); }
    char* Texts() noexcept { return reinterpret_cast<char*>(Table() + count); }
    const char* Texts() const noexcept { return reinterpret_cast<const char*>(Table() + count); }
};

static_assert(sizeof(CErrorLog::LOGDATA) % alignof(ENTRY) == 0, "the entry table follows the header");

const char* CKelException::what() const noexcept {
    // Made on demand: most library exceptions are handled by status and never asked.
    if (m_szWhat[0] == '\0') std::snprintf(m_szWhat, sizeof m_szWhat, "kelbase status 0x%08X", m_uCode);
    return m_szWhat;
}

CErrorLog::CErrorLog(const CErrorLog& other) {
    if (other.m_pData) {
        m_pData = static_cast<LOGDATA*>(std::malloc(other.m_pData->used));
        if (!m_pData) throw std::bad_alloc();
        std::memcpy(m_pData, other.m_pData, other.m_pData->used);
        m_pData->capacity = m_pData->used;
    }
}

CErrorLog& CErrorLog::operator=(const CErrorLog& other) {
    if (this != &other) {
        CErrorLog copy(other);
        *this = std::move(copy);
    }
    return *this;
}

CErrorLog& CErrorLog::operator=(CErrorLog&& other) noexcept {
    if (this != &other) {
        Clear();
        m_pData = other.m_pData;
        other.m_pData = nullptr;
    }
    return *this;
}

CErrorLog::~CErrorLog() { Clear(); }

void CErrorLog::Clear() noexcept {
    std::free(m_pData);
    m_pData = nullptr;
}

void CErrorLog::SetLogData(void* block) noexcept {
    if (block == m_pData) return;
    Clear();
    m_pData = static_cast<LOGDATA*>(block);
}

void* CErrorLog::ReleaseLogData() noexcept {
    void* p = m_pData;
    m_pData = nullptr;
    return p;
}

unsigned int CErrorLog::GetError(NATIVE_ERROR& native) const noexcept {
    if (!m_pData) return 0;
    native = m_pData->native;
    return m_pData->code;
}

unsigned int CErrorLog::GetError() const noexcept { return m_pData ? m_pData->code : 0; }

unsigned int CErrorLog::GetLogCount() const noexcept { return m_pData ? m_pData->count : 0; }

const char* CErrorLog::GetErrorMsg(unsigned int i) const noexcept {
    if (!m_pData || i >= m_pData->count) return nullptr;
    return m_pData->Texts() + m_pData->Table()[i].offset;
}

const SOURCE_INFO* CErrorLog::GetSrcInfo(unsigned int i) const noexcept {
    if (!m_pData || i >= m_pData->count) return nullptr;
    // The site records live in the modules' own data: after any unload they may be gone.
    if (m_pData->unloadCount != Misc::CModuleInfo::GetUnloadCounter()) return nullptr;
    return m_pData->Table()[i].site;
}

bool CErrorLog::Start(unsigned int code, const NATIVE_ERROR* native) noexcept {
    Clear();
    m_pData = static_cast<LOGDATA*>(std::malloc(kInitialBlock));
    if (!m_pData) return false;
    m_pData->code = code;
    m_pData->native = native ? *native : NATIVE_ERROR{};
    m_pData->count = 0;
    m_pData->unloadCount = Misc::CModuleInfo::GetUnloadCounter();
    m_pData->capacity = kInitialBlock;
    m_pData->used = sizeof(LOGDATA);
    return true;
}

namespace {
// Grows the block so that `extra` more bytes fit; false when that is not possible.
bool Reserve(CErrorLog::LOGDATA*& data, size_t extra) noexcept {
    size_t need = size_t(data->used) + extra;
    if (need <= data->capacity) return true;
    if (need > kMaxBlock) return false;
    size_t cap = data->capacity;
    while (cap < need) cap *= 2;
    if (cap > kMaxBlock) cap = kMaxBlock;
    auto* grown = static_cast<CErrorLog::LOGDATA*>(std::realloc(data, cap));
    if (!grown) return false;
    data = grown;
    data->capacity = static_cast<uint32_t>(cap);
    return true;
}
} // namespace

bool CErrorLog::BeginMessage(const SOURCE_INFO* site) noexcept {
    if (!m_pData) return false;
    if (!Reserve(m_pData, sizeof(ENTRY) + 1)) return false;
    char* texts = m_pData->Texts();
    size_t textBytes = m_pData->used - (texts - reinterpret_cast<char*>(m_pData));
    std::memmove(texts + sizeof(ENTRY), texts, textBytes);
    ENTRY& e = m_pData->Table()[m_pData->count];
    e.site = site;
    e.offset = static_cast<uint32_t>(textBytes);
    e.length = 0;
    m_pData->count++;
    m_pData->Texts()[textBytes] = '\0';
    m_pData->used += sizeof(ENTRY) + 1;
    return true;
}

bool CErrorLog::AppendText(const char* text, size_t length, unsigned int upperCase) noexcept {
    if (!m_pData || m_pData->count == 0 || length == 0) return m_pData != nullptr;
    if (!Reserve(m_pData, length)) return false;
    char* end = reinterpret_cast<char*>(m_pData) + m_pData->used - 1; // the current NUL
    if (upperCase) {
        for (size_t i = 0; i < length; ++i) {
            unsigned char c = static_cast<unsigned char>(text[i]);
            end[i] = (c >= 'a' && c <= 'z') ? static_cast<char>(c - 32) : static_cast<char>(c);
        }
    } else {
        std::memcpy(end, text, length);
    }
    end[length] = '\0';
    m_pData->used += static_cast<uint32_t>(length);
    m_pData->Table()[m_pData->count - 1].length += static_cast<uint32_t>(length);
    return true;
}

bool CErrorLog::AppendFill(int ch, size_t count) noexcept {
    if (!m_pData || m_pData->count == 0 || count == 0) return m_pData != nullptr;
    if (!Reserve(m_pData, count)) return false;
    char* end = reinterpret_cast<char*>(m_pData) + m_pData->used - 1;
    std::memset(end, ch, count);
    end[count] = '\0';
    m_pData->used += static_cast<uint32_t>(count);
    m_pData->Table()[m_pData->count - 1].length += static_cast<uint32_t>(count);
    return true;
}

void CExceptionBuffer::Write(const char* text, size_t length, unsigned int upperCase) {
    m_Log.AppendText(text, length, upperCase);
}

void CExceptionBuffer::Fill(int ch, size_t count) { m_Log.AppendFill(ch, count); }

} // namespace Exceptions
} // namespace KEL
