// kelbase - Src/Posix/Dispatcher.cpp
//
// The wait engine on Linux: dispatcher objects under one dispatcher lock, futex parkers, and
// the lock-free ownership path of uncontended mutexes.
//
// One lock guards every object's state and waiter queue. That makes a wait-all check and take
// its objects atomically without a lock order between objects, and makes "satisfied" a plain
// fact under the lock: an entry is queued exactly while its waiter is unsatisfied. The lock is
// held only for short queue walks; nothing blocks under it.
#include "Posix/Dispatcher.h"

#include <cerrno>
#include <climits>
#include <ctime>
#include <linux/futex.h>
#include <mutex>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace KEL {
namespace Internals {
namespace Posix {

/// One queued entry: a waiter waiting for one object.
struct CWaitEntry : Misc::TDoubleLinkedObject<CWaitEntry> {
    struct CWaiterRec* waiter = nullptr;
    CDispatcher* object = nullptr;
    unsigned int index = 0;
};

/// A wait in progress.
struct CWaiterRec {
    CWaitContext* ctx;
    CDispatcher* const* objects;
    CWaitEntry* entries;
    unsigned int count;
    bool waitAll;
};

namespace {

// The dispatcher lock. It is held for a few list operations only, so a contender spins for a
// while before it sleeps: a wake-up through the kernel costs far more than the wait for the
// holder (std::mutex would sleep at once and turn ping-pong into a lock convoy).
class CDispatchLock {
public:
    void lock() noexcept {
        int expected = 0;
        if (m_iState.compare_exchange_strong(expected, 1, std::memory_order_acquire, std::memory_order_relaxed)) return;
        for (int spin = 0; spin < 4000; ++spin) {
#if defined(__x86_64__) || defined(__i386__)
            __builtin_ia32_pause();
#endif
            expected = 0;
            if (m_iState.load(std::memory_order_relaxed) == 0 &&
                m_iState.compare_exchange_weak(expected, 1, std::memory_order_acquire, std::memory_order_relaxed))
                return;
        }
        while (m_iState.exchange(2, std::memory_order_acquire) != 0)
            ::syscall(SYS_futex, reinterpret_cast<int*>(&m_iState), FUTEX_WAIT_PRIVATE, 2, nullptr, nullptr, 0);
    }
    void unlock() noexcept {
        if (m_iState.exchange(0, std::memory_order_release) == 2)
            ::syscall(SYS_futex, reinterpret_cast<int*>(&m_iState), FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
    }

private:
    std::atomic<int> m_iState{0};
};

CDispatchLock g_DispatchLock;
std::atomic<unsigned int> g_uNextId{0x100};

constexpr uintptr_t kWaitersBit = 1;

int Futex(std::atomic<uint32_t>* word, int op, uint32_t value, const timespec* timeout, uint32_t bits) noexcept {
    return static_cast<int>(
        ::syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), op, value, timeout, nullptr, bits));
}

void WakeOne(std::atomic<uint32_t>* word) noexcept { Futex(word, FUTEX_WAKE_PRIVATE, 1, nullptr, 0); }

uint64_t Deadline(unsigned int timeoutMs) noexcept {
    if (timeoutMs == 0xFFFFFFFFu) return UINT64_MAX;
    return MonotonicNow() + static_cast<uint64_t>(timeoutMs) * 1000000ull;
}

// Parks until the wake bit (or, when alertable, the alert bit) is set or the deadline passes.
// Returns the parker bits seen, 0 on time-out.
uint32_t Park(CWaitContext& self, uint64_t deadline, bool alertable) noexcept {
    const uint32_t stop = CWaitContext::PW_Wake | (alertable ? CWaitContext::PW_Alert : 0u);
    for (;;) {
        uint32_t w = self.m_uParker.load(std::memory_order_acquire);
        if (w & stop) return w;
        timespec ts;
        const timespec* pts = nullptr;
        if (deadline != UINT64_MAX) {
            if (MonotonicNow() >= deadline) return 0;
            ts.tv_sec = static_cast<time_t>(deadline / 1000000000ull);
            ts.tv_nsec = static_cast<long>(deadline % 1000000000ull);
            pts = &ts;
        }
        // FUTEX_WAIT_BITSET takes an absolute time-out on the monotonic clock.
        Futex(&self.m_uParker, FUTEX_WAIT_BITSET_PRIVATE, w, pts, FUTEX_BITSET_MATCH_ANY);
    }
}

// Futex wake-ups collected under the dispatcher lock and issued after it is released, so that
// a woken thread does not run into the lock its waker still holds. Waking an address whose
// owner has meanwhile left is harmless: it is only a system call on an address, and every
// futex user tolerates spurious wake-ups.
class CDeferredWakes {
public:
    CDeferredWakes() noexcept = default;
    CDeferredWakes(const CDeferredWakes&) = delete;
    CDeferredWakes& operator=(const CDeferredWakes&) = delete;
    ~CDeferredWakes() { Flush(); }
    void Add(std::atomic<uint32_t>* word) noexcept {
        if (m_nCount == kCapacity) {
            WakeOne(word); // a full list wakes at once, still correct
            return;
        }
        m_Words[m_nCount++] = word;
    }
    void Flush() noexcept {
        for (unsigned int i = 0; i < m_nCount; ++i) WakeOne(m_Words[i]);
        m_nCount = 0;
    }

private:
    static constexpr unsigned int kCapacity = 16;
    std::atomic<uint32_t>* m_Words[kCapacity];
    unsigned int m_nCount = 0;
};

// Sets bits in a waiter's parker and wakes it (now, or through `deferred`). The fetch_or is
// the last access to the waiter's memory: once it sees the wake bit it may return and end its
// thread.
void Unpark(CWaitContext& ctx, uint32_t bits, CDeferredWakes* deferred = nullptr) noexcept {
    std::atomic<uint32_t>* word = &ctx.m_uParker;
    uint32_t old = word->fetch_or(bits, std::memory_order_acq_rel);
    if (old & CWaitContext::PW_Polling) {
        // A context closes its descriptor only after passing both locks, and the caller holds
        // one of them, so the context and its descriptor are still there.
        uint64_t one = 1;
        ssize_t n = ::write(ctx.m_iEventFd.load(std::memory_order_relaxed), &one, sizeof one);
        (void)n;
    }
    if (deferred)
        deferred->Add(word);
    else
        WakeOne(word);
}

} // namespace

/// The engine's operations on objects; all of them run under the dispatcher lock.
struct CEngine {
    // For a mutex this first sets the waiters bit: from then on only the holder of the
    // dispatcher lock changes the owner, so the answer stays true until Acquire. The caller
    // puts the bit right again (UpdateWaitersBit) before it lets the lock go.
    static bool IsReadyFor(CDispatcher* o, const CWaitContext* ctx) noexcept {
        switch (o->m_Type) {
        case CDispatcher::DT_AutoEvent:
        case CDispatcher::DT_ManualEvent:
            return o->m_iState != 0;
        case CDispatcher::DT_Semaphore:
            return o->m_iState > 0;
        case CDispatcher::DT_Mutex: {
            uintptr_t owner = o->m_Owner.fetch_or(kWaitersBit, std::memory_order_acq_rel) & ~kWaitersBit;
            return owner == 0 || owner == reinterpret_cast<uintptr_t>(ctx);
        }
        }
        return false;
    }

    // Takes a ready object for ctx; true when it was an abandoned mutex.
    static bool Acquire(CDispatcher* o, CWaitContext* ctx) noexcept {
        switch (o->m_Type) {
        case CDispatcher::DT_AutoEvent:
            o->m_iState = 0;
            return false;
        case CDispatcher::DT_ManualEvent:
            return false;
        case CDispatcher::DT_Semaphore:
            --o->m_iState;
            return false;
        case CDispatcher::DT_Mutex: {
            uintptr_t v = o->m_Owner.load(std::memory_order_relaxed);
            uintptr_t me = reinterpret_cast<uintptr_t>(ctx);
            if ((v & ~kWaitersBit) == me) {
                ++o->m_nRecursion;
                return false;
            }
            // Free, and IsReadyFor has set the waiters bit: no lock-free path can take it now.
            o->m_Owner.store(me | kWaitersBit, std::memory_order_relaxed);
            o->m_nRecursion = 1;
            if (!o->m_bAbandoned.load(std::memory_order_relaxed)) return false;
            o->m_bAbandoned.store(false, std::memory_order_relaxed);
            return true;
        }
        }
        return false;
    }

    static void UpdateWaitersBit(CDispatcher* o) noexcept {
        if (o->m_Type != CDispatcher::DT_Mutex) return;
        if (o->m_Waiters.IsEmpty())
            o->m_Owner.fetch_and(~kWaitersBit, std::memory_order_relaxed);
        else
            o->m_Owner.fetch_or(kWaitersBit, std::memory_order_relaxed);
    }

    // Queues one entry of w on each of its objects, in index order (FIFO per object).
    static void Enqueue(CWaiterRec& w) noexcept {
        for (unsigned int i = 0; i < w.count; ++i) {
            w.entries[i].waiter = &w;
            w.entries[i].object = w.objects[i];
            w.entries[i].index = i;
            w.objects[i]->m_Waiters.Add(w.entries[i]);
            UpdateWaitersBit(w.objects[i]);
        }
    }

    static void Dequeue(CWaiterRec& w) noexcept {
        for (unsigned int i = 0; i < w.count; ++i) {
            if (w.entries[i].IsLinked()) {
                w.entries[i].Detach();
                UpdateWaitersBit(w.objects[i]);
            }
        }
    }

    // Satisfies w if its objects allow it now; returns the WR_ code or WR_Failed when not.
    static unsigned int TrySatisfy(CWaiterRec& w) noexcept {
        if (w.waitAll) {
            for (unsigned int i = 0; i < w.count; ++i)
                if (!IsReadyFor(w.objects[i], w.ctx)) return WR_Failed;
            unsigned int result = WR_Object0;
            for (unsigned int i = 0; i < w.count; ++i) {
                if (Acquire(w.objects[i], w.ctx) && result == WR_Object0) result = WR_Abandoned0 + i;
            }
            return result;
        }
        for (unsigned int i = 0; i < w.count; ++i) {
            if (IsReadyFor(w.objects[i], w.ctx)) return (Acquire(w.objects[i], w.ctx) ? WR_Abandoned0 : WR_Object0) + i;
        }
        return WR_Failed;
    }

    // Hands the object to the waiters queued on it, in order, while it stays signalled.
    static void Wake(CDispatcher* o, CDeferredWakes& wakes) noexcept {
        bool again = true;
        while (again) {
            again = false;
            for (CWaitEntry* e = o->m_Waiters.Start(); e; e = e->Next()) {
                if (!IsReadyFor(o, e->waiter->ctx)) return;
                CWaiterRec& w = *e->waiter;
                unsigned int result;
                if (w.waitAll) {
                    result = TrySatisfy(w);
                    if (result == WR_Failed) continue;
                } else {
                    result = (Acquire(o, w.ctx) ? WR_Abandoned0 : WR_Object0) + e->index;
                }
                Dequeue(w);
                Unpark(*w.ctx, CWaitContext::PW_Wake | ((result + 1) << CWaitContext::PW_ResultShift), &wakes);
                again = true;
                break;
            }
        }
    }
};

uint64_t MonotonicNow() noexcept {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<uint64_t>(ts.tv_nsec);
}

// ---- objects ------------------------------------------------------------------------------

CDispatcher::CDispatcher(TYPE type) noexcept : m_Type(type), m_uId(g_uNextId.fetch_add(4, std::memory_order_relaxed)) {}

CDispatcher::~CDispatcher() {
    // A mutex destroyed by its owner leaves the owner's list.
    if (IsLinked()) Detach();
}

CDispatcher* CDispatcher::NewEvent(bool manualReset, bool initialState) {
    CDispatcher* o = new CDispatcher(manualReset ? DT_ManualEvent : DT_AutoEvent);
    o->m_iState = initialState ? 1 : 0;
    return o;
}

CDispatcher* CDispatcher::NewMutex(CWaitContext* initialOwner) {
    CDispatcher* o = new CDispatcher(DT_Mutex);
    if (initialOwner) {
        o->m_Owner.store(reinterpret_cast<uintptr_t>(initialOwner), std::memory_order_relaxed);
        o->m_nRecursion = 1;
        initialOwner->m_OwnedMutexes.Add(o);
    }
    return o;
}

CDispatcher* CDispatcher::NewSemaphore(int initial, int maximum) {
    CDispatcher* o = new CDispatcher(DT_Semaphore);
    o->m_iState = initial;
    o->m_iMaximum = maximum;
    return o;
}

void CDispatcher::Release() noexcept {
    if (m_nRefs.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
}

void CDispatcher::SetEvent() noexcept {
    CDeferredWakes wakes;
    std::lock_guard<CDispatchLock> hold(g_DispatchLock);
    m_iState = 1;
    if (!m_Waiters.IsEmpty()) CEngine::Wake(this, wakes);
}

void CDispatcher::ResetEvent() noexcept {
    std::lock_guard<CDispatchLock> hold(g_DispatchLock);
    m_iState = 0;
}

bool CDispatcher::IsSignalled() const noexcept {
    std::lock_guard<CDispatchLock> hold(g_DispatchLock);
    if (m_Type == DT_Mutex) return (m_Owner.load(std::memory_order_acquire) & ~kWaitersBit) == 0;
    return m_Type == DT_Semaphore ? m_iState > 0 : m_iState != 0;
}

bool CDispatcher::ReleaseMutex(CWaitContext& self) noexcept {
    const uintptr_t me = reinterpret_cast<uintptr_t>(&self);
    uintptr_t v = m_Owner.load(std::memory_order_relaxed);
    if ((v & ~kWaitersBit) != me) {
        errno = EPERM;
        return false;
    }
    if (--m_nRecursion != 0) return true;
    Detach();
    if (v == me && m_Owner.compare_exchange_strong(v, 0, std::memory_order_release, std::memory_order_relaxed))
        return true;
    // Waiters are queued (the bit stops every fast path): hand over under the lock.
    CDeferredWakes wakes;
    std::lock_guard<CDispatchLock> hold(g_DispatchLock);
    m_Owner.store(m_Owner.load(std::memory_order_relaxed) & kWaitersBit, std::memory_order_release);
    CEngine::Wake(this, wakes);
    return true;
}

bool CDispatcher::ReleaseSemaphore(int count, int* previous) noexcept {
    CDeferredWakes wakes;
    std::lock_guard<CDispatchLock> hold(g_DispatchLock);
    if (count <= 0 || m_iState > m_iMaximum - count) {
        errno = count <= 0 ? EINVAL : EOVERFLOW;
        return false;
    }
    if (previous) *previous = m_iState;
    m_iState += count;
    CEngine::Wake(this, wakes);
    return true;
}

// ---- wait contexts ------------------------------------------------------------------------

CWaitContext::~CWaitContext() {
    AbandonOwnedMutexes();
    int fd = m_iEventFd.load(std::memory_order_relaxed);
    if (fd >= 0) {
        // Wakers write the descriptor under one of the two locks; let them finish.
        { std::lock_guard<CDispatchLock> hold(g_DispatchLock); }
        ::close(fd);
    }
}

void CWaitContext::Alert() noexcept { Unpark(*this, PW_Alert); }

void CWaitContext::AbandonOwnedMutexes() noexcept {
    while (CDispatcher* o = m_OwnedMutexes.Start()) {
        o->Detach();
        CDeferredWakes wakes;
        std::lock_guard<CDispatchLock> hold(g_DispatchLock);
        o->m_nRecursion = 0;
        o->m_bAbandoned.store(true, std::memory_order_relaxed);
        o->m_Owner.store(o->m_Owner.load(std::memory_order_relaxed) & kWaitersBit, std::memory_order_release);
        CEngine::Wake(o, wakes);
    }
}

// ---- waits --------------------------------------------------------------------------------

namespace {

// Links mutexes that the wait has just made ours into the owner list.
void NoteOwnership(CWaitContext& self, CDispatcher* const* objects, unsigned int count, bool waitAll,
                   unsigned int result) noexcept {
    unsigned int first = 0, last = count;
    if (!waitAll) {
        first = result & 0x7F;
        last = first + 1;
    }
    for (unsigned int i = first; i < last; ++i) {
        CDispatcher* o = objects[i];
        if (o->GetType() == CDispatcher::DT_Mutex && !o->IsLinked()) self.m_OwnedMutexes.Add(o);
    }
}

} // namespace

bool CDispatcher::TryAcquireMutexFast(CWaitContext& self, unsigned int& result) noexcept {
    const uintptr_t me = reinterpret_cast<uintptr_t>(&self);
    uintptr_t v = m_Owner.load(std::memory_order_relaxed);
    if ((v & ~kWaitersBit) == me) {
        ++m_nRecursion;
        result = WR_Object0;
        return true;
    }
    if (v != 0 || !m_Owner.compare_exchange_strong(v, me, std::memory_order_acquire, std::memory_order_relaxed))
        return false;
    m_nRecursion = 1;
    self.m_OwnedMutexes.Add(this);
    result = WR_Object0;
    // A plain load first: an exchange would be a second locked instruction on every acquire.
    if (m_bAbandoned.load(std::memory_order_relaxed)) {
        m_bAbandoned.store(false, std::memory_order_relaxed);
        result = WR_Abandoned0;
    }
    return true;
}

unsigned int WaitForObjects(CWaitContext& self, unsigned int count, CDispatcher* const* objects, bool waitAll,
                            unsigned int timeoutMs, bool alertable) noexcept {
    if (count == 0 || count > kMaxWaitObjects) {
        errno = EINVAL;
        return WR_Failed;
    }
    if (waitAll) {
        for (unsigned int i = 1; i < count; ++i)
            for (unsigned int j = 0; j < i; ++j)
                if (objects[i] == objects[j]) {
                    errno = EINVAL;
                    return WR_Failed;
                }
    }
    unsigned int result;
    if (count == 1 && objects[0]->GetType() == CDispatcher::DT_Mutex && objects[0]->TryAcquireMutexFast(self, result))
        return result;

    CWaitEntry entries[kMaxWaitObjects];
    CWaiterRec w{&self, objects, entries, count, waitAll};
    {
        std::lock_guard<CDispatchLock> hold(g_DispatchLock);
        result = CEngine::TrySatisfy(w);
        if (result == WR_Failed) {
            // An alert that is already there ends a wait that would block, as a queued APC
            // would; a wait that is satisfied at once is not turned into a time-out by it.
            if (alertable && (self.m_uParker.load(std::memory_order_acquire) & CWaitContext::PW_Alert)) {
                self.m_uParker.fetch_and(~CWaitContext::PW_Alert, std::memory_order_acq_rel);
                for (unsigned int i = 0; i < count; ++i) CEngine::UpdateWaitersBit(objects[i]);
                return WR_IoCompletion;
            }
            if (timeoutMs == 0) {
                for (unsigned int i = 0; i < count; ++i) CEngine::UpdateWaitersBit(objects[i]);
                return WR_Timeout;
            }
            self.m_uParker.fetch_and(CWaitContext::PW_Alert | CWaitContext::PW_Polling, std::memory_order_relaxed);
            CEngine::Enqueue(w);
            // A mutex given back on the fast path before its waiters bit was set is free now.
            result = CEngine::TrySatisfy(w);
            if (result != WR_Failed) CEngine::Dequeue(w);
        }
        for (unsigned int i = 0; i < count; ++i) CEngine::UpdateWaitersBit(objects[i]);
    }
    if (result == WR_Failed) {
        uint32_t bits = Park(self, Deadline(timeoutMs), alertable);
        if (!(bits & CWaitContext::PW_Wake)) {
            std::lock_guard<CDispatchLock> hold(g_DispatchLock);
            bits = self.m_uParker.load(std::memory_order_acquire);
            // Satisfied just before we took the lock: the object is ours, keep it.
            if (!(bits & CWaitContext::PW_Wake)) CEngine::Dequeue(w);
        }
        if (bits & CWaitContext::PW_Wake) {
            result = (bits >> CWaitContext::PW_ResultShift) - 1;
        } else if (alertable && (bits & CWaitContext::PW_Alert)) {
            self.m_uParker.fetch_and(~CWaitContext::PW_Alert, std::memory_order_acq_rel);
            return WR_IoCompletion;
        } else {
            return WR_Timeout;
        }
    }
    NoteOwnership(self, objects, count, waitAll, result);
    return result;
}

unsigned int WaitForObjectsOrDescriptors(CWaitContext& self, unsigned int count, CDispatcher* const* objects,
                                         pollfd* fds, unsigned int fdCount, unsigned int timeoutMs) noexcept {
    if (fdCount == 0) return WaitForObjects(self, count, objects, false, timeoutMs, true);
    if (count + fdCount > kMaxWaitObjects) {
        errno = EINVAL;
        return WR_Failed;
    }
    CWaitEntry entries[kMaxWaitObjects];
    CWaiterRec w{&self, objects, entries, count, false};
    unsigned int result = WR_Failed;
    {
        std::lock_guard<CDispatchLock> hold(g_DispatchLock);
        if (count != 0) result = CEngine::TrySatisfy(w);
        if (result == WR_Failed) {
            if (self.m_uParker.load(std::memory_order_acquire) & CWaitContext::PW_Alert) {
                self.m_uParker.fetch_and(~CWaitContext::PW_Alert, std::memory_order_acq_rel);
                for (unsigned int i = 0; i < count; ++i) CEngine::UpdateWaitersBit(objects[i]);
                return WR_IoCompletion;
            }
            self.m_uParker.fetch_and(CWaitContext::PW_Alert | CWaitContext::PW_Polling, std::memory_order_relaxed);
            CEngine::Enqueue(w);
            if (count != 0) {
                result = CEngine::TrySatisfy(w);
                if (result != WR_Failed) CEngine::Dequeue(w);
            }
        }
        for (unsigned int i = 0; i < count; ++i) CEngine::UpdateWaitersBit(objects[i]);
    }
    if (result == WR_Failed) {
        // A descriptor that is ready already ends the wait in the first poll, so a time-out of
        // 0 still reports it.
        for (unsigned int i = 0; i < fdCount; ++i) fds[i].revents = 0;
        uint32_t bits = ParkWithDescriptors(self, Deadline(timeoutMs), fds, fdCount);
        if (!(bits & CWaitContext::PW_Wake) && count != 0) {
            std::lock_guard<CDispatchLock> hold(g_DispatchLock);
            bits = self.m_uParker.load(std::memory_order_acquire);
            if (!(bits & CWaitContext::PW_Wake)) CEngine::Dequeue(w);
        }
        if (bits & CWaitContext::PW_Wake) {
            result = (bits >> CWaitContext::PW_ResultShift) - 1;
        } else if (bits & CWaitContext::PW_Alert) {
            self.m_uParker.fetch_and(~CWaitContext::PW_Alert, std::memory_order_acq_rel);
            return WR_IoCompletion;
        } else {
            for (unsigned int i = 0; i < fdCount; ++i)
                if (fds[i].revents != 0) return WR_Object0 + count + i;
            return WR_Timeout;
        }
    }
    NoteOwnership(self, objects, count, false, result);
    return result;
}

unsigned int WaitForDescriptor(CWaitContext& self, pollfd& fd, unsigned int timeoutMs) noexcept {
    // No object is queued for this wait, so only an alert can change the parker meanwhile: the
    // dispatcher lock has nothing to guard. One atomic drops a stale wake and its result and
    // reads the alert; the next one announces the poll to alerters.
    uint32_t bits = self.m_uParker.fetch_and(CWaitContext::PW_Alert | CWaitContext::PW_Polling,
                                             std::memory_order_acq_rel);
    if (bits & CWaitContext::PW_Alert) {
        self.m_uParker.fetch_and(~CWaitContext::PW_Alert, std::memory_order_acq_rel);
        return WR_IoCompletion;
    }
    if (self.m_iEventFd.load(std::memory_order_relaxed) < 0) {
        const int made = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        if (made < 0) return WR_Failed;
        self.m_iEventFd.store(made, std::memory_order_relaxed);
    }
    const int efd = self.m_iEventFd.load(std::memory_order_relaxed);
    pollfd both[2];
    both[0] = fd;
    both[0].revents = 0;
    both[1].fd = efd;
    both[1].events = POLLIN;
    both[1].revents = 0;
    bits = self.m_uParker.fetch_or(CWaitContext::PW_Polling, std::memory_order_acq_rel);
    // The clock is read only for a wait that has to go round again: the first poll takes the
    // whole time-out, and a ready descriptor or an alert ends it at once.
    const uint64_t start = timeoutMs != 0xFFFFFFFFu && timeoutMs != 0 ? MonotonicNow() : 0;
    int ms = timeoutMs == 0xFFFFFFFFu ? -1 : timeoutMs > static_cast<unsigned int>(INT_MAX) ? INT_MAX
                                                                                          : static_cast<int>(timeoutMs);
    unsigned int result = WR_Timeout;
    while (!(bits & CWaitContext::PW_Alert)) {
        const int n = ::poll(both, 2, ms);
        if (n < 0 && errno != EINTR) {
            result = WR_Failed;
            break;
        }
        if (both[1].revents & POLLIN) {
            uint64_t drained;
            ssize_t r = ::read(efd, &drained, sizeof drained);
            (void)r;
        }
        bits = self.m_uParker.load(std::memory_order_acquire);
        if (both[0].revents != 0) {
            result = WR_Object0;
            break;
        }
        if (n == 0 || ms == 0) break;
        if (ms > 0) {
            // Woken early by something that was no alert: only the time left counts.
            const uint64_t waited = (MonotonicNow() - start) / 1000000ull;
            if (waited >= timeoutMs) break;
            const uint64_t left = timeoutMs - waited;
            ms = left > static_cast<uint64_t>(INT_MAX) ? INT_MAX : static_cast<int>(left);
        }
    }
    bits = self.m_uParker.fetch_and(~CWaitContext::PW_Polling, std::memory_order_acq_rel);
    fd.revents = both[0].revents;
    // An alert wins over a ready descriptor, as in the list wait: the interrupt ends this wait.
    if (result != WR_Failed && (bits & CWaitContext::PW_Alert)) {
        self.m_uParker.fetch_and(~CWaitContext::PW_Alert, std::memory_order_acq_rel);
        return WR_IoCompletion;
    }
    return result;
}

unsigned int SleepAlertable(CWaitContext& self, unsigned int timeoutMs) noexcept {
    if (self.m_uParker.load(std::memory_order_acquire) & CWaitContext::PW_Alert) {
        self.m_uParker.fetch_and(~CWaitContext::PW_Alert, std::memory_order_acq_rel);
        return WR_IoCompletion;
    }
    // Nothing can satisfy a sleep: only an alert or the time ends it.
    const uint64_t deadline = Deadline(timeoutMs);
    for (;;) {
        uint32_t bits = Park(self, deadline, true);
        if (bits & CWaitContext::PW_Alert) {
            self.m_uParker.fetch_and(~CWaitContext::PW_Alert, std::memory_order_acq_rel);
            return WR_IoCompletion;
        }
        if (bits == 0) return WR_Timeout;
        // A stale wake bit from an earlier wait: drop it and sleep on.
        self.m_uParker.fetch_and(~CWaitContext::PW_Wake, std::memory_order_relaxed);
    }
}

void FutexWaitWhile(std::atomic<uint32_t>& word, uint32_t expected) noexcept {
    while (word.load(std::memory_order_acquire) == expected)
        Futex(&word, FUTEX_WAIT_PRIVATE, expected, nullptr, 0);
}

void FutexWakeAll(std::atomic<uint32_t>& word) noexcept { Futex(&word, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, 0); }

uint32_t ParkWithDescriptors(CWaitContext& self, uint64_t deadlineNs, pollfd* fds, unsigned int count) noexcept {
    if (self.m_iEventFd.load(std::memory_order_relaxed) < 0) {
        int fd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        if (fd < 0) return 0;
        self.m_iEventFd.store(fd, std::memory_order_relaxed);
    }
    const int efd = self.m_iEventFd.load(std::memory_order_relaxed);
    pollfd local[kMaxWaitObjects + 1];
    if (count > kMaxWaitObjects) count = kMaxWaitObjects;
    for (unsigned int i = 0; i < count; ++i) local[i] = fds[i];
    local[count].fd = efd;
    local[count].events = POLLIN;
    local[count].revents = 0;
    const uint32_t stop = CWaitContext::PW_Wake | CWaitContext::PW_Alert;
    uint32_t bits = self.m_uParker.fetch_or(CWaitContext::PW_Polling, std::memory_order_acq_rel);
    while (!(bits & stop)) {
        int ms = -1;
        if (deadlineNs != UINT64_MAX) {
            uint64_t now = MonotonicNow();
            if (now >= deadlineNs) break;
            uint64_t left = (deadlineNs - now + 999999ull) / 1000000ull;
            ms = left > static_cast<uint64_t>(INT_MAX) ? INT_MAX : static_cast<int>(left);
        }
        int n = ::poll(local, count + 1, ms);
        if (local[count].revents & POLLIN) {
            uint64_t drained;
            ssize_t r = ::read(efd, &drained, sizeof drained);
            (void)r;
        }
        bits = self.m_uParker.load(std::memory_order_acquire);
        if (n > 0 && !(local[count].revents & POLLIN)) break;
        if (n > 0) {
            bool other = false;
            for (unsigned int i = 0; i < count; ++i) other = other || local[i].revents != 0;
            if (other) break;
        }
    }
    bits = self.m_uParker.fetch_and(~CWaitContext::PW_Polling, std::memory_order_acq_rel);
    for (unsigned int i = 0; i < count; ++i) fds[i].revents = local[i].revents;
    return bits & stop;
}

} // namespace Posix
} // namespace Internals
} // namespace KEL
