// kelbase - Src/threads/ThreadCB.cpp
//
// The thread-local slot of the control blocks and the exit hook for threads the library did
// not start.
#define KEL_SOURCE_FILE "Src/threads"
#include "threads/ThreadCB.h"

#include <kel/Threading.h>

#include <sys/syscall.h>
#include <unistd.h>

namespace KEL {
namespace Internals {

namespace {

thread_local CThreadCB* t_pCurrent = nullptr;

// Destroyed when the thread exits: releases a block the thread got on first use.
struct CForeignThreadReaper {
    bool armed = false;
    ~CForeignThreadReaper() {
        delete t_pCurrent;
        t_pCurrent = nullptr;
    }
};
thread_local CForeignThreadReaper t_Reaper;

} // namespace

CThreadCB::CThreadCB() : m_uThreadId(static_cast<unsigned int>(::syscall(SYS_gettid))), m_Name("undefined") {}

CThreadCB::~CThreadCB() = default;

CThreadCB& CThreadCB::Current() {
    CThreadCB* cb = t_pCurrent;
    if (cb) return *cb;
    cb = new CThreadCB();
    t_pCurrent = cb;
    t_Reaper.armed = true; // first use registers the exit hook for this thread
    return *cb;
}

CThreadCB* CThreadCB::Peek() noexcept { return t_pCurrent; }

} // namespace Internals

namespace Threading {

CCurrentThread::CCurrentThread() : m_pTCB(&Internals::CThreadCB::Current()) {}
Exceptions::CErrorLog& CCurrentThread::GetErrorLog() noexcept { return m_pTCB->m_ThrowState.m_Log; }
Strings::CStringRef CCurrentThread::GetThreadName() const noexcept { return m_pTCB->m_Name; }
unsigned int CCurrentThread::GetLngId() const noexcept { return m_pTCB->m_uLngId; }
void CCurrentThread::SetLngId(unsigned int languageId) noexcept { m_pTCB->m_uLngId = languageId; }
unsigned int CCurrentThread::GetThreadID() const noexcept { return m_pTCB->m_uThreadId; }

} // namespace Threading
} // namespace KEL
