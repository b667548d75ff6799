// kelbase - Src/KelKrnl/ModuleInfo.cpp
//
// The process-wide registry of modules and the translation of status codes into texts.
#define KEL_SOURCE_FILE "Src/KelKrnl"
#include <kel/Functions.h>
#include <kel/LanguageSupport.h>
#include <kel/Misc.h>
#include <kel/Threading.h>
#include <kel/Trace.h>

#include "KelKrnl/Hooks.h"
#include "KelKrnl/KelModule.h"

#include <ctime>

namespace KEL {
namespace Internals {
std::atomic<PFN_MODULE_LOADED> g_pfnModuleLoaded{nullptr};
std::atomic<PFN_TRACE_WRITE> g_pfnTraceWrite{nullptr};
} // namespace Internals

namespace Misc {

namespace {
// Static data of the registry. All of it is constant-initialised, so a module in any
// translation unit may register first; the lock is made by whichever module needs it first
// and goes with the last one.
CModuleInfo* s_pFirst = nullptr;
unsigned int s_nModulCnt = 0;
std::atomic<unsigned int> s_uUnloadCnt{0};
Threading::Native_OS::CCriticalSection* s_pListLock = nullptr;
std::atomic<bool> s_bListLockGuard{false};

// Creation of the lock itself is guarded by a spin flag: there is no lock yet to take.
Threading::Native_OS::CCriticalSection& ListLock() {
    while (s_bListLockGuard.exchange(true, std::memory_order_acquire)) {
    }
    if (!s_pListLock) s_pListLock = new Threading::Native_OS::CCriticalSection();
    Threading::Native_OS::CCriticalSection* lock = s_pListLock;
    s_bListLockGuard.store(false, std::memory_order_release);
    return *lock;
}

// Holds the list lock for a scope.
class CListHold {
public:
    CListHold() : m_Lock(ListLock()) { m_Lock.Enter(); }
    ~CListHold() { m_Lock.Leave(); }
    CListHold(const CListHold&) = delete;
    CListHold& operator=(const CListHold&) = delete;

private:
    Threading::Native_OS::CCriticalSection& m_Lock;
};
} // namespace

void CModuleInfo::EnterListLock() { ListLock().Enter(); }

void CModuleInfo::LeaveListLock() noexcept {
    if (s_pListLock) s_pListLock->Leave();
}

unsigned int CModuleInfo::Lock(Threading::CSyncGuard& guard) { return ListLock().Enter(guard); }

CModuleInfo::CModuleInfo(unsigned int moduleId, const char* name, const char* version,
                         Language_Support::CLngFile* lngFile, Language_Support::ERROR_MSG_LIST* msgList)
    : m_pszName(name ? name : ""), m_pszVersion(version ? version : ""), m_pLngFile(lngFile), m_pMsgList(msgList),
      m_uModuleId(moduleId) {
    {
        CListHold hold;
        m_pNext = s_pFirst;
        s_pFirst = this;
        ++s_nModulCnt;
    }
    if (this == &KEL_MODULE_INFO_KelLib) Internals::g_bKelModuleAlive = true;
    if (Internals::PFN_MODULE_LOADED hook = Internals::g_pfnModuleLoaded.load(std::memory_order_acquire)) hook(*this);
}

CModuleInfo::~CModuleInfo() {
    if (this == &KEL_MODULE_INFO_KelLib) Internals::g_bKelModuleAlive = false;
    bool last = false;
    {
        CListHold hold;
        s_uUnloadCnt.fetch_add(1, std::memory_order_relaxed);
        if (s_pFirst == this) {
            s_pFirst = m_pNext;
        } else {
            CModuleInfo* p = s_pFirst;
            while (p && p->m_pNext != this) p = p->m_pNext;
            if (p) {
                p->m_pNext = m_pNext;
            } else if (s_pFirst) {
                // Not in the list: only the head moves past it.
                s_pFirst = s_pFirst->m_pNext;
            }
        }
        last = (s_pFirst == nullptr);
    }
    if (last) {
        while (s_bListLockGuard.exchange(true, std::memory_order_acquire)) {
        }
        delete s_pListLock;
        s_pListLock = nullptr;
        s_bListLockGuard.store(false, std::memory_order_release);
        return;
    }
    if (Internals::KelModuleAlive()) {
        KEL_TRACE(KEL_MODULE_INFO_KelLib, 0x20000000, "KEL::Misc::CModuleInfo::~CModuleInfo",
                  "KEL-powered Module unloaded (Module=%s, System time: %s).\n")
            << m_pszName << Internals::AscTimeNow().c_str();
    }
}

CModuleInfo* CModuleInfo::Enum(CModuleInfo* current) noexcept { return current ? current->m_pNext : s_pFirst; }

unsigned int CModuleInfo::GetUnloadCounter() noexcept { return s_uUnloadCnt.load(std::memory_order_relaxed); }

unsigned int CModuleInfo::GetModuleCount() noexcept { return s_nModulCnt; }

void CModuleInfo::GetErrorMsg(Strings::CStringVar& text, unsigned int code, unsigned int raw) {
    unsigned int id = (code >> 16) & 0x1FFFu;
    if (id != 0 && id != m_uModuleId) {
        CListHold hold;
        CModuleInfo* p = s_pFirst;
        while (p && p->m_uModuleId != id) p = p->m_pNext;
        if (p)
            p->GetErrorMsg(text, code, raw);
        else
            KEL_MODULE_INFO_KelLib.GetErrorMsg(text, 0x20010041u, raw);
        return;
    }
    GetOwnErrorMsg(text, code, raw);
}

void CModuleInfo::GetOwnErrorMsg(Strings::CStringVar& text, unsigned int code, unsigned int raw) {
    Language_Support::CLngFile* file = m_pLngFile;
    unsigned int index = Internals::kUnknownCodeText;
    bool found = false;
    if (m_pMsgList) {
        for (const Language_Support::ERROR_MSG_LIST* e = m_pMsgList; e->message != 0; ++e) {
            if ((e->message & 0xFFFFu) == (code & 0xFFFFu)) {
                index = e->textIndex;
                found = true;
                break;
            }
        }
    }
    if (!found || !file) file = Internals::KelLngFile();
    Language_Support::CLanguageStrg s(file->GetLngData(), index);
    if (raw == 0)
        s.UTF8ToChar(text);
    else
        text = s.Native();
}

} // namespace Misc

namespace Functions {

Misc::CModuleInfo* GetModuleInfo(unsigned int idOrCode) noexcept {
    unsigned int key = (idOrCode & 0x20000000u) ? ((idOrCode >> 16) & 0x1FFFu) : idOrCode;
    for (Misc::CModuleInfo* p = Misc::CModuleInfo::Enum(nullptr); p; p = Misc::CModuleInfo::Enum(p)) {
        if (p->GetModuleId() == key) return p;
    }
    return nullptr;
}

} // namespace Functions
} // namespace KEL
