// kelbase - Src/threads/WaitList.cpp
//
// Guards, wait lists and the shareable object handles: the parts of the wait machinery that
// need no operating system.
#define KEL_SOURCE_FILE "Src/threads"
#include <kel/Functions.h>
#include <kel/Threading.h>

#include "threads/ThreadCB.h"

namespace KEL {
namespace Internals {

void CSyncObject::SetRestoreFn(Threading::CSyncGuard* guard,
                               const Delegates_and_Calls::TFastDelegateR<unsigned int>& fn) {
    if (guard) guard->SetRestoreFn(fn);
}

// ---- CWaitList ----------------------------------------------------------------------------

CWaitList::~CWaitList() {
    Clear();
    if (m_pEntries != m_Inline) delete[] m_pEntries;
}

void CWaitList::Clear() noexcept {
    for (uint64_t i = 0; i < m_nCount; ++i) m_pEntries[i].Detach();
    m_nCount = 0;
    m_nMasked = 0;
}

void CWaitList::Append(const Threading::CWaitHandle& handle) {
    if (m_nCount == 16 && m_pEntries == m_Inline) {
        Threading::CWaitHandle* heap = new Threading::CWaitHandle[Posix::kMaxWaitObjects];
        for (size_t i = 0; i < 16; ++i) {
            heap[i] = m_Inline[i];
            m_Inline[i].Detach();
        }
        m_pEntries = heap;
    }
    m_pEntries[m_nCount] = handle;
    ++m_nCount;
    if (handle.GetMask() != 0) ++m_nMasked;
}

} // namespace Internals

namespace Threading {

using Internals::CThreadCB;

// ---- CSyncGuard ---------------------------------------------------------------------------

CSyncGuard::~CSyncGuard() {
    try {
        Restore();
    } catch (const Exceptions::CKelException&) {
        // A destructor must not throw: the failure stays in the thread's error log.
        CThrowState state;
        state.EndException(KEL_SITE());
    } catch (...) {
    }
}

unsigned int CSyncGuard::Restore() {
    Delegates_and_Calls::TFastDelegateR<unsigned int> fn = m_Restore;
    m_Restore = Delegates_and_Calls::TFastDelegateR<unsigned int>(&CSyncGuard::Nop);
    return fn();
}

// ---- CWaiter ------------------------------------------------------------------------------

CWaiter& CWaiter::operator<<(const CWaitHandle& handle) {
    CThrowState state;
    try {
        if (m_uErrorFlag) KEL_RAISE(0x20010035u, "Object already in error state");
        if (!handle.GetCB()) KEL_RAISE(0x20010018u, "current count=%d", m_List.Count());
        if (m_List.Count() >= Internals::Posix::kMaxWaitObjects) KEL_RAISE(0x20010036u, "Max count reached");
        m_List.Append(handle);
    } catch (const Exceptions::CKelException&) {
        state.ThrowNext(KEL_SITE());
        m_uErrorFlag = 1;
    } catch (const std::bad_alloc&) {
        m_uErrorFlag = 1;
        throw;
    }
    return *this;
}

unsigned int CWaiter::Wait(unsigned int timeout, bool waitAll) {
    CThrowState state;
    try {
        return CThreadCB::Current().Wait(m_List, timeout, waitAll);
    } catch (const Exceptions::CKelException&) {
        m_uErrorFlag = 0;
        return state.ThrowNext(KEL_SITE());
    }
}

void CWaiter::Clear() noexcept {
    m_uErrorFlag = 0;
    m_List.Clear();
}

// ---- CWaitInterval ------------------------------------------------------------------------

CWaitInterval::CWaitInterval(unsigned int interval) noexcept
    : m_uInterval(interval), m_uStart(Functions::GetTickTime(1000)) {}

CWaitInterval::operator unsigned int() const noexcept {
    const unsigned long long elapsed = Functions::GetTickTime(1000) - m_uStart;
    return elapsed >= m_uInterval ? 0u : m_uInterval - static_cast<unsigned int>(elapsed);
}

void CWaitInterval::Restart() noexcept { m_uStart = Functions::GetTickTime(1000); }

void CWaitInterval::Restart(unsigned int interval) noexcept {
    m_uInterval = interval;
    Restart();
}

// ---- handles ------------------------------------------------------------------------------

namespace {
using Fn = Delegates_and_Calls::TFastDelegateR<unsigned int>;

template <class CB>
CB* NewBlock() {
    return new CB();
}
} // namespace

unsigned int CEvent::Init(bool manualReset, bool initialState) {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        if (m_pCB) return 1u;
        Adopt(NewBlock<Internals::Posix::CEventCB>());
        return m_pCB->Init(manualReset, initialState);
    });
}

unsigned int CEvent::Init(void* osHandle) {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        if (m_pCB) return 1u;
        Adopt(NewBlock<Internals::Posix::CEventCB>());
        return m_pCB->Init(osHandle);
    });
}

unsigned int CEvent::Set() {
    return Exceptions::Guarded(KEL_SITE(), [&] { return m_pCB->Set(); });
}

unsigned int CEvent::Reset() {
    return Exceptions::Guarded(KEL_SITE(), [&] { return m_pCB->Reset(); });
}

unsigned int CEvent::Wait(unsigned int timeout) {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        if (!m_pCB) KEL_RAISE(0x20010018u, "Event not initialized");
        return m_pCB->Wait(timeout);
    });
}

unsigned int CMutex::Init(bool initialOwner) {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        if (m_pCB) return 1u;
        Adopt(NewBlock<Internals::Posix::CMutexCB>());
        return m_pCB->Init(initialOwner);
    });
}

unsigned int CMutex::Release() {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        if (!m_pCB) KEL_RAISE(0x20010018u, "Mutex not initialized");
        return m_pCB->Release();
    });
}

unsigned int CMutex::Wait(CSyncGuard* guard, unsigned int timeout) {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        if (!m_pCB) KEL_RAISE(0x20010018u, "Mutex not initialized");
        const unsigned int status = m_pCB->Wait(timeout);
        if (status == URET_Timeout)
            Internals::CSyncObject::SetRestoreFn(guard, Fn(&CSyncGuard::Nop));
        else
            Internals::CSyncObject::SetRestoreFn(guard, Fn(this, &CMutex::Release));
        return status;
    });
}

unsigned int CSemaphore::Init(unsigned int initial, unsigned int maximum) {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        if (m_pCB) return 1u;
        Adopt(NewBlock<Internals::Posix::CSemaphoreCB>());
        return m_pCB->Init(initial, maximum);
    });
}

unsigned int CSemaphore::Release() {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        if (!m_pCB) KEL_RAISE(0x20010018u, "Semaphore not initialized");
        return m_pCB->Release();
    });
}

unsigned int CSemaphore::Wait(CSyncGuard* guard, unsigned int timeout) {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        if (!m_pCB) KEL_RAISE(0x20010018u, "Semaphore not initialized");
        const unsigned int status = m_pCB->Wait(timeout);
        if (status == URET_Timeout)
            Internals::CSyncObject::SetRestoreFn(guard, Fn(&CSyncGuard::Nop));
        else
            Internals::CSyncObject::SetRestoreFn(guard, Fn(this, &CSemaphore::Release));
        return status;
    });
}

unsigned int CWaitInterrupt::Init() {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        if (m_pCB) KEL_RAISE(0x20010038u, "Wait interrupt already initialized");
        Adopt(NewBlock<Internals::Posix::CWaitInterruptCB>());
        return 1u;
    });
}

unsigned int CWaitInterrupt::Set() {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        if (!m_pCB) KEL_RAISE(0x20010018u, "Wait interrupt not initialized");
        return m_pCB->Set();
    });
}

unsigned int CWaitInterrupt::Reset() {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        if (!m_pCB) KEL_RAISE(0x20010018u, "Wait interrupt not initialized");
        return m_pCB->Reset();
    });
}

} // namespace Threading
} // namespace KEL
