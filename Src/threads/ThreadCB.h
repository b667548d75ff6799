// kelbase - Src/threads/ThreadCB.h
//
// The per-thread control block: every thread that runs library code owns one, found through a
// single thread-local slot. Threads the library did not start get theirs on first use and give
// it back when they exit. The block carries the thread's interrupt state, its waits, its name,
// language, random state, throw state and error log, and the function of a started thread.
#pragma once

#include <kel/Delegates.h>
#include <kel/Exceptions.h>
#include <kel/Strings.h>
#include <kel/Threading.h>

#include "Posix/ThreadCB_Posix.h"

#include <atomic>

namespace KEL {
namespace Internals {

/// The per-thread part of the throw state: the thread's throw mode and its current error log.
struct CThrowStateData {
    unsigned int m_uThrow = 0;
    Exceptions::CErrorLog m_Log;
};

/// The interrupt lock: a leaf lock that guards every interrupt's listener list and signalled
/// flag and every thread's mask, pending word and installed user interrupt.
Threading::Native_OS::CCriticalSection& InterruptLock() noexcept;

class CThreadCB : public Posix::CThreadCB_ {
public:
    CThreadCB();
    ~CThreadCB() override;

    /// The calling thread's block, created on first use (the thread-exit hook releases it).
    static CThreadCB& Current();
    /// The calling thread's block if it has one, else null; never creates.
    static CThreadCB* Peek() noexcept;
    /// The calling thread's block with one more reference.
    static CThreadCB* GetCurrent();
    /// Drops a reference; at 0 deletes the block and clears the slot when it is the caller's.
    void Release() noexcept;

    // ---- waits (every one of them interruptible) ----
    /// Waits for the thread's end: 1 ended (or never started), 130 still running.
    unsigned int Wait(unsigned int timeout) override;
    /// The single-object wait: 1, 65 or 130.
    unsigned int Wait(Posix::CDispatcher* object, unsigned int timeout);
    /// The list wait: n + 1 or 130.
    unsigned int Wait(CWaitList& list, unsigned int timeout, bool waitAll);
    /// The wait for one poll descriptor (a socket) without a list: 1 when it became ready
    /// (`revents` says how) or 130.
    unsigned int WaitDescriptor(int fd, short events, short& revents, unsigned int timeout);
    /// The interruptible sleep.
    unsigned int Sleep(unsigned int ms);

    // ---- interrupts ----
    /// Sets the mask exactly, linking and unlinking the wait blocks; returns the old mask.
    unsigned int SetIntrMask(unsigned int newMask);
    /// The same, arming `guard` to put the old mask back (for old masks 0 to 3).
    unsigned int SetIntrMask(Threading::CSyncGuard* guard, unsigned int newMask);
    /// Installs a user interrupt (null removes it); returns the previous one with the thread's
    /// reference on it.
    Posix::CWaitInterruptCB* SetUserIntr(Posix::CWaitInterruptCB* interrupt);
    /// Throws for a pending, enabled interrupt and narrows the mask to the raised kind.
    unsigned int CheckInterrupt();
    /// Throws for a pending, enabled interrupt, leaving the mask alone (what waits do).
    void ThrowIfInterrupted();
    unsigned int ClearInterrupt(unsigned int kinds);
    /// Marks `interrupt` pending on this thread (by the same rule as a Set) and wakes its wait.
    unsigned int PostWaitInterrupt(Posix::CWaitCB* interrupt);
    unsigned int GetIntrMask() const noexcept { return m_uInterruptMask; }
    /// Whether a wait would throw for an interrupt now (the owning thread asks).
    bool InterruptRaised() const noexcept {
        return (m_uPendingInterrupts.load(std::memory_order_acquire) & m_uInterruptMask) != 0;
    }
    unsigned int GetPendingInterrupts() const noexcept { return m_uPendingInterrupts.load(std::memory_order_acquire); }

    /// Starts `function` on a new thread with this block.
    unsigned int Create(Delegates_and_Calls::CDelegate function, bool suspended);
    unsigned int GetThreadId() const noexcept { return m_uThreadId.load(std::memory_order_relaxed); }

    // Interrupt state, guarded by the interrupt lock (the pending word is also read without
    // it by the thread's own waits: a bit set behind such a read comes with an alert).
    unsigned int m_uInterruptMask = 0;
    std::atomic<unsigned int> m_uPendingInterrupts{0};
    Posix::CWaitInterruptCB m_ThreadInterrupt;
    Posix::CWaitBlock m_ThreadBlock;
    Posix::CWaitInterruptCB* m_pUserInterrupt = nullptr;
    Posix::CWaitBlock m_UserBlock;

    Delegates_and_Calls::CDelegate m_Function;
    int m_iRandomSeed = 1;
    unsigned int m_uLngId = 0;
    CThrowStateData m_ThrowState;
    Strings::TString<71> m_Name;

    /// Formats the thread's name and gives it to the operating system when the format ends.
    class CNameSink : public Output_Streams::Internals::CStringStreamBuffer {
    public:
        void SignalFormatEnd() override;
        CThreadCB* m_pOwner = nullptr;
    };
    CNameSink m_NameSink;

protected:
    void Run() override;

private:
    unsigned int SetIntrMaskLocked(unsigned int newMask) noexcept;
    [[noreturn]] static void ThrowInterrupt(unsigned int raised);
};

} // namespace Internals
} // namespace KEL
