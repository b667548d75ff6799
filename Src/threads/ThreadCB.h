// kelbase - Src/threads/ThreadCB.h
//
// The per-thread control block: every thread that runs library code owns one, found through a
// single thread-local slot. Threads the library did not start get theirs on first use and give
// it back when they exit.
#pragma once

#include <kel/Exceptions.h>
#include <kel/Strings.h>

namespace KEL {
namespace Internals {

/// The per-thread part of the throw state: the thread's throw mode and its current error log.
struct CThrowStateData {
    unsigned int m_uThrow = 0;
    Exceptions::CErrorLog m_Log;
};

class CThreadCB {
public:
    CThreadCB();
    ~CThreadCB();
    CThreadCB(const CThreadCB&) = delete;
    CThreadCB& operator=(const CThreadCB&) = delete;

    /// The calling thread's block, created on first use (the thread-exit hook releases it).
    static CThreadCB& Current();
    /// The calling thread's block if it has one, else null; never creates.
    static CThreadCB* Peek() noexcept;

    unsigned int m_uThreadId = 0;
    int m_iRandomSeed = 1;
    unsigned int m_uLngId = 0;
    CThrowStateData m_ThrowState;
    Strings::TString<71> m_Name;
};

} // namespace Internals
} // namespace KEL
