// kelbase - Src/Posix/ThreadCB_Posix.h
//
// The platform part of a thread control block: the thread's wait context (parker and owned
// mutexes), the object that is signalled when the thread ends, and starting a thread.
#pragma once

#include <kel/Threading.h>

#include "Posix/Dispatcher.h"

#include <atomic>

namespace KEL {
namespace Internals {
namespace Posix {

class CThreadCB_ : public CWaitCB {
public:
    CThreadCB_() noexcept = default;
    ~CThreadCB_() override;

    /// Starts a thread that runs Run() with this block; the block gains one reference for the
    /// thread. Held at its start gate when `suspended`. 0x20010032 when no thread can be made.
    unsigned int Create(bool suspended);
    /// Opens the start gate of a thread created suspended (nothing for any other).
    void OpenStartGate() noexcept;
    /// The body of a started thread (after the start gate).
    virtual void Run() = 0;

    /// Gives the calling thread's name (its first 15 characters) to the operating system.
    static void SetOsThreadName(const char* name) noexcept;
    /// The calling thread's kernel id.
    static unsigned int CurrentThreadId() noexcept;
    /// Yields the processor.
    static void Yield() noexcept;

    CWaitContext m_WaitContext;

protected:
    /// Marks the thread as ended: abandons its mutexes and signals the end object.
    void SignalEnd() noexcept;
    std::atomic<unsigned int> m_uThreadId{0};

private:
    static void* Start(void* self);
    CDispatcher* m_pEnd = nullptr;       ///< manual-reset event, signalled at the thread's end
    std::atomic<uint32_t> m_uGate{0};    ///< 0 closed, 1 open
    std::atomic<uint32_t> m_uStarted{0}; ///< 1 once the new thread has written its id
};

} // namespace Posix
} // namespace Internals
} // namespace KEL
