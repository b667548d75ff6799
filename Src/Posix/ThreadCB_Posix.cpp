// kelbase - Src/Posix/ThreadCB_Posix.cpp
//
// Threads on pthreads: a new thread reports its kernel id, waits at its start gate when it was
// created suspended, then runs the block's body.
#define KEL_SOURCE_FILE "Src/Posix"
#include "Posix/ThreadCB_Posix.h"

#include <kel/Functions.h>

#include <cerrno>
#include <cstring>
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace KEL {
namespace Internals {
namespace Posix {

CThreadCB_::~CThreadCB_() {
    if (m_pEnd) m_pEnd->Release();
}

unsigned int CThreadCB_::CurrentThreadId() noexcept { return static_cast<unsigned int>(::syscall(SYS_gettid)); }

void CThreadCB_::Yield() noexcept { ::sched_yield(); }

void CThreadCB_::SetOsThreadName(const char* name) noexcept {
    char shortName[16];
    std::strncpy(shortName, name ? name : "", sizeof shortName - 1);
    shortName[sizeof shortName - 1] = 0;
    ::pthread_setname_np(::pthread_self(), shortName);
}

void* CThreadCB_::Start(void* arg) {
    CThreadCB_* self = static_cast<CThreadCB_*>(arg);
    self->m_uThreadId.store(CurrentThreadId(), std::memory_order_relaxed);
    self->m_uStarted.store(1, std::memory_order_release);
    FutexWakeAll(self->m_uStarted);
    FutexWaitWhile(self->m_uGate, 0);
    self->Run();
    return nullptr;
}

unsigned int CThreadCB_::Create(bool suspended) {
    if (!m_pEnd) m_pEnd = CDispatcher::NewEvent(true, false);
    m_pHandle = m_pEnd;
    m_uGate.store(suspended ? 0 : 1, std::memory_order_relaxed);
    m_uStarted.store(0, std::memory_order_relaxed);
    AddRef(); // the thread's own reference
    pthread_attr_t attr;
    ::pthread_attr_init(&attr);
    ::pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t thread;
    int rc = ::pthread_create(&thread, &attr, &CThreadCB_::Start, this);
    ::pthread_attr_destroy(&attr);
    if (rc != 0) {
        Decr();
        m_pHandle = nullptr;
        errno = rc;
        KEL_RAISE_NATIVE(0x20010032u, Functions::GetOsError(), "Can't start thread");
    }
    // The id is part of the block once Create returns.
    FutexWaitWhile(m_uStarted, 0);
    return 1;
}

void CThreadCB_::OpenStartGate() noexcept {
    m_uGate.store(1, std::memory_order_release);
    FutexWakeAll(m_uGate);
}

void CThreadCB_::SignalEnd() noexcept {
    m_WaitContext.AbandonOwnedMutexes();
    if (m_pEnd) m_pEnd->SetEvent();
}

} // namespace Posix
} // namespace Internals
} // namespace KEL
