// kelbase - Threading.h
//
// Threads, synchronisation objects, waits and interrupts (KEL::Threading).
//
// Every thread that calls into the library owns a control block, found through one thread-local
// slot and created on first use for threads the library did not start. CCurrentThread is the
// calling thread's view of its own block: its name, language, error log and throw state.
#pragma once

#include <kel/Exceptions.h>

namespace KEL {
namespace Internals {
class CThreadCB;
}
namespace Threading {

/// The calling thread's view of its own control block.
class KEL_API CCurrentThread {
public:
    CCurrentThread();

    /// The thread's error log: what the last failure on this thread recorded.
    Exceptions::CErrorLog& GetErrorLog() noexcept;
    /// The thread's name, "undefined" until set.
    Strings::CStringRef GetThreadName() const noexcept;
    /// The thread's language id (0 = not set, read as English).
    unsigned int GetLngId() const noexcept;
    void SetLngId(unsigned int languageId) noexcept;
    /// The operating system's id of the thread.
    unsigned int GetThreadID() const noexcept;
    Internals::CThreadCB* operator->() const noexcept { return m_pTCB; }

private:
    Internals::CThreadCB* m_pTCB;
};

} // namespace Threading
} // namespace KEL
