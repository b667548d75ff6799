// kelbase - Src/threads/ThreadCB.cpp
//
// The thread control block: the thread-local slot and the exit hook for threads the library did
// not start, the interrupt model, the interruptible waits built on the wait engine, and the body
// of the threads that CThread starts.
#define KEL_SOURCE_FILE "Src/threads"
#include "threads/ThreadCB.h"

#include <kel/Functions.h>
#include <kel/Threading.h>
#include <kel/Trace.h>

#include <cerrno>
#include <poll.h>

namespace KEL {
namespace Internals {

namespace {

thread_local CThreadCB* t_pCurrent = nullptr;

// Destroyed when the thread exits: abandons the mutexes a thread the library did not start still
// owns and releases the block it got on first use.
struct CForeignThreadReaper {
    bool armed = false;
    ~CForeignThreadReaper() {
        CThreadCB* cb = t_pCurrent;
        if (!cb) return;
        cb->m_WaitContext.AbandonOwnedMutexes();
        cb->Release();
        t_pCurrent = nullptr;
    }
};
thread_local CForeignThreadReaper t_Reaper;

// The interrupt lock spins before it sleeps: it is held only for a few list operations.
Threading::Native_OS::CCriticalSection g_InterruptLock;
struct CInterruptLockSetup {
    CInterruptLockSetup() { g_InterruptLock.Init(1000); }
} s_InterruptLockSetup;

// Scoped hold of the interrupt lock.
class CIntrHold {
public:
    CIntrHold() { g_InterruptLock.Enter(); }
    ~CIntrHold() { g_InterruptLock.Leave(); }
    CIntrHold(const CIntrHold&) = delete;
    CIntrHold& operator=(const CIntrHold&) = delete;
};

// Guard targets that put a mask back.
template <unsigned int Mask>
unsigned int RestoreMask() {
    CThreadCB::Current().SetIntrMask(Mask);
    return 1;
}

} // namespace

Threading::Native_OS::CCriticalSection& InterruptLock() noexcept { return g_InterruptLock; }

Posix::CWaitCB* AsWaitCB(CThreadCB* block) noexcept { return block; }

// ---- the block ----------------------------------------------------------------------------

CThreadCB::CThreadCB() : m_Name("undefined") {
    m_uThreadId.store(CurrentThreadId(), std::memory_order_relaxed);
    m_ThreadBlock.m_pInterrupt = &m_ThreadInterrupt;
    m_ThreadBlock.m_pThread = this;
    m_UserBlock.m_pThread = this;
    m_NameSink.m_pOwner = this;
}

CThreadCB::~CThreadCB() {
    // Unlink from every interrupt before the block goes: a Set walks the lists under the lock.
    {
        CIntrHold hold;
        SetIntrMaskLocked(0);
    }
    if (Posix::CWaitInterruptCB* user = SetUserIntr(nullptr)) user->DropRef();
}

CThreadCB& CThreadCB::Current() {
    CThreadCB* cb = t_pCurrent;
    if (cb) return *cb;
    cb = new CThreadCB();
    t_pCurrent = cb;
    t_Reaper.armed = true; // first use registers the exit hook for this thread
    return *cb;
}

CThreadCB* CThreadCB::Peek() noexcept { return t_pCurrent; }

CThreadCB* CThreadCB::GetCurrent() {
    CThreadCB& cb = Current();
    cb.AddRef();
    return &cb;
}

void CThreadCB::Release() noexcept {
    if (Decr() == 0) {
        if (t_pCurrent == this) t_pCurrent = nullptr;
        delete this;
    }
}

// ---- interrupts ---------------------------------------------------------------------------

unsigned int CThreadCB::SetIntrMaskLocked(unsigned int newMask) noexcept {
    const unsigned int old = m_uInterruptMask;
    const unsigned int changed = old ^ newMask;
    if (changed & Threading::CCurrentThread::ThreadInterruptOnly) {
        if (newMask & Threading::CCurrentThread::ThreadInterruptOnly) {
            m_ThreadInterrupt.m_Blocks.Add(m_ThreadBlock);
            // A Cancel that came while the kind was off is not lost: it is pending now.
            if (m_ThreadInterrupt.m_uSignalled)
                m_uPendingInterrupts.fetch_or(Threading::CCurrentThread::ThreadInterruptOnly, std::memory_order_release);
        } else {
            m_ThreadBlock.Detach();
        }
    }
    if (changed & Threading::CCurrentThread::UserInterruptOnly) {
        if (newMask & Threading::CCurrentThread::UserInterruptOnly) {
            if (m_pUserInterrupt && !m_UserBlock.IsLinked()) {
                m_pUserInterrupt->m_Blocks.Add(m_UserBlock);
                if (m_pUserInterrupt->m_uSignalled)
                    m_uPendingInterrupts.fetch_or(Threading::CCurrentThread::UserInterruptOnly, std::memory_order_release);
            }
        } else {
            m_UserBlock.Detach();
        }
    }
    m_uInterruptMask = newMask;
    return old;
}

unsigned int CThreadCB::SetIntrMask(unsigned int newMask) {
    CIntrHold hold;
    return SetIntrMaskLocked(newMask);
}

unsigned int CThreadCB::SetIntrMask(Threading::CSyncGuard* guard, unsigned int newMask) {
    const unsigned int old = SetIntrMask(newMask);
    using Fn = Delegates_and_Calls::TFastDelegateR<unsigned int>;
    switch (old) {
    case 0: CSyncObject::SetRestoreFn(guard, Fn(&RestoreMask<0>)); break;
    case 1: CSyncObject::SetRestoreFn(guard, Fn(&RestoreMask<1>)); break;
    case 2: CSyncObject::SetRestoreFn(guard, Fn(&RestoreMask<2>)); break;
    case 3: CSyncObject::SetRestoreFn(guard, Fn(&RestoreMask<3>)); break;
    default: break; // any other mask is left for the caller to put back
    }
    return old;
}

Posix::CWaitInterruptCB* CThreadCB::SetUserIntr(Posix::CWaitInterruptCB* interrupt) {
    CIntrHold hold;
    Posix::CWaitInterruptCB* old = m_pUserInterrupt;
    if (old == interrupt) {
        // The caller gets a reference back as for any other previous interrupt.
        if (old) old->AddRef();
        return old;
    }
    if (old && m_UserBlock.IsLinked()) m_UserBlock.Detach();
    if (interrupt) {
        interrupt->AddRef();
        m_UserBlock.m_pInterrupt = interrupt;
        if (m_uInterruptMask & Threading::CCurrentThread::UserInterruptOnly) interrupt->m_Blocks.Add(m_UserBlock);
        if (interrupt->m_uSignalled)
            m_uPendingInterrupts.fetch_or(Threading::CCurrentThread::UserInterruptOnly, std::memory_order_release);
        else
            m_uPendingInterrupts.fetch_and(~Threading::CCurrentThread::UserInterruptOnly, std::memory_order_release);
    } else {
        m_UserBlock.m_pInterrupt = nullptr;
        m_uPendingInterrupts.fetch_and(~Threading::CCurrentThread::UserInterruptOnly, std::memory_order_release);
    }
    m_pUserInterrupt = interrupt;
    return old;
}

void CThreadCB::ThrowInterrupt(unsigned int raised) {
    if (raised & Threading::CCurrentThread::ThreadInterruptOnly) KEL_RAISE(0x2001003Au, "Thread interrupt");
    KEL_RAISE(0x2001003Bu, "Wait interrupt");
}

unsigned int CThreadCB::CheckInterrupt() {
    unsigned int raised;
    {
        CIntrHold hold;
        raised = m_uPendingInterrupts.load(std::memory_order_acquire) & m_uInterruptMask;
        if (raised == 0) return 1;
        // Only the raised kind stays enabled; the thread kind wins over the user kind.
        SetIntrMaskLocked(m_uInterruptMask & ((raised & Threading::CCurrentThread::ThreadInterruptOnly)
                                                  ? Threading::CCurrentThread::ThreadInterruptOnly
                                                  : Threading::CCurrentThread::UserInterruptOnly));
    }
    ThrowInterrupt(raised);
}

void CThreadCB::ThrowIfInterrupted() {
    const unsigned int raised = m_uPendingInterrupts.load(std::memory_order_acquire) & m_uInterruptMask;
    if (raised) ThrowInterrupt(raised);
}

unsigned int CThreadCB::ClearInterrupt(unsigned int kinds) {
    kinds &= Threading::CCurrentThread::ThreadAndUserInterrupt;
    CIntrHold hold;
    m_uPendingInterrupts.fetch_and(~kinds, std::memory_order_release);
    // The thread's own interrupt has no other listener: clearing it re-arms Cancel.
    if (kinds & Threading::CCurrentThread::ThreadInterruptOnly) m_ThreadInterrupt.m_uSignalled = 0;
    SetIntrMaskLocked(m_uInterruptMask | kinds);
    return 1;
}

unsigned int CThreadCB::PostWaitInterrupt(Posix::CWaitCB* interrupt) {
    CIntrHold hold;
    const unsigned int bit = (interrupt != nullptr && interrupt == m_pUserInterrupt)
                                 ? Threading::CCurrentThread::UserInterruptOnly
                                 : Threading::CCurrentThread::ThreadInterruptOnly;
    m_uPendingInterrupts.fetch_or(bit, std::memory_order_release);
    m_WaitContext.Alert();
    return 1;
}

// ---- waits --------------------------------------------------------------------------------

namespace {

// Maps the engine's outcome of a finished wait; true when the wait must go on.
[[noreturn]] void ThrowWaitFailed() {
    KEL_RAISE_NATIVE(0x20010017u, Functions::GetOsError(), "Wait for synchronization object failed");
}

// Elapsed-time bookkeeping of an alerted wait. The start is deliberately not moved: after
// several wake-ups the remaining time shrinks by the whole elapsed time at each of them.
bool ShrinkRemaining(unsigned long long start, unsigned int& remaining) noexcept {
    const unsigned long long elapsed = Functions::GetTickTime(1000) - start;
    if (elapsed >= remaining) return false;
    remaining -= static_cast<unsigned int>(elapsed);
    return true;
}

} // namespace

unsigned int CThreadCB::Wait(Posix::CDispatcher* object, unsigned int timeout) {
    ThrowIfInterrupted();
    if (!object) {
        errno = EBADF;
        ThrowWaitFailed();
    }
    const unsigned long long start = timeout != 0xFFFFFFFFu ? Functions::GetTickTime(1000) : 0;
    unsigned int remaining = timeout;
    for (;;) {
        const unsigned int r = Posix::WaitForObjects(m_WaitContext, 1, &object, false, remaining, true);
        if (r == Posix::WR_Object0) return URET_Ok;
        if (r == Posix::WR_Abandoned0) return URET_Abandoned;
        if (r == Posix::WR_Timeout) return URET_Timeout;
        if (r != Posix::WR_IoCompletion) ThrowWaitFailed();
        ThrowIfInterrupted();
        if (remaining == 0xFFFFFFFFu) continue;
        if (!ShrinkRemaining(start, remaining)) return URET_Timeout;
    }
}

unsigned int CThreadCB::Wait(CWaitList& list, unsigned int timeout, bool waitAll) {
    const size_t count = list.Count();
    if (count >= Posix::kMaxWaitObjects) KEL_RAISE(0x20010036u, "Max count reached (count=%d)", count);
    ThrowIfInterrupted();
    // Dispatcher objects go to the engine, blocks with a descriptor (sockets) are polled
    // beside the parker; `where` maps both back to list positions.
    Posix::CDispatcher* objects[Posix::kMaxWaitObjects];
    pollfd fds[Posix::kMaxWaitObjects];
    unsigned int where[Posix::kMaxWaitObjects];
    unsigned int nObjects = 0;
    unsigned int nFds = 0;
    for (size_t i = 0; i < count; ++i) {
        Posix::CWaitCB* cb = list[i].GetCB();
        if (cb && list[i].GetMask() != 0) cb->SetMask(list[i].GetMask());
        if (cb && cb->GetHandle()) {
            objects[nObjects++] = cb->GetHandle();
        } else if (cb && cb->GetPollFd() >= 0 && !waitAll) {
            fds[nFds].fd = cb->GetPollFd();
            fds[nFds].events = cb->GetPollEvents();
            fds[nFds].revents = 0;
            ++nFds;
        } else {
            KEL_RAISE(0x20010037u, "Invalid handle (index=%d)", i);
        }
    }
    {
        unsigned int o = 0, f = nObjects;
        for (size_t i = 0; i < count; ++i) {
            Posix::CWaitCB* cb = list[i].GetCB();
            where[cb->GetHandle() ? o++ : f++] = static_cast<unsigned int>(i);
        }
    }
    const unsigned long long start = timeout != 0xFFFFFFFFu ? Functions::GetTickTime(1000) : 0;
    unsigned int remaining = timeout;
    unsigned int r;
    for (;;) {
        r = nFds == 0 ? Posix::WaitForObjects(m_WaitContext, nObjects, objects, waitAll, remaining, true)
                      : Posix::WaitForObjectsOrDescriptors(m_WaitContext, nObjects, objects, fds, nFds, remaining);
        if (r == Posix::WR_Timeout) return URET_Timeout;
        if (r == Posix::WR_Failed) ThrowWaitFailed();
        if (r != Posix::WR_IoCompletion) break;
        ThrowIfInterrupted();
        if (remaining == 0xFFFFFFFFu) continue;
        if (!ShrinkRemaining(start, remaining)) return URET_Timeout;
    }
    for (unsigned int k = 0; k < nFds; ++k) list[where[nObjects + k]].GetCB()->SetPollResult(fds[k].revents);
    const bool masked = list.MaskedCount() != 0;
    if (masked && waitAll) {
        for (size_t i = 0; i < count; ++i)
            if (list[i].GetMask() != 0) list[i].GetCB()->SignaledAfterWait(list[i].GetMask());
    }
    const unsigned int k = r >= Posix::WR_Abandoned0 && r < Posix::WR_IoCompletion ? r - Posix::WR_Abandoned0
                                                                                    : r - Posix::WR_Object0;
    const unsigned int n = where[k];
    if (masked && !waitAll && list[n].GetMask() != 0) list[n].GetCB()->SignaledAfterWait(list[n].GetMask());
    return n + 1;
}

unsigned int CThreadCB::WaitDescriptor(int fd, short events, short& revents, unsigned int timeout) {
    ThrowIfInterrupted();
    pollfd one;
    one.fd = fd;
    one.events = events;
    one.revents = 0;
    const unsigned long long start = timeout != 0xFFFFFFFFu ? Functions::GetTickTime(1000) : 0;
    unsigned int remaining = timeout;
    for (;;) {
        const unsigned int r = Posix::WaitForDescriptor(m_WaitContext, one, remaining);
        if (r == Posix::WR_Object0) {
            revents = one.revents;
            return URET_Ok;
        }
        if (r == Posix::WR_Timeout) return URET_Timeout;
        if (r != Posix::WR_IoCompletion) ThrowWaitFailed();
        ThrowIfInterrupted();
        if (remaining == 0xFFFFFFFFu) continue;
        if (!ShrinkRemaining(start, remaining)) return URET_Timeout;
    }
}

unsigned int CThreadCB::Sleep(unsigned int ms) {
    if (ms == 0) {
        Yield();
        return 1;
    }
    ThrowIfInterrupted();
    Threading::CWaitInterval interval(ms);
    for (;;) {
        const unsigned int left = ms == 0xFFFFFFFFu ? ms : static_cast<unsigned int>(interval);
        if (left == 0) return 1;
        if (Posix::SleepAlertable(m_WaitContext, left) == Posix::WR_Timeout) return 1;
        ThrowIfInterrupted();
    }
}

unsigned int CThreadCB::Wait(unsigned int timeout) {
    // A block that never started a thread has nothing to wait for.
    if (!m_pHandle) return URET_Ok;
    return Current().Wait(m_pHandle, timeout);
}

// ---- starting and running threads ---------------------------------------------------------

unsigned int CThreadCB::Create(Delegates_and_Calls::CDelegate function, bool suspended) {
    m_Function = std::move(function);
    return CThreadCB_::Create(suspended);
}

void CThreadCB::CNameSink::SignalFormatEnd() {
    CStringStreamBuffer::SignalFormatEnd();
    if (m_pOwner && m_pOwner == t_pCurrent) SetOsThreadName(m_pOwner->m_Name.C_Str());
}

void CThreadCB::Run() {
    t_pCurrent = this;
    SetIntrMask(Threading::CCurrentThread::ThreadAndUserInterrupt);
    m_iRandomSeed = static_cast<int>(GetThreadId() + static_cast<unsigned int>(Functions::GetTickTime()));
    if (m_iRandomSeed <= 0) m_iRandomSeed = (m_iRandomSeed & 0x7FFFFFFF) | 1;

    Delegates_and_Calls::CDelegate::CCbBase* cb = m_Function.GetCB();
    if (cb) {
        Threading::CThrowState state;
        try {
            cb->m_ErrorLog.Clear();
            cb->Call();
        } catch (const Exceptions::CKelException&) {
            state.EndException(KEL_SITE());
            Exceptions::CErrorLog& log = m_ThrowState.m_Log;
            cb->m_ErrorLog = log;
            KEL_TRACE(KEL_MODULE_INFO_KelLib, 0x40000000, "KEL::Internals::Windows::CThreadCB_::Run",
                      "QUIETSCH, Thread 0x%x has terminated with exception!!!\n\n%S")
                << GetThreadId() << log;
            try {
                cb->Failed();
            } catch (...) {
            }
        } catch (...) {
            // A foreign exception ends the thread as an OS exception would; the process goes on.
            KEL_TRACE(KEL_MODULE_INFO_KelLib, 0x40000000, "KEL::Internals::Windows::CThreadCB_::Run",
                      "QUITSCH, thread has terminated with Win32 exception!");
        }
    }
    {
        CIntrHold hold;
        SetIntrMaskLocked(0);
    }
    SignalEnd();
    t_pCurrent = nullptr;
    Release();
}

} // namespace Internals

// ---- control-block bases ------------------------------------------------------------------

namespace Internals {
namespace Posix {

CWaitCB::~CWaitCB() = default;

unsigned int CWaitCB::Wait(unsigned int timeout) { return CThreadCB::Current().Wait(m_pHandle, timeout); }
unsigned int CWaitCB::SetMask(unsigned int) { return 1; }
unsigned int CWaitCB::SignaledAfterWait(unsigned int) { return 1; }

CWaitInterruptCB::~CWaitInterruptCB() = default;

unsigned int CWaitInterruptCB::Set() {
    g_InterruptLock.Enter();
    if (!m_uSignalled) {
        m_uSignalled = 1;
        for (CWaitBlock* b = m_Blocks.Start(); b; b = b->Next()) {
            CThreadCB* t = b->m_pThread;
            const unsigned int bit = t->m_pUserInterrupt == this ? Threading::CCurrentThread::UserInterruptOnly
                                                                  : Threading::CCurrentThread::ThreadInterruptOnly;
            t->m_uPendingInterrupts.fetch_or(bit, std::memory_order_release);
            t->m_WaitContext.Alert();
        }
    }
    g_InterruptLock.Leave();
    return 1;
}

unsigned int CWaitInterruptCB::Reset() {
    g_InterruptLock.Enter();
    m_uSignalled = 0;
    g_InterruptLock.Leave();
    return 1;
}

bool CWaitInterruptCB::IsSignalled() const noexcept {
    g_InterruptLock.Enter();
    const bool on = m_uSignalled != 0;
    g_InterruptLock.Leave();
    return on;
}

} // namespace Posix
} // namespace Internals

// ---- the public views ---------------------------------------------------------------------

namespace Threading {

using Internals::CThreadCB;

CCurrentThread::CCurrentThread() : m_pTCB(&CThreadCB::Current()) {}
Exceptions::CErrorLog& CCurrentThread::GetErrorLog() noexcept { return m_pTCB->m_ThrowState.m_Log; }
Strings::CStringRef CCurrentThread::GetThreadName() const noexcept { return m_pTCB->m_Name; }
unsigned int CCurrentThread::GetLngId() const noexcept { return m_pTCB->m_uLngId; }
void CCurrentThread::SetLngId(unsigned int languageId) noexcept { m_pTCB->m_uLngId = languageId; }
unsigned int CCurrentThread::GetThreadID() const noexcept { return m_pTCB->GetThreadId(); }

Output_Streams::CFormatStream CCurrentThread::SetThreadName(const char* format) {
    m_pTCB->m_Name = Misc::Null;
    m_pTCB->m_NameSink.Init(&m_pTCB->m_Name);
    return Output_Streams::CFormatStream(m_pTCB->m_NameSink, format);
}

unsigned int CCurrentThread::Sleep(unsigned int ms) {
    return Exceptions::Guarded(KEL_SITE(), [&] { return m_pTCB->Sleep(ms); });
}

int CCurrentThread::LCG_Rand() noexcept {
    // Park-Miller minimal standard, Schrage's method: no intermediate passes 31 bits.
    int seed = m_pTCB->m_iRandomSeed;
    const int hi = seed / 127773;
    const int lo = seed % 127773;
    int next = 16807 * lo - 2836 * hi;
    if (next < 1) next += 2147483647;
    m_pTCB->m_iRandomSeed = next;
    return next;
}

unsigned int CCurrentThread::GetInterruptMask() const noexcept { return m_pTCB->GetIntrMask(); }

unsigned int CCurrentThread::SetInterruptMask(unsigned int mask) { return m_pTCB->SetIntrMask(mask); }

unsigned int CCurrentThread::EnableInterrupt(CSyncGuard* guard, unsigned int kinds) {
    m_pTCB->SetIntrMask(guard, kinds);
    return 1;
}

unsigned int CCurrentThread::DisableInterrupt(CSyncGuard* guard, unsigned int kinds) {
    m_pTCB->SetIntrMask(guard, (kinds ^ ThreadAndUserInterrupt) & ThreadAndUserInterrupt);
    return 1;
}

unsigned int CCurrentThread::CheckInterrupt() {
    return Exceptions::Guarded(KEL_SITE(), [&] { return m_pTCB->CheckInterrupt(); });
}

unsigned int CCurrentThread::ClearInterrupt(unsigned int kinds) { return m_pTCB->ClearInterrupt(kinds); }

CWaitInterrupt CCurrentThread::SetWaitInterrupt(const CWaitInterrupt& interrupt) {
    return CWaitInterrupt(m_pTCB->SetUserIntr(interrupt.GetCB()));
}

CWaitInterrupt CCurrentThread::SetWaitInterrupt(const CWaitInterrupt* interrupt) {
    return CWaitInterrupt(m_pTCB->SetUserIntr(interrupt ? interrupt->GetCB() : nullptr));
}

// ---- CThread ------------------------------------------------------------------------------

namespace {
// Whether the thread of `cb` still runs (a zero-time wait does not see its end).
bool StillRunning(CThreadCB* cb) { return cb && cb->Wait(0) == URET_Timeout; }
} // namespace

unsigned int CThread::initialize() {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        if (StillRunning(m_pCB)) KEL_RAISE(0x20010031u, "Thread is still running (id=%d)", m_pCB->GetThreadId());
        Adopt(new CThreadCB());
        return 1u;
    });
}

unsigned int CThread::Create(Delegates_and_Calls::CDelegate function, bool suspended) {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        if (StillRunning(m_pCB)) KEL_RAISE(0x20010031u, "Thread is still running (id=%d)", m_pCB->GetThreadId());
        Adopt(new CThreadCB());
        try {
            m_pCB->Create(std::move(function), suspended);
        } catch (const Exceptions::CKelException& e) {
            if (e.GetCode() != 0x20010031u) Drop();
            throw;
        }
        return 1u;
    });
}

unsigned int CThread::Wait(unsigned int timeout) {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        if (!m_pCB) KEL_RAISE(0x20010018u, "Thread not initialized");
        return m_pCB->Wait(timeout);
    });
}

unsigned int CThread::Cancel() {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        if (!m_pCB) KEL_RAISE(0x20010033u, "No thread started");
        return m_pCB->m_ThreadInterrupt.Set();
    });
}

unsigned int CThread::Suspend() {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        if (!m_pCB) KEL_RAISE(0x20010033u, "No thread started");
        // The test is inverted on purpose: only a thread whose end is signalled gets past it.
        if (m_pCB->Wait(0) != URET_Ok) KEL_RAISE(0x20010034u, "Thread already stopped");
        return 1u;
    });
}

unsigned int CThread::Resume() {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        if (!m_pCB) KEL_RAISE(0x20010033u, "No thread started");
        if (m_pCB->Wait(0) != URET_Ok) KEL_RAISE(0x20010034u, "Thread already stopped");
        m_pCB->OpenStartGate();
        return 1u;
    });
}

unsigned int CThread::GetThreadID() const { return m_pCB ? m_pCB->GetThreadId() : 0u; }

CThread::operator CWaitHandle() const noexcept { return CWaitHandle(m_pCB, 0); }

// ---- CInterruptGuard ----------------------------------------------------------------------

CInterruptGuard::CInterruptGuard() : m_pTCB(&CThreadCB::Current()) {}

CInterruptGuard::~CInterruptGuard() {
    if (m_uSavedMask == 0) return;
    m_Previous = CWaitInterrupt(m_pTCB->SetUserIntr(m_Previous.GetCB()));
    m_pTCB->SetIntrMask(m_uSavedMask);
}

unsigned int CInterruptGuard::SetWaitInterrupt(CWaitInterrupt& interrupt) {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        m_uSavedMask = m_pTCB->GetIntrMask();
        m_Previous = CWaitInterrupt(m_pTCB->SetUserIntr(interrupt.GetCB()));
        m_pTCB->SetIntrMask(m_uSavedMask | CCurrentThread::UserInterruptOnly);
        return m_pTCB->CheckInterrupt();
    });
}

} // namespace Threading
} // namespace KEL
