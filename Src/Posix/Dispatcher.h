// kelbase - Src/Posix/Dispatcher.h
//
// The wait engine: user-space dispatcher objects (events, mutexes, semaphores) in the manner of
// kernel dispatcher objects, and the per-thread parker that waits on them.
//
// A waiter queues one entry on each object it waits for and parks on its own futex word. The
// thread that makes an object signalled hands it to the first queued waiter it can satisfy
// while holding the dispatcher lock: an auto-reset event or a semaphore count goes to exactly
// one waiter, a waiter is satisfied at most once (its entries leave every queue together), and a
// wait-all waiter takes all of its objects in one step or none. The result travels in the
// parker word together with the wake bit, so the waker's last touch of the waiter's memory is a
// single atomic operation.
//
// Interrupts reach a parked thread as an "alert": the wait ends with WR_IoCompletion and the
// caller re-checks its interrupts. An alert that arrives while the thread does not wait stays
// set and ends its next alertable wait at once.
//
// Mutexes take and give back ownership without the dispatcher lock while nobody waits for them
// (one compare-and-swap), and are owned by a wait context: when a thread ends, every mutex it
// still owns is abandoned and its next owner learns so.
//
// Descriptors: the parker can wait on a set of poll descriptors beside its futex word (an
// eventfd then carries the wake-up), which is how sockets join list waits.
#pragma once

#include <kel/Misc.h>

#include <atomic>
#include <cstdint>

struct pollfd;

namespace KEL {
namespace Internals {
namespace Posix {

class CDispatcher;
struct CWaitEntry;

/// Outcomes of the engine's waits (the kernel's numbering).
enum : unsigned int {
    WR_Object0 = 0,         ///< + index: that object was signalled
    WR_Abandoned0 = 128,    ///< + index: that mutex was abandoned; the caller owns it now
    WR_IoCompletion = 0xC0, ///< an alert ended the wait
    WR_Timeout = 0x102,
    WR_Failed = 0xFFFFFFFF, ///< errno says why
};

/// The most objects one wait may name.
constexpr unsigned int kMaxWaitObjects = 64;

/// One thread's side of the engine: its parker and the mutexes it owns.
class CWaitContext {
public:
    CWaitContext() noexcept = default;
    ~CWaitContext();
    CWaitContext(const CWaitContext&) = delete;
    CWaitContext& operator=(const CWaitContext&) = delete;

    /// Ends the context's current or next alertable wait with WR_IoCompletion.
    void Alert() noexcept;
    /// Abandons every mutex the context still owns (its thread is ending).
    void AbandonOwnedMutexes() noexcept;

    // Parker word: wake and alert flags, the result of a satisfied wait above them.
    static constexpr uint32_t PW_Wake = 1;
    static constexpr uint32_t PW_Alert = 2;
    static constexpr uint32_t PW_Polling = 4;
    static constexpr unsigned int PW_ResultShift = 8;

    std::atomic<uint32_t> m_uParker{0};
    std::atomic<int> m_iEventFd{-1}; ///< made on the first wait with descriptors
    Misc::TDoubleLinkHead<CDispatcher> m_OwnedMutexes;
};

/// An event, mutex or semaphore. Counted: each control block or lightweight object that shares
/// it holds a reference.
class CDispatcher : public Misc::TDoubleLinkedObject<CDispatcher> {
public:
    enum TYPE : unsigned char { DT_AutoEvent, DT_ManualEvent, DT_Mutex, DT_Semaphore };

    static CDispatcher* NewEvent(bool manualReset, bool initialState);
    /// With an owner, the mutex starts owned (once) by that context.
    static CDispatcher* NewMutex(CWaitContext* initialOwner);
    static CDispatcher* NewSemaphore(int initial, int maximum);

    void AddRef() noexcept { m_nRefs.fetch_add(1, std::memory_order_relaxed); }
    void Release() noexcept;

    TYPE GetType() const noexcept { return m_Type; }
    /// A small number that names the object in trace lines.
    unsigned int GetId() const noexcept { return m_uId; }

    void SetEvent() noexcept;
    void ResetEvent() noexcept;
    /// false (errno EPERM) when `self` does not own the mutex.
    bool ReleaseMutex(CWaitContext& self) noexcept;
    /// false (errno EOVERFLOW) when the count would pass the maximum.
    bool ReleaseSemaphore(int count, int* previous) noexcept;

    /// Takes an uncontended mutex for `self` without the dispatcher lock (one compare-and-swap),
    /// also recursively; `result` is WR_Object0 or WR_Abandoned0. false when it is not free.
    bool TryAcquireMutexFast(CWaitContext& self, unsigned int& result) noexcept;

    /// Whether the object is signalled now (events, semaphores) or free (mutexes).
    bool IsSignalled() const noexcept;

private:
    friend class CWaitContext;
    friend struct CEngine;
    friend unsigned int WaitForObjects(CWaitContext&, unsigned int, CDispatcher* const*, bool, unsigned int,
                                       bool) noexcept;
    friend unsigned int WaitForObjectsOrDescriptors(CWaitContext&, unsigned int, CDispatcher* const*, pollfd*,
                                                    unsigned int, unsigned int) noexcept;
    explicit CDispatcher(TYPE type) noexcept;
    ~CDispatcher();

    std::atomic<int> m_nRefs{1};
    TYPE m_Type;
    unsigned int m_uId;
    int m_iState = 0;   ///< event: 0/1; semaphore: count
    int m_iMaximum = 0; ///< semaphore
    /// Mutex owner: the owning CWaitContext, bit 0 set while waiters are queued.
    std::atomic<uintptr_t> m_Owner{0};
    unsigned int m_nRecursion = 0;
    std::atomic<bool> m_bAbandoned{false};
    Misc::TDoubleLinkHead<CWaitEntry> m_Waiters;
};

/// Waits for one (waitAll false: any) or all of `objects` on behalf of `self`. `timeoutMs`
/// 0xFFFFFFFF waits for ever; an alertable wait ends with WR_IoCompletion on an alert.
/// WR_Failed with errno EINVAL for no objects, too many, or a duplicate in a wait-all.
unsigned int WaitForObjects(CWaitContext& self, unsigned int count, CDispatcher* const* objects, bool waitAll,
                            unsigned int timeoutMs, bool alertable) noexcept;

/// WaitForObjects (any, alertable) that also polls `fds`: WR_Object0 + count + i when descriptor
/// i became ready first (its revents say how), objects taking precedence. `count` may be 0.
unsigned int WaitForObjectsOrDescriptors(CWaitContext& self, unsigned int count, CDispatcher* const* objects,
                                         pollfd* fds, unsigned int fdCount, unsigned int timeoutMs) noexcept;

/// Polls the single descriptor `fd` beside the context's parker (alertable, no objects):
/// WR_Object0 when it became ready (its revents say how), WR_IoCompletion on an alert,
/// WR_Timeout. The lean path of a wait for one socket: no dispatcher lock, no list.
unsigned int WaitForDescriptor(CWaitContext& self, pollfd& fd, unsigned int timeoutMs) noexcept;

/// Parks for `timeoutMs` (or until an alert): WR_Timeout or WR_IoCompletion.
unsigned int SleepAlertable(CWaitContext& self, unsigned int timeoutMs) noexcept;

/// Waits until `word` differs from `expected` (no time-out, not alertable): the start gates
/// of threads.
void FutexWaitWhile(std::atomic<uint32_t>& word, uint32_t expected) noexcept;
void FutexWakeAll(std::atomic<uint32_t>& word) noexcept;

/// Parks on the context's parker and the descriptors together: returns the parker bits seen
/// (0 when only descriptors became ready or the deadline passed). `deadlineNs` is monotonic,
/// UINT64_MAX for ever.
uint32_t ParkWithDescriptors(CWaitContext& self, uint64_t deadlineNs, pollfd* fds, unsigned int count) noexcept;

/// Monotonic nanoseconds.
uint64_t MonotonicNow() noexcept;

} // namespace Posix
} // namespace Internals
} // namespace KEL
