// kelbase - Threading.h
//
// Threads, synchronisation objects, waits and interrupts (KEL::Threading).
//
// Two families of synchronisation objects share one wait engine:
//   - lightweight objects that own their state directly (Native_OS::CCriticalSection,
//     CFastMutex, CFastEvent);
//   - shareable handles on counted control blocks (CEvent, CMutex, CSemaphore, CWaitInterrupt,
//     CThread), which can be waited on together through a CWaiter (any or all of up to 63).
//
// Every blocking wait of the library goes through the calling thread's control block and is
// interruptible: a thread interrupt (CThread::Cancel) or a shared user interrupt
// (CWaitInterrupt) that is enabled on the thread ends the wait with status 0x2001003a "Thread
// interrupt" or 0x2001003b "Wait interrupt" (CCriticalSection alone is not interruptible).
//
// Wait results: 1 signalled, 65 abandoned mutex (its owner ended while holding it; ownership
// passes to the caller), 130 timed out (or busy for TryEnter), n + 1 entry n of a list.
// Time-outs are milliseconds, 0xFFFFFFFF waits for ever. Failures are raised as library
// exceptions (Exceptions.h).
//
// Every thread that calls into the library owns a control block, found through one
// thread-local slot and created on first use for threads the library did not start.
// CCurrentThread is the calling thread's view of its own block.
#pragma once

#include <kel/Delegates.h>
#include <kel/Exceptions.h>
#include <kel/Misc.h>

#include <atomic>
#include <initializer_list>
#include <cstdint>

namespace KEL {
namespace Threading {
class CSyncGuard;
class CWaitHandle;
class CWaitInterrupt;
} // namespace Threading

namespace Internals {
class CThreadCB;
class CWaitList;

namespace Posix {
/// The user-space dispatcher object behind a control block (private to the library).
class CDispatcher;
class CWaitInterruptCB;

/// Base of every waitable control block. Its reference count starts at 1; `m_pHandle` is the
/// dispatcher object, null until the block is initialised. A block without one joins a list wait
/// through a poll descriptor instead (`m_iPollFd`, sockets), when it has one.
class KEL_API CWaitCB : public Threading::CSyncCounter {
public:
    CWaitCB() noexcept : CSyncCounter(1) {}
    virtual ~CWaitCB();
    CWaitCB(const CWaitCB&) = delete;
    CWaitCB& operator=(const CWaitCB&) = delete;

    /// Waits for the object through the calling thread's block: 1, 65 or 130.
    virtual unsigned int Wait(unsigned int timeout);
    /// List-wait hooks for blocks that arm events while waited on (sockets); 1 here.
    virtual unsigned int SetMask(unsigned int mask);
    virtual unsigned int SignaledAfterWait(unsigned int mask);

    CDispatcher* GetHandle() const noexcept { return m_pHandle; }
    /// The descriptor a list wait polls for a block without dispatcher object (-1: none), the
    /// poll events SetMask chose, and what the last wait saw on it (for SignaledAfterWait).
    int GetPollFd() const noexcept { return m_iPollFd; }
    short GetPollEvents() const noexcept { return m_sPollEvents; }
    void SetPollResult(short revents) noexcept { m_sPollResult = revents; }
    void AddRef() noexcept { Incr(); }
    /// Drops a reference; deletes the block at 0.
    void DropRef() noexcept {
        if (Decr() == 0) delete this;
    }

protected:
    CDispatcher* m_pHandle = nullptr;
    int m_iPollFd = -1;
    short m_sPollEvents = 0;
    short m_sPollResult = 0;
};

class KEL_API CEventCB : public CWaitCB {
public:
    ~CEventCB() override;
    /// 0x20010038 when already initialised.
    unsigned int Init(bool manualReset, bool initialState);
    /// Shares the dispatcher object `handle` (from CWaitCB::GetHandle of a live block): both
    /// blocks hold a reference on it.
    unsigned int Init(void* handle);
    /// 0x20010018 without object.
    unsigned int Set();
    unsigned int Reset();
};

class KEL_API CMutexCB : public CWaitCB {
public:
    ~CMutexCB() override;
    unsigned int Init(bool initialOwner);
    /// Gives up one level of ownership; a release by a thread that does not own it is ignored.
    unsigned int Release();
};

class KEL_API CSemaphoreCB : public CWaitCB {
public:
    ~CSemaphoreCB() override;
    unsigned int Init(unsigned int initial, unsigned int maximum);
    /// Adds 1 to the count; 0x2001001a when it would pass the maximum.
    unsigned int Release();
};

/// Links one thread to one interrupt (a thread has two: its own interrupt and the user's).
class CWaitBlock : public Misc::TDoubleLinkedObject<CWaitBlock> {
public:
    CWaitInterruptCB* m_pInterrupt = nullptr;
    CThreadCB* m_pThread = nullptr;
};

/// An interrupt: the threads that listen to it and whether it is signalled. Has no dispatcher
/// object: it is not waited on, it breaks waits.
class KEL_API CWaitInterruptCB : public CWaitCB {
public:
    CWaitInterruptCB() noexcept = default;
    ~CWaitInterruptCB() override;
    /// Signals: marks the interrupt pending on every listening thread and wakes their waits.
    unsigned int Set();
    /// Clears `signalled`; interrupts already pending on threads stay pending.
    unsigned int Reset();
    bool IsSignalled() const noexcept;

    Misc::TDoubleLinkHead<CWaitBlock> m_Blocks;
    unsigned int m_uSignalled = 0;
};
} // namespace Posix

/// The control-block base of a waitable's block (out of line for the thread block, whose
/// definition is private).
inline Posix::CWaitCB* AsWaitCB(Posix::CWaitCB* block) noexcept { return block; }
KEL_API Posix::CWaitCB* AsWaitCB(CThreadCB* block) noexcept;

/// What every lockable object uses to arm a guard its caller passed (a null guard is ignored).
class KEL_API CSyncObject {
public:
    static void SetRestoreFn(Threading::CSyncGuard* guard, const Delegates_and_Calls::TFastDelegateR<unsigned int>& fn);
};
} // namespace Internals

namespace Threading {

/// Undoes a lock or a setting when it goes out of scope by calling its restore function once.
class KEL_API CSyncGuard {
public:
    CSyncGuard() noexcept : m_Restore(&CSyncGuard::Nop) {}
    /// Calls the restore function; an exception from it is recorded in the thread's error log
    /// and dropped.
    ~CSyncGuard();
    CSyncGuard(const CSyncGuard&) = delete;
    CSyncGuard& operator=(const CSyncGuard&) = delete;

    /// Calls the stored function once (a second Restore does nothing) and returns its status.
    unsigned int Restore();
    /// Forgets the function: the caller keeps the lock.
    void DoNotRestore() noexcept { m_Restore = Delegates_and_Calls::TFastDelegateR<unsigned int>(&CSyncGuard::Nop); }
    /// The "nothing to restore" function: returns 1.
    static unsigned int Nop() { return 1; }

protected:
    friend class Internals::CSyncObject;
    void SetRestoreFn(const Delegates_and_Calls::TFastDelegateR<unsigned int>& fn) noexcept { m_Restore = fn; }

private:
    Delegates_and_Calls::TFastDelegateR<unsigned int> m_Restore;
};

namespace Native_OS {

/// A recursive lock that spins before it sleeps; initialises itself on first use. Not
/// interruptible (as the critical sections it stands for).
class KEL_API CCriticalSection {
public:
    constexpr CCriticalSection() noexcept = default;
    virtual ~CCriticalSection();
    CCriticalSection(const CCriticalSection&) = delete;
    CCriticalSection& operator=(const CCriticalSection&) = delete;

    /// Sets the lock up with `spinCount` spins before sleeping; a second Init returns 1.
    unsigned int Init(unsigned int spinCount = 0);
    /// Enters (recursively); arms `guard` with Leave. Returns 1.
    unsigned int Enter(CSyncGuard* guard = nullptr);
    unsigned int Enter(CSyncGuard& guard) { return Enter(&guard); }
    /// 130 (guard untouched) when another thread holds the lock, else as Enter.
    unsigned int TryEnter(CSyncGuard* guard = nullptr);
    unsigned int TryEnter(CSyncGuard& guard) { return TryEnter(&guard); }
    /// Leaves one level; 1, also on a never-initialised lock.
    unsigned int Leave();
    /// Sets the spin count (initialising with it when needed); `previous` gets the old one.
    unsigned int SetSpinCount(unsigned int spin, unsigned int* previous = nullptr);

private:
    void Lock() noexcept;
    std::atomic<unsigned int> m_uUninitialised{1};
    std::atomic<int> m_iState{0};          ///< 0 free, 1 held, 2 held with sleepers
    std::atomic<uintptr_t> m_Owner{0};     ///< pthread id of the holder
    unsigned int m_nRecursion = 0;
    std::atomic<unsigned int> m_uSpin{0};
};

/// An interruptible, thread-owned, recursive mutex; with InitForReadWrite also a readers/writer
/// lock whose readers share the mutex (the first reader takes it, the last gives it back).
class KEL_API CFastMutex {
public:
    CFastMutex() noexcept = default;
    virtual ~CFastMutex();
    CFastMutex(const CFastMutex&) = delete;
    CFastMutex& operator=(const CFastMutex&) = delete;

    /// 1; a second Init does nothing.
    unsigned int Init();
    /// Sets up the reader count and its gate; returns the gate's Init status.
    unsigned int InitForReadWrite();
    /// Writer lock: 1, 65 (abandoned) or 130; with a guard: Nop on 130, else armed with Release.
    /// 0x20010018 before Init.
    unsigned int Wait(CSyncGuard* guard, unsigned int timeout = 0xFFFFFFFF);
    unsigned int Wait(CSyncGuard& guard, unsigned int timeout = 0xFFFFFFFF) { return Wait(&guard, timeout); }
    unsigned int Wait(unsigned int timeout = 0xFFFFFFFF) { return Wait(static_cast<CSyncGuard*>(nullptr), timeout); }
    /// Keeps Wait(0) from reading as a null guard.
    unsigned int Wait(int timeout) { return Wait(static_cast<unsigned int>(timeout)); }
    /// Gives up one level of the writer lock; 0x20010018 before Init.
    unsigned int Release();
    /// Reader lock (exactly Wait without InitForReadWrite).
    unsigned int WaitForRead(CSyncGuard* guard, unsigned int timeout = 0xFFFFFFFF);
    unsigned int WaitForRead(CSyncGuard& guard, unsigned int timeout = 0xFFFFFFFF) {
        return WaitForRead(&guard, timeout);
    }
    unsigned int WaitForRead(unsigned int timeout = 0xFFFFFFFF) {
        return WaitForRead(static_cast<CSyncGuard*>(nullptr), timeout);
    }
    unsigned int WaitForRead(int timeout) { return WaitForRead(static_cast<unsigned int>(timeout)); }
    /// Ends one read lock; the last reader gives the mutex back (exactly Release without
    /// InitForReadWrite).
    unsigned int ReadRelease();

private:
    unsigned int m_uUninitialised = 1;
    int m_iReaders = 0;
    CFastMutex* m_pGate = nullptr;
    Internals::Posix::CDispatcher* m_pHandle = nullptr;
};

/// A plain event (auto or manual reset) owned by its object; waits are interruptible.
class KEL_API CFastEvent {
public:
    CFastEvent() noexcept = default;
    ~CFastEvent();
    CFastEvent(const CFastEvent&) = delete;
    CFastEvent& operator=(const CFastEvent&) = delete;

    unsigned int Init(unsigned int manualReset);
    unsigned int Set();
    unsigned int Reset();
    /// 1 or 130; 0x20010018 before Init.
    unsigned int Wait(unsigned int timeout = 0xFFFFFFFF);

private:
    unsigned int m_uUninitialised = 1;
    Internals::Posix::CDispatcher* m_pHandle = nullptr;
};

} // namespace Native_OS

/// A counted reference to a control block plus a mask of events to arm while waited on.
class KEL_API CWaitHandle {
public:
    CWaitHandle() noexcept = default;
    CWaitHandle(Internals::Posix::CWaitCB* block, unsigned int mask) noexcept : m_pCB(block), m_uMask(mask) {
        if (m_pCB) m_pCB->AddRef();
    }
    CWaitHandle(const CWaitHandle& other) noexcept : CWaitHandle(other.m_pCB, other.m_uMask) {}
    CWaitHandle& operator=(const CWaitHandle& other) noexcept {
        if (other.m_pCB) other.m_pCB->AddRef();
        Detach();
        m_pCB = other.m_pCB;
        m_uMask = other.m_uMask;
        return *this;
    }
    ~CWaitHandle() { Detach(); }
    /// Drops the reference.
    void Detach() noexcept {
        if (m_pCB) m_pCB->DropRef();
        m_pCB = nullptr;
        m_uMask = 0;
    }
    Internals::Posix::CWaitCB* GetCB() const noexcept { return m_pCB; }
    unsigned int GetMask() const noexcept { return m_uMask; }

private:
    Internals::Posix::CWaitCB* m_pCB = nullptr;
    unsigned int m_uMask = 0;
};

/// A handle on a counted control block; copies share the block.
template <class CB>
class TWaitable {
public:
    TWaitable() noexcept = default;
    TWaitable(const TWaitable& other) noexcept : m_pCB(other.m_pCB) {
        if (m_pCB) Internals::AsWaitCB(m_pCB)->AddRef();
    }
    TWaitable(TWaitable&& other) noexcept : m_pCB(other.m_pCB) { other.m_pCB = nullptr; }
    TWaitable& operator=(const TWaitable& other) noexcept {
        if (this != &other) {
            Drop();
            m_pCB = other.m_pCB;
            if (m_pCB) Internals::AsWaitCB(m_pCB)->AddRef();
        }
        return *this;
    }
    TWaitable& operator=(TWaitable&& other) noexcept {
        if (this != &other) {
            Drop();
            m_pCB = other.m_pCB;
            other.m_pCB = nullptr;
        }
        return *this;
    }
    virtual ~TWaitable() { Drop(); }
    /// A wait handle (mask 0) on the same block, for a CWaiter.
    operator CWaitHandle() const noexcept { return CWaitHandle(Internals::AsWaitCB(m_pCB), 0); }
    bool IsInitialized() const noexcept { return m_pCB != nullptr; }
    CB* GetCB() const noexcept { return m_pCB; }

protected:
    /// Drops the reference (deleting the block at 0) and empties the handle.
    void Drop() noexcept {
        if (m_pCB) Internals::AsWaitCB(m_pCB)->DropRef();
        m_pCB = nullptr;
    }
    /// Adopts `block` with the reference it carries.
    void Adopt(CB* block) noexcept {
        Drop();
        m_pCB = block;
    }
    CB* m_pCB = nullptr;
};

/// A shareable event.
class KEL_API CEvent : public TWaitable<Internals::Posix::CEventCB> {
public:
    /// 1 and nothing done when already initialised.
    unsigned int Init(bool manualReset = false, bool initialState = false);
    /// Shares the dispatcher object of another block (see CEventCB::Init(void*)).
    unsigned int Init(void* osHandle);
    unsigned int Set();
    unsigned int Reset();
    /// 1 or 130; 0x20010018 without block.
    unsigned int Wait(unsigned int timeout = 0xFFFFFFFF);
};

/// A shareable, thread-owned, recursive mutex.
class KEL_API CMutex : public TWaitable<Internals::Posix::CMutexCB> {
public:
    /// With `initialOwner` the calling thread owns the new mutex at once. 1 and nothing done
    /// when already initialised.
    unsigned int Init(bool initialOwner = false);
    /// Gives up one level of the calling thread's ownership; from a thread that does not own
    /// the mutex nothing happens (1 all the same).
    unsigned int Release();
    /// 1, 65 or 130; with a guard: Nop on 130, else armed with Release.
    unsigned int Wait(CSyncGuard* guard, unsigned int timeout = 0xFFFFFFFF);
    unsigned int Wait(CSyncGuard& guard, unsigned int timeout = 0xFFFFFFFF) { return Wait(&guard, timeout); }
    unsigned int Wait(unsigned int timeout = 0xFFFFFFFF) { return Wait(static_cast<CSyncGuard*>(nullptr), timeout); }
    /// Keeps Wait(0) from reading as a null guard.
    unsigned int Wait(int timeout) { return Wait(static_cast<unsigned int>(timeout)); }
};

/// A shareable counting semaphore with a maximum.
class KEL_API CSemaphore : public TWaitable<Internals::Posix::CSemaphoreCB> {
public:
    /// 0x20010039 unless 0 < maximum <= INT_MAX and initial <= maximum. 1 and nothing done
    /// when already initialised.
    unsigned int Init(unsigned int initial, unsigned int maximum);
    /// Adds one to the count; 0x2001001A when it is at its maximum already.
    unsigned int Release();
    /// Takes one from the count: 1 or 130; with a guard: Nop on 130, else armed with Release.
    /// 0x20010018 without block.
    unsigned int Wait(CSyncGuard* guard, unsigned int timeout = 0xFFFFFFFF);
    unsigned int Wait(CSyncGuard& guard, unsigned int timeout = 0xFFFFFFFF) { return Wait(&guard, timeout); }
    unsigned int Wait(unsigned int timeout = 0xFFFFFFFF) { return Wait(static_cast<CSyncGuard*>(nullptr), timeout); }
    /// Keeps Wait(0) from reading as a null guard.
    unsigned int Wait(int timeout) { return Wait(static_cast<unsigned int>(timeout)); }
};

/// A shared user interrupt: Set breaks the waits of every thread that installed it and has the
/// user kind enabled; it stays signalled until Reset.
class KEL_API CWaitInterrupt : public TWaitable<Internals::Posix::CWaitInterruptCB> {
public:
    CWaitInterrupt() noexcept = default;
    /// Adopts a reference on `block` (null: an empty handle).
    explicit CWaitInterrupt(Internals::Posix::CWaitInterruptCB* block) noexcept { m_pCB = block; }
    /// 0x20010038 when already initialised.
    unsigned int Init();
    /// 0x20010018 without block.
    unsigned int Set();
    unsigned int Reset();
};

} // namespace Threading

namespace Internals {
/// The entries of a list wait: 16 inline, 64 on the heap once more are added.
class KEL_API CWaitList {
public:
    CWaitList() noexcept : m_pEntries(m_Inline) {}
    ~CWaitList();
    CWaitList(const CWaitList&) = delete;
    CWaitList& operator=(const CWaitList&) = delete;
    /// Drops every entry (a heap array, once made, stays in use).
    void Clear() noexcept;
    Threading::CWaitHandle& operator[](size_t i) noexcept { return m_pEntries[i]; }
    const Threading::CWaitHandle& operator[](size_t i) const noexcept { return m_pEntries[i]; }
    size_t Count() const noexcept { return m_nCount; }
    unsigned int MaskedCount() const noexcept { return m_nMasked; }
    /// Appends (taking a reference); the caller has checked the limits.
    void Append(const Threading::CWaitHandle& handle);

private:
    Threading::CWaitHandle* m_pEntries;
    Threading::CWaitHandle m_Inline[16];
    uint64_t m_nCount = 0;
    unsigned int m_nMasked = 0;
};
} // namespace Internals

namespace Threading {

/// A list of up to 64 handles (63 can be waited on) to wait for any or all of them.
class KEL_API CWaiter {
public:
    CWaiter() noexcept = default;
    /// Appends a handle: 0x20010035 after an unthrown error, 0x20010018 for an empty handle,
    /// 0x20010036 beyond 64. When throwing is off for the thread, the error flag is set and
    /// later additions fail until Clear.
    CWaiter& operator<<(const CWaitHandle& handle);
    /// Any (n + 1 for entry n, the lowest signalled one) or all (1, or n + 1 for an abandoned
    /// mutex at n); 130 on time-out.
    unsigned int Wait(unsigned int timeout, bool waitAll = false);
    size_t Count() const noexcept { return m_List.Count(); }
    void Clear() noexcept;
    unsigned int ErrorFlag() const noexcept { return m_uErrorFlag; }

private:
    unsigned int m_uErrorFlag = 0;
    Internals::CWaitList m_List;
};

/// A shrinking time-out on the library tick clock.
class KEL_API CWaitInterval {
public:
    explicit CWaitInterval(unsigned int interval) noexcept;
    /// The time left: 0 once the interval has passed, else the interval minus the elapsed time.
    operator unsigned int() const noexcept;
    void Restart() noexcept;
    void Restart(unsigned int interval) noexcept;

private:
    unsigned int m_uInterval;
    unsigned long long m_uStart;
};

/// A thread-local storage index.
class KEL_API CTls {
public:
    CTls() noexcept = default;
    ~CTls();
    CTls(const CTls&) = delete;
    CTls& operator=(const CTls&) = delete;
    /// Allocates the index once; 0x20010030 when none can be had.
    unsigned int Init();
    bool IsAllocated() const noexcept { return m_uIndex != NotAllocated; }

protected:
    void* GetValue() const noexcept;
    void SetValue(void* value);

private:
    static constexpr unsigned int NotAllocated = 0xFFFFFFFFu;
    unsigned int m_uIndex = NotAllocated;
};

/// The typed form of CTls for pointers.
template <class T>
class TTls : public CTls {
public:
    operator T() const noexcept { return static_cast<T>(GetValue()); }
    TTls& operator=(T value) {
        SetValue(static_cast<void*>(value));
        return *this;
    }
};

/// Starts and controls one thread; copies share its control block.
class KEL_API CThread : public TWaitable<Internals::CThreadCB> {
public:
    CThread() noexcept = default;
    /// A fresh, unstarted block; 0x20010031 while the previous thread still runs.
    unsigned int initialize();
    /// Starts `function` on a new thread (held at its start when `suspended`); 0x20010031 while
    /// the previous thread runs, 0x20010032 when no thread can be started.
    unsigned int Create(Delegates_and_Calls::CDelegate function, bool suspended = false);
    /// 1 when the thread has ended, 130 while it runs; 0x20010018 without block.
    unsigned int Wait(unsigned int timeout = 0xFFFFFFFF);
    /// Raises the thread interrupt on the thread.
    unsigned int Cancel();
    /// 0x20010033 without block; 0x20010034 while the thread is still running.
    unsigned int Suspend();
    unsigned int Resume();
    unsigned int GetThreadID() const;
    /// A wait handle on the thread's end.
    operator CWaitHandle() const noexcept;
};

/// The calling thread's view of its own control block.
class KEL_API CCurrentThread {
public:
    static constexpr unsigned int ThreadInterruptOnly = 1;
    static constexpr unsigned int UserInterruptOnly = 2;
    static constexpr unsigned int ThreadAndUserInterrupt = 3;

    CCurrentThread();

    /// The thread's error log: what the last failure on this thread recorded.
    Exceptions::CErrorLog& GetErrorLog() noexcept;
    /// The thread's name, "undefined" until set.
    Strings::CStringRef GetThreadName() const noexcept;
    /// Empties the name and returns a stream that formats the new one; when the stream ends the
    /// name (its first 15 characters) is also given to the operating system.
    Output_Streams::CFormatStream SetThreadName(const char* format);
    /// The thread's language id (0 = not set, read as English).
    unsigned int GetLngId() const noexcept;
    void SetLngId(unsigned int languageId) noexcept;
    /// The operating system's id of the thread.
    unsigned int GetThreadID() const noexcept;
    Internals::CThreadCB* operator->() const noexcept { return m_pTCB; }

    /// Interruptible sleep: 1 when the time has passed; 0 only yields.
    unsigned int Sleep(unsigned int ms);
    /// The next value of the thread's Park-Miller generator.
    int LCG_Rand() noexcept;

    unsigned int GetInterruptMask() const noexcept;
    /// Sets the enabled kinds exactly; returns the old mask.
    unsigned int SetInterruptMask(unsigned int mask);
    /// Sets the mask to `kinds`; the guard puts the old mask back.
    unsigned int EnableInterrupt(CSyncGuard* guard, unsigned int kinds);
    unsigned int EnableInterrupt(CSyncGuard& guard, unsigned int kinds) { return EnableInterrupt(&guard, kinds); }
    /// Sets the mask to every kind but `kinds`; the guard puts the old mask back.
    unsigned int DisableInterrupt(CSyncGuard* guard, unsigned int kinds);
    unsigned int DisableInterrupt(CSyncGuard& guard, unsigned int kinds) { return DisableInterrupt(&guard, kinds); }
    /// 1, or raises 0x2001003a / 0x2001003b for a pending, enabled interrupt (the thread kind
    /// first); the mask then keeps only the raised kind.
    unsigned int CheckInterrupt();
    /// Clears the pending kinds and enables them again.
    unsigned int ClearInterrupt(unsigned int kinds);
    /// Installs a user interrupt (null removes it); returns the previous one.
    CWaitInterrupt SetWaitInterrupt(const CWaitInterrupt& interrupt);
    CWaitInterrupt SetWaitInterrupt(const CWaitInterrupt* interrupt);

private:
    Internals::CThreadCB* m_pTCB;
};

/// Installs a user interrupt on the calling thread for a block of code. The destructor puts the
/// previous interrupt and the saved mask back unless the saved mask is 0; a guard that never
/// installed anything removes the user interrupt and sets the mask to 0xFFFFFFFF.
class KEL_API CInterruptGuard {
public:
    CInterruptGuard();
    ~CInterruptGuard();
    CInterruptGuard(const CInterruptGuard&) = delete;
    CInterruptGuard& operator=(const CInterruptGuard&) = delete;
    /// Saves the mask, installs `interrupt`, enables the user kind and checks (throws at once
    /// for an interrupt that is already signalled).
    unsigned int SetWaitInterrupt(CWaitInterrupt& interrupt);

private:
    Internals::CThreadCB* m_pTCB;
    CWaitInterrupt m_Interrupt;
    CWaitInterrupt m_Previous;
    unsigned int m_uSavedMask = 0xFFFFFFFF;
};

/// Runs CDelegate jobs on worker threads that grow on demand up to a maximum (the pool may hold
/// one worker more) and end after an idle time. The pool refuses work (0x2001003d "Pool not
/// initialized") until Init and after Stop. Every step is traced under bit 0x20.
class KEL_API CThreadPool : public Native_OS::CCriticalSection {
public:
    class CPoolThread;
    class CJob;

    CThreadPool() noexcept = default;
    /// Stops the pool and drops the jobs still queued.
    ~CThreadPool() override;
    CThreadPool(const CThreadPool&) = delete;
    CThreadPool& operator=(const CThreadPool&) = delete;

    /// Opens the pool: `maxThreads` 0 means no limit. 0x2001003c "Pool already initialized"
    /// while it is open; a stopped pool may be opened again. Returns 1.
    unsigned int Init(unsigned int minThreads, unsigned int maxThreads, unsigned int idleTimeMs);
    /// Idle time of the next idle waits; 0x2001003d while the pool is not open. Returns 1.
    unsigned int SetIdleTime(unsigned int ms);
    /// Hands `job` to an idle or a new worker, or queues it when the pool is full. Returns 1;
    /// 0x2001003d while the pool is not open.
    unsigned int Enqueue(Delegates_and_Calls::CDelegate job);
    /// Closes the pool, interrupts idle workers and waits until every worker has ended; jobs
    /// still queued are dropped. A pool without workers stays open. Returns 1.
    unsigned int Stop();

    /// Workers not yet reaped, idle workers and queued jobs (read under the pool lock).
    unsigned int GetThreadCount();
    unsigned int GetIdleCount();
    unsigned int GetQueuedJobCount();

protected:
    /// Runs one job on the calling worker; a failing job is logged in its delegate and the
    /// worker goes on.
    virtual unsigned int Run(Delegates_and_Calls::CDelegate& job);

private:
    friend class CPoolThread;
    /// Unlinks and deletes the workers that have left; called under the lock.
    void Reap();
    void DropQueuedJobs() noexcept;
    /// Takes the pool lock for Enqueue, trying a short while before sleeping on it.
    void LockPool(CSyncGuard& SG);
    /// Under the lock: a spare job record, or null when none is left.
    CJob* TakeSpareJob() noexcept;
    /// Under the lock: keeps `job` (empty) as a spare; returns it when the spare list is full,
    /// for the caller to free after releasing the lock, else null.
    CJob* RecycleJob(CJob* job) noexcept;

    /// On a cache line of its own, apart from the lock word (in the base): threads spinning
    /// for the lock then do not pull the queues away from the thread that holds it.
    alignas(64) Native_OS::CFastEvent m_Event;
    unsigned int m_uMaxThreads = 0;
    unsigned int m_uMinThreads = 0;
    /// Read by idle workers without the lock (SetIdleTime may change it at any time).
    std::atomic<unsigned int> m_uIdleTime{0};
    unsigned int m_uThreads = 0;
    unsigned int m_uIdleThreads = 0;
    unsigned int m_uStopReq = 1;
    Misc::TDoubleLinkHead<CPoolThread> m_IdleQueue;
    Misc::TDoubleLinkHead<CPoolThread> m_RunningQueue;
    Misc::TDoubleLinkHead<CPoolThread> m_DeleteQueue;
    Misc::TDoubleLinkHead<CJob> m_JobQueue;
    /// Job records whose job has been taken, kept for reuse: a stack through CJob's own
    /// pointer, so that pushing and popping touch no other record (changed under the lock;
    /// the count is read without it only as a hint).
    CJob* m_pSpareJobs = nullptr;
    std::atomic<unsigned int> m_uSpareJobs{0};
};

} // namespace Threading

namespace Delegates_and_Calls {

/// A counted delegate whose block carries an auto-reset event that starts signalled, so that a
/// CWaiter can wait for the end of a run. The event is reset when the call is handed over
/// (CThreadPool::Enqueue, or Arm() before any other hand-over) and set once the run has ended
/// and its error is recorded; "enqueue, then Wait" therefore never sees a stale signal.
/// Waiting consumes the signal (auto reset): one Wait per run.
class KEL_API CWaitableCall : public CDelegate {
public:
    /// The counted block with the end-of-run event; a waitable call's blocks derive from it.
    class KEL_API CCbHead : public CCbBase {
    public:
        void HandedOver() override { m_Event.Reset(); }
        void Failed() override { m_Event.Set(); }
        Threading::CEvent m_Event;
    };
    CWaitableCall() noexcept = default;
    /// A handle (mask 0) on the event, for a CWaiter.
    operator Threading::CWaitHandle() const noexcept;
    /// 1 once the run has ended (or when no run is pending), 130 on time-out.
    unsigned int Wait(unsigned int timeout = 0xFFFFFFFF);
    /// Resets the event: call before handing the call to something other than the pool.
    void Arm() { HandOver(); }

protected:
    /// Installs `block` (dropping a previous one) with its event signalled; the event's Init
    /// status.
    unsigned int Init(CCbHead* block);
};

/// Binds any callable into a CWaitableCall.
template <class F> class TWaitableFunction : public CWaitableCall {
public:
    /// The counted block that holds the callable; it sets the end-of-run event however the
    /// callable ends.
    class CCb : public CCbHead {
    public:
        explicit CCb(F fn) : m_Fn(std::move(fn)) {}
        void Call() override {
            try {
                m_Fn();
            } catch (const Exceptions::CKelException&) {
                throw; // recorded by the caller, then Failed() signals
            } catch (...) {
                m_Event.Set();
                throw;
            }
            m_Event.Set();
        }

    private:
        F m_Fn;
    };
    explicit TWaitableFunction(F fn) { Init(new CCb(std::move(fn))); }
};

/// Binds any callable into a waitable call: `auto call = MakeWaitableCall([&] { ... });`.
template <class F> TWaitableFunction<std::decay_t<F>> MakeWaitableCall(F&& fn) {
    return TWaitableFunction<std::decay_t<F>>(std::forward<F>(fn));
}

} // namespace Delegates_and_Calls

namespace Threading {

/// An owning pointer that moves: moving takes the object and leaves the source empty.
template <class T> class TMovablePtr {
public:
    TMovablePtr() noexcept = default;
    explicit TMovablePtr(T* p) noexcept : m_p(p) {}
    TMovablePtr(TMovablePtr&& other) noexcept : m_p(other.m_p) { other.m_p = nullptr; }
    TMovablePtr& operator=(TMovablePtr&& other) noexcept {
        if (this != &other) {
            delete m_p;
            m_p = other.m_p;
            other.m_p = nullptr;
        }
        return *this;
    }
    TMovablePtr(const TMovablePtr&) = delete;
    TMovablePtr& operator=(const TMovablePtr&) = delete;
    ~TMovablePtr() { delete m_p; }
    T* operator->() const noexcept { return m_p; }
    T& operator*() const noexcept { return *m_p; }
    T* get() const noexcept { return m_p; }

private:
    T* m_p = nullptr;
};

namespace CEventHandlerNS {
namespace wait_forNS {
/// The outcome of CEventHandler::wait_for: the id consumed, or { false, 0x7FFFFFFF } on time-out.
struct TResult {
    TResult() noexcept = default;
    TResult(bool isSignalled, int id) noexcept : signalled(isSignalled), event(id) {}
    bool signalled = false;
    int event = 0x7FFFFFFF;
};
} // namespace wait_forNS
} // namespace CEventHandlerNS

/// A counting event mailbox on the standard mutex and condition variable (neither alertable nor
/// interruptible). Every post of an id is counted and consumed once. Errors of the standard
/// primitives leave as std::system_error.
class KEL_API CEventHandler {
public:
    class CEventHandlerImpl;
    CEventHandler();
    virtual ~CEventHandler();
    CEventHandler(CEventHandler&& other) noexcept;
    CEventHandler& operator=(CEventHandler&& other) noexcept;
    CEventHandler(const CEventHandler&) = delete;
    CEventHandler& operator=(const CEventHandler&) = delete;

    /// Counts one post of `event` and wakes one waiter. A woken waiter that wants none of the
    /// pending ids goes back to sleep, so consumers of disjoint id sets should use one handler
    /// each.
    void notifyOne(int event);
    /// Consumes one post of the first id of `events` that is pending (the list order is the
    /// priority), waiting up to `timeoutMs`. 0, or a value with the top bit set, checks once
    /// without waiting.
    CEventHandlerNS::wait_forNS::TResult wait_for(const std::initializer_list<int>& events,
                                                  unsigned long long timeoutMs);

private:
    TMovablePtr<CEventHandlerImpl> m_pImpl;
};

} // namespace Threading
} // namespace KEL
