// kelbase - Misc.h
//
// The library frame (KEL::Misc): the registry of modules, each owning a range of status codes
// and a set of message texts; the process-wide application object; the invalid-parameter
// guard; and the intrusive doubly linked lists that tie threads, interrupts and pool workers
// together.
//
// Modules: kelbase itself is module 1 ("kelbase"), the operating system 2 ("OS"), the C runtime
// 3 ("C-LIB") and OpenSSL 4 ("OpenSSL"). Other libraries of the suite construct further
// CModuleInfo objects (usually one static object each) with their own ids and messages.
#pragma once

#include <kel/Strings.h>

#include <boost/filesystem/path.hpp>

#include <cstdint>
#include <string>

namespace KEL {
namespace Threading {
class CSyncGuard;
}
namespace Language_Support {
class CLngFile;
struct ERROR_MSG_LIST;
} // namespace Language_Support

namespace Misc {

/// One component that owns status codes and messages. Constructing registers it at the head of
/// the process-wide list; destroying unregisters it and counts an unload.
class KEL_API CModuleInfo {
public:
    CModuleInfo(unsigned int moduleId, const char* name, const char* version,
                Language_Support::CLngFile* lngFile = nullptr, Language_Support::ERROR_MSG_LIST* msgList = nullptr);
    virtual ~CModuleInfo();
    CModuleInfo(const CModuleInfo&) = delete;
    CModuleInfo& operator=(const CModuleInfo&) = delete;

    /// The message text of `code` (raw != 0: the UTF-8 bytes as stored). Codes of another
    /// module are answered by that module; an unknown module gives the text of 0x20010041, an
    /// unknown message number text 98 of kelbase. Never fails.
    virtual void GetErrorMsg(Strings::CStringVar& text, unsigned int code, unsigned int raw = 0);

    unsigned int GetModuleId() const noexcept { return m_uModuleId; }
    const char* GetModuleName() const noexcept { return m_pszName; }
    const char* GetVersionInfo() const noexcept { return m_pszVersion; }
    unsigned int GetTrcPoints() const noexcept { return m_uTrcPoints; }
    void SetTrcPoints(unsigned int mask) noexcept { m_uTrcPoints = mask; }
    /// 0 when `enabled` is 0, else 1 when any bit of `mask` is switched on for this module.
    unsigned int CheckTrcPoint(unsigned int mask, unsigned int enabled = 1) const noexcept {
        return (enabled != 0 && (m_uTrcPoints & mask) != 0) ? 1u : 0u;
    }
    Language_Support::CLngFile* GetLngFile() const noexcept { return m_pLngFile; }

    /// Walks the list: the head for null, else the module after `current`; null ends. Hold the
    /// list lock (Lock) while walking.
    static CModuleInfo* Enum(CModuleInfo* current) noexcept;
    /// Enters the list lock through `guard`, which leaves it again.
    static unsigned int Lock(Threading::CSyncGuard& guard);
    /// Number of module destructions so far (error logs use it to tell stale sites).
    static unsigned int GetUnloadCounter() noexcept;
    static unsigned int GetModuleCount() noexcept;

protected:
    /// The list lock as a plain function pair, for code that cannot use a guard.
    static void EnterListLock();
    static void LeaveListLock() noexcept;
    /// Answers `code` from this module's own list or text 98 of kelbase.
    void GetOwnErrorMsg(Strings::CStringVar& text, unsigned int code, unsigned int raw);

private:
    unsigned int m_uTrcPoints = 0;
    const char* m_pszName;
    const char* m_pszVersion;
    Language_Support::CLngFile* m_pLngFile;
    Language_Support::ERROR_MSG_LIST* m_pMsgList;
    unsigned int m_uModuleId;
    CModuleInfo* m_pNext = nullptr;
};

/// The process's application object. A program may derive its own and construct one; it then
/// becomes `pKelApp` until it is destroyed.
class KEL_API CKelApplication {
public:
    virtual ~CKelApplication();
    /// The application's own text for `code`; the base empties `text` and returns 129.
    virtual unsigned int GetErrorMessage(Strings::CStringVar& text, unsigned int code);

    /// The folders (";"-separated) in which language files are searched.
    void SetNlsSearchPath(const Strings::CSubStringRef& path);
    void SetNlsSearchPath(const boost::filesystem::path& path);
    void GetNlsSearchPath(Strings::CStringVar& path) const;
    void SetDebugWait(bool on) noexcept { m_bDebugWait = on; }
    bool GetDebugWait() const noexcept { return m_bDebugWait; }

    /// The full file name of the running program (cached after the first call); 1 when known.
    static unsigned int GetProcessPath(boost::filesystem::path& path);
    static unsigned int GetProcessPath(Strings::CStringVar& path);
    /// There is no Windows directory on this platform: returns 0 and leaves `path` alone.
    static unsigned int GetWindowsPath(boost::filesystem::path& path);
    /// Looks `command` up in the folders of PATH (a name with a '/' is taken as it is); 1 and
    /// the full name of an executable file when found, else 0 with `result` unchanged.
    static unsigned int GetCommandPath(const std::string& command, boost::filesystem::path& result);

protected:
    CKelApplication();
    /// The library's default object: it becomes `pKelApp` only if the program has none yet.
    struct DefaultTag {};
    explicit CKelApplication(DefaultTag);

private:
    Strings::TString<248> m_NlsSearchPath;
    bool m_bDebugWait = false;
};

/// The current application object (the built-in default unless the program made its own).
KEL_API extern CKelApplication* pKelApp;

/// Scope object kept from the original for code that calls C runtime functions with caller
/// supplied formats or buffers. The C runtime of this platform has no invalid-parameter
/// handler to replace, so it only serialises its construction as the original did.
class KEL_API RAII_RuntimeInvalidParameterHandler {
public:
    RAII_RuntimeInvalidParameterHandler();
    ~RAII_RuntimeInvalidParameterHandler();
    RAII_RuntimeInvalidParameterHandler(const RAII_RuntimeInvalidParameterHandler&) = delete;
    RAII_RuntimeInvalidParameterHandler& operator=(const RAII_RuntimeInvalidParameterHandler&) = delete;
    /// What the original installed in place of the runtime's handler: does nothing.
    static void CustomRuntimeInvalidParameterHandler(const wchar_t* expression, const wchar_t* function,
                                                     const wchar_t* file, unsigned int line, uintptr_t reserved);
};

template <class T>
class TDoubleLinkHead;

/// A base of T that links it into a circular list whose head (TDoubleLinkHead) is the sentinel.
/// Links point at the embedded nodes, so T may put this base anywhere (after a vtable too).
template <class T>
class TDoubleLinkedObject {
public:
    TDoubleLinkedObject() noexcept = default;
    TDoubleLinkedObject(const TDoubleLinkedObject&) noexcept = default;
    TDoubleLinkedObject& operator=(const TDoubleLinkedObject&) noexcept = default;

    /// The next element, or null after the last one.
    T* Next() const noexcept { return AsElement(m_pNext); }
    T* Prev() const noexcept { return AsElement(m_pPrev); }
    bool IsLinked() const noexcept { return m_pNext != nullptr; }
    /// Joins the neighbours and returns the next element (null at the end, and for an element
    /// that was never linked), so a loop can remove while walking. The element's own pointers
    /// are kept: the owner must know whether it is linked. Use Detach() to forget the links.
    T* Unlink() noexcept {
        if (m_pNext == nullptr) return nullptr;
        if (m_pNext == this) return AsElement(m_pNext);
        m_pPrev->m_pNext = m_pNext;
        m_pNext->m_pPrev = m_pPrev;
        return AsElement(m_pNext);
    }
    /// Unlinks and clears the links, so IsLinked() is false afterwards.
    void Detach() noexcept {
        Unlink();
        m_pNext = m_pPrev = nullptr;
    }

private:
    friend class TDoubleLinkHead<T>;
    static T* AsElement(TDoubleLinkedObject* node) noexcept {
        return (node == nullptr || node->m_bSentinel) ? nullptr : static_cast<T*>(node);
    }
    TDoubleLinkedObject* m_pNext = nullptr;
    TDoubleLinkedObject* m_pPrev = nullptr;
    bool m_bSentinel = false;
};

/// The head of a circular list of T (T derives from TDoubleLinkedObject<T>). An empty head
/// points at itself twice. Walk with
///     for (T* p = head.Start(); p != head.End(); p = p->Next())
/// End() is the null element behind the last one.
template <class T>
class TDoubleLinkHead {
public:
    TDoubleLinkHead() noexcept {
        m_Node.m_bSentinel = true;
        Clear();
    }
    TDoubleLinkHead(const TDoubleLinkHead&) = delete;
    TDoubleLinkHead& operator=(const TDoubleLinkHead&) = delete;
    void Clear() noexcept { m_Node.m_pNext = m_Node.m_pPrev = &m_Node; }
    /// Appends at the tail.
    void Add(T* element) noexcept {
        TDoubleLinkedObject<T>* e = element;
        e->m_pNext = &m_Node;
        e->m_pPrev = m_Node.m_pPrev;
        m_Node.m_pPrev->m_pNext = e;
        m_Node.m_pPrev = e;
    }
    void Add(T& element) noexcept { Add(&element); }
    T* Start() const noexcept { return TDoubleLinkedObject<T>::AsElement(m_Node.m_pNext); }
    T* Last() const noexcept { return TDoubleLinkedObject<T>::AsElement(m_Node.m_pPrev); }
    T* End() const noexcept { return nullptr; }
    bool IsEmpty() const noexcept { return m_Node.m_pNext == &m_Node; }
    size_t Count() const noexcept {
        size_t n = 0;
        for (T* p = Start(); p; p = p->Next()) ++n;
        return n;
    }

private:
    TDoubleLinkedObject<T> m_Node;
};

} // namespace Misc
} // namespace KEL
