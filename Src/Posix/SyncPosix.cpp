// kelbase - Src/Posix/SyncPosix.cpp
//
// The native synchronisation objects: the spinning recursive lock, the lightweight mutex and
// event over dispatcher objects, the control blocks of the shareable objects, and TLS indexes.
#define KEL_SOURCE_FILE "Src/Posix"
#include <kel/Functions.h>
#include <kel/Threading.h>
#include <kel/Trace.h>

#include "Posix/Dispatcher.h"
#include "threads/ThreadCB.h"

#include <cerrno>
#include <climits>
#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace KEL {

namespace Internals {
namespace Posix {
namespace {

inline uintptr_t Self() noexcept { return static_cast<uintptr_t>(::pthread_self()); }

inline void CpuRelax() noexcept {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
}

int FutexWait(std::atomic<int>& word, int expected) noexcept {
    return static_cast<int>(::syscall(SYS_futex, reinterpret_cast<int*>(&word), FUTEX_WAIT_PRIVATE, expected, nullptr,
                                      nullptr, 0));
}

void FutexWake(std::atomic<int>& word) noexcept {
    ::syscall(SYS_futex, reinterpret_cast<int*>(&word), FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

} // namespace

// ---- control blocks -----------------------------------------------------------------------

CEventCB::~CEventCB() {
    if (m_pHandle) m_pHandle->Release();
}

unsigned int CEventCB::Init(bool manualReset, bool initialState) {
    if (m_pHandle) KEL_RAISE(0x20010038u, "Event already initialized");
    m_pHandle = CDispatcher::NewEvent(manualReset, initialState);
    return 1;
}

unsigned int CEventCB::Init(void* handle) {
    if (m_pHandle) KEL_RAISE(0x20010038u, "Event already initialized");
    if (!handle) {
        errno = EBADF;
        KEL_RAISE_NATIVE(0x20010039u, Functions::GetOsError(), "Can't duplicate handle");
    }
    CDispatcher* shared = static_cast<CDispatcher*>(handle);
    shared->AddRef();
    m_pHandle = shared;
    return 1;
}

unsigned int CEventCB::Set() {
    if (!m_pHandle) KEL_RAISE(0x20010018u, "Event not initialized");
    m_pHandle->SetEvent();
    return 1;
}

unsigned int CEventCB::Reset() {
    if (!m_pHandle) KEL_RAISE(0x20010018u, "Event not initialized");
    m_pHandle->ResetEvent();
    return 1;
}

CMutexCB::~CMutexCB() {
    if (m_pHandle) m_pHandle->Release();
}

unsigned int CMutexCB::Init(bool initialOwner) {
    if (m_pHandle) KEL_RAISE(0x20010038u, "Mutex already initialized");
    m_pHandle = CDispatcher::NewMutex(initialOwner ? &CThreadCB::Current().m_WaitContext : nullptr);
    return 1;
}

unsigned int CMutexCB::Release() {
    if (!m_pHandle) KEL_RAISE(0x20010018u, "Mutex not initialized");
    // A release by a thread that does not own the mutex is ignored, as the original did.
    (void)m_pHandle->ReleaseMutex(CThreadCB::Current().m_WaitContext);
    return 1;
}

CSemaphoreCB::~CSemaphoreCB() {
    if (m_pHandle) m_pHandle->Release();
}

unsigned int CSemaphoreCB::Init(unsigned int initial, unsigned int maximum) {
    if (m_pHandle) KEL_RAISE(0x20010038u, "Semaphore already initialized");
    if (maximum == 0 || maximum > static_cast<unsigned int>(INT_MAX) || initial > maximum) {
        errno = EINVAL;
        KEL_RAISE_NATIVE(0x20010039u, Functions::GetOsError(), "Can't create semaphore (initial=%d, maximum=%d)",
                         initial, maximum);
    }
    m_pHandle = CDispatcher::NewSemaphore(static_cast<int>(initial), static_cast<int>(maximum));
    return 1;
}

unsigned int CSemaphoreCB::Release() {
    if (!m_pHandle) KEL_RAISE(0x20010018u, "Semaphore not initialized");
    if (!m_pHandle->ReleaseSemaphore(1, nullptr))
        KEL_RAISE_NATIVE(0x2001001Au, Functions::GetOsError(), "ReleaseSemaphore failed");
    return 1;
}

} // namespace Posix
} // namespace Internals

namespace Threading {
namespace Native_OS {

// ---- CCriticalSection ---------------------------------------------------------------------

CCriticalSection::~CCriticalSection() = default;

unsigned int CCriticalSection::Init(unsigned int spinCount) {
    if (m_uUninitialised.load(std::memory_order_acquire) == 0) return 1;
    m_uSpin.store(spinCount, std::memory_order_relaxed);
    m_uUninitialised.store(0, std::memory_order_release);
    return 1;
}

void CCriticalSection::Lock() noexcept {
    int expected = 0;
    if (m_iState.compare_exchange_strong(expected, 1, std::memory_order_acquire, std::memory_order_relaxed)) return;
    for (unsigned int spin = m_uSpin.load(std::memory_order_relaxed); spin != 0; --spin) {
        Internals::Posix::CpuRelax();
        expected = 0;
        if (m_iState.load(std::memory_order_relaxed) == 0 &&
            m_iState.compare_exchange_weak(expected, 1, std::memory_order_acquire, std::memory_order_relaxed))
            return;
    }
    // State 2 tells the holder that somebody sleeps and must be woken.
    while (m_iState.exchange(2, std::memory_order_acquire) != 0) Internals::Posix::FutexWait(m_iState, 2);
}

unsigned int CCriticalSection::Enter(CSyncGuard* guard) {
    if (m_uUninitialised.load(std::memory_order_relaxed)) Init(0);
    const uintptr_t self = Internals::Posix::Self();
    if (m_Owner.load(std::memory_order_relaxed) == self) {
        ++m_nRecursion;
    } else {
        Lock();
        m_Owner.store(self, std::memory_order_relaxed);
        m_nRecursion = 1;
    }
    Internals::CSyncObject::SetRestoreFn(guard, Delegates_and_Calls::TFastDelegateR<unsigned int>(
                                                    this, &CCriticalSection::Leave));
    return 1;
}

unsigned int CCriticalSection::TryEnter(CSyncGuard* guard) {
    if (m_uUninitialised.load(std::memory_order_relaxed)) Init(0);
    const uintptr_t self = Internals::Posix::Self();
    if (m_Owner.load(std::memory_order_relaxed) == self) {
        ++m_nRecursion;
    } else {
        // Looked at before the exchange: a caller that tries in a loop then only reads the
        // word while it is held, and does not take its cache line away from the holder.
        int expected = 0;
        if (m_iState.load(std::memory_order_relaxed) != 0 ||
            !m_iState.compare_exchange_strong(expected, 1, std::memory_order_acquire, std::memory_order_relaxed))
            return URET_Timeout;
        m_Owner.store(self, std::memory_order_relaxed);
        m_nRecursion = 1;
    }
    Internals::CSyncObject::SetRestoreFn(guard, Delegates_and_Calls::TFastDelegateR<unsigned int>(
                                                    this, &CCriticalSection::Leave));
    return 1;
}

unsigned int CCriticalSection::Leave() {
    if (m_uUninitialised.load(std::memory_order_relaxed)) return 1;
    if (m_Owner.load(std::memory_order_relaxed) != Internals::Posix::Self()) return 1;
    if (--m_nRecursion != 0) return 1;
    m_Owner.store(0, std::memory_order_relaxed);
    if (m_iState.exchange(0, std::memory_order_release) == 2) Internals::Posix::FutexWake(m_iState);
    return 1;
}

unsigned int CCriticalSection::SetSpinCount(unsigned int spin, unsigned int* previous) {
    if (m_uUninitialised.load(std::memory_order_acquire) == 0) {
        unsigned int old = m_uSpin.exchange(spin, std::memory_order_relaxed);
        if (previous) *previous = old;
        return 1;
    }
    if (previous) *previous = 0;
    return Init(spin);
}

// ---- CFastMutex ---------------------------------------------------------------------------

CFastMutex::~CFastMutex() {
    if (m_pHandle) m_pHandle->Release();
    delete m_pGate;
}

unsigned int CFastMutex::Init() {
    if (!m_uUninitialised) return 1;
    m_pHandle = Internals::Posix::CDispatcher::NewMutex(nullptr);
    m_uUninitialised = 0;
    return 1;
}

unsigned int CFastMutex::InitForReadWrite() {
    m_iReaders = 0;
    if (!m_pGate) m_pGate = new CFastMutex();
    unsigned int status = m_pGate->Init();
    Init();
    return status;
}

unsigned int CFastMutex::Wait(CSyncGuard* guard, unsigned int timeout) {
    // The uncontended case: no lock, no system call, nothing that can fail.
    Internals::CThreadCB* cb = Internals::CThreadCB::Peek();
    unsigned int fast;
    if (!m_uUninitialised && cb && !cb->InterruptRaised() && m_pHandle->TryAcquireMutexFast(cb->m_WaitContext, fast)) {
        Internals::CSyncObject::SetRestoreFn(guard,
                                             Delegates_and_Calls::TFastDelegateR<unsigned int>(this, &CFastMutex::Release));
        return fast == Internals::Posix::WR_Object0 ? URET_Ok : URET_Abandoned;
    }
    return Exceptions::Guarded(KEL_SITE(), [&]() -> unsigned int {
        if (m_uUninitialised) KEL_RAISE(0x20010018u, "Mutex not initialized");
        unsigned int status = Internals::CThreadCB::Current().Wait(m_pHandle, timeout);
        if (status == URET_Timeout)
            Internals::CSyncObject::SetRestoreFn(guard, Delegates_and_Calls::TFastDelegateR<unsigned int>(&CSyncGuard::Nop));
        else
            Internals::CSyncObject::SetRestoreFn(guard,
                                                 Delegates_and_Calls::TFastDelegateR<unsigned int>(this, &CFastMutex::Release));
        return status;
    });
}

unsigned int CFastMutex::Release() {
    if (!m_uUninitialised) {
        if (Internals::CThreadCB* cb = Internals::CThreadCB::Peek()) {
            (void)m_pHandle->ReleaseMutex(cb->m_WaitContext);
            return 1;
        }
    }
    return Exceptions::Guarded(KEL_SITE(), [&]() -> unsigned int {
        if (m_uUninitialised) KEL_RAISE(0x20010018u, "Mutex not initialized");
        (void)m_pHandle->ReleaseMutex(Internals::CThreadCB::Current().m_WaitContext);
        return 1;
    });
}

unsigned int CFastMutex::WaitForRead(CSyncGuard* guard, unsigned int timeout) {
    return Exceptions::Guarded(KEL_SITE(), [&]() -> unsigned int {
        if (!m_pGate) return Wait(guard, timeout);
        unsigned int status = m_pGate->Wait(timeout);
        if (status != 1) {
            Internals::CSyncObject::SetRestoreFn(guard, Delegates_and_Calls::TFastDelegateR<unsigned int>(&CSyncGuard::Nop));
            return status;
        }
        status = 1;
        try {
            if (++m_iReaders == 1) {
                status = Wait(timeout);
                // A time-out, or a failure handed back as a status: the reader never entered.
                if (status != URET_Ok && status != URET_Abandoned) {
                    --m_iReaders;
                    Internals::CSyncObject::SetRestoreFn(
                        guard, Delegates_and_Calls::TFastDelegateR<unsigned int>(&CSyncGuard::Nop));
                } else {
                    Internals::CSyncObject::SetRestoreFn(
                        guard, Delegates_and_Calls::TFastDelegateR<unsigned int>(this, &CFastMutex::ReadRelease));
                }
            }
        } catch (...) {
            // An interrupt while the first reader waits: the reader never entered.
            --m_iReaders;
            m_pGate->Release();
            throw;
        }
        m_pGate->Release();
        return status;
    });
}

unsigned int CFastMutex::ReadRelease() {
    return Exceptions::Guarded(KEL_SITE(), [&]() -> unsigned int {
        if (!m_pGate) return Release();
        unsigned int status = m_pGate->Wait(0xFFFFFFFFu);
        if (status != 1) return status;
        status = 1;
        if (--m_iReaders == 0) status = Release();
        m_pGate->Release();
        return status;
    });
}

// ---- CFastEvent ---------------------------------------------------------------------------

CFastEvent::~CFastEvent() {
    if (!m_uUninitialised && m_pHandle) {
        KEL_TRACE(KEL_MODULE_INFO_KelLib, 0x20, "KEL::Threading::Native_OS::CFastEvent::~CFastEvent",
                  "Before CloseHandle(x%x)")
            << m_pHandle->GetId();
        m_pHandle->Release();
    }
}

unsigned int CFastEvent::Init(unsigned int manualReset) {
    if (!m_uUninitialised) return 1;
    m_pHandle = Internals::Posix::CDispatcher::NewEvent(manualReset != 0, false);
    KEL_TRACE(KEL_MODULE_INFO_KelLib, 0x20, "KEL::Threading::Native_OS::CFastEvent::Init",
              "After CreateEvent handle=(x%x)")
        << m_pHandle->GetId();
    m_uUninitialised = 0;
    return 1;
}

unsigned int CFastEvent::Set() {
    return Exceptions::Guarded(KEL_SITE(), [&]() -> unsigned int {
        if (m_uUninitialised) KEL_RAISE(0x20010018u, "Event not initialized");
        m_pHandle->SetEvent();
        return 1;
    });
}

unsigned int CFastEvent::Reset() {
    return Exceptions::Guarded(KEL_SITE(), [&]() -> unsigned int {
        if (m_uUninitialised) KEL_RAISE(0x20010018u, "Event not initialized");
        m_pHandle->ResetEvent();
        return 1;
    });
}

unsigned int CFastEvent::Wait(unsigned int timeout) {
    return Exceptions::Guarded(KEL_SITE(), [&]() -> unsigned int {
        if (m_uUninitialised || !m_pHandle) KEL_RAISE(0x20010018u, "Event not initialized");
        const unsigned int id = m_pHandle->GetId();
        KEL_TRACE(KEL_MODULE_INFO_KelLib, 0x20, "KEL::Threading::Native_OS::CFastEvent::Wait", "Before Tcb->Wait(x%x, x%x)")
            << id << timeout;
        unsigned int status = Internals::CThreadCB::Current().Wait(m_pHandle, timeout);
        KEL_TRACE(KEL_MODULE_INFO_KelLib, 0x20, "KEL::Threading::Native_OS::CFastEvent::Wait",
                  "After Tcb->Wait(x%x, x%x)=%d")
            << id << timeout << status;
        return status;
    });
}

} // namespace Native_OS

// ---- CTls ---------------------------------------------------------------------------------

CTls::~CTls() {
    if (m_uIndex != NotAllocated) ::pthread_key_delete(static_cast<pthread_key_t>(m_uIndex));
}

unsigned int CTls::Init() {
    return Exceptions::Guarded(KEL_SITE(), [&]() -> unsigned int {
        if (m_uIndex != NotAllocated) return 1;
        pthread_key_t key;
        int rc = ::pthread_key_create(&key, nullptr);
        if (rc != 0) {
            errno = rc;
            KEL_RAISE_NATIVE(0x20010030u, Functions::GetOsError(), "Can't allocated thread local storage");
        }
        m_uIndex = static_cast<unsigned int>(key);
        return 1;
    });
}

void* CTls::GetValue() const noexcept {
    return m_uIndex == NotAllocated ? nullptr : ::pthread_getspecific(static_cast<pthread_key_t>(m_uIndex));
}

void CTls::SetValue(void* value) {
    if (m_uIndex == NotAllocated) Init();
    int rc = ::pthread_setspecific(static_cast<pthread_key_t>(m_uIndex), value);
    if (rc != 0) {
        errno = rc;
        KEL_RAISE_NATIVE(0x20010030u, Functions::GetOsError(), "Can't set thread local storage");
    }
}

} // namespace Threading
} // namespace KEL
