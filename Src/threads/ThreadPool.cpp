// kelbase - Src/threads/ThreadPool.cpp
//
// The thread pool. The pool lock guards every counter and queue and is never held while a job
// runs or anybody waits. A worker is in exactly one of the idle, running and delete queues
// from its creation until it is reaped; `act` counts the workers not yet reaped, so it drops
// only where a worker leaves the delete queue (Enqueue or Stop).
//
// Speed: the lock is held for list operations only (job records are reused, and the heap is
// not called under it), the enqueuing thread spins briefly before it sleeps on it while workers
// sleep at once, and a worker is woken after the lock is released, so the woken worker does not
// find the lock held by its waker. The enqueuing thread is what bounds a busy pool's
// throughput; a worker that sleeps on the lock leaves the processor to it.
#define KEL_SOURCE_FILE "Src/threads"
#include <kel/Exceptions.h>
#include <kel/Threading.h>
#include <kel/Trace.h>

#include <memory>
#include <thread>

namespace KEL {
namespace Threading {

namespace {
constexpr unsigned int kTrace = 0x20;
constexpr const char* kEnqueueFn = "KEL::Threading::CThreadPool::Enqueue";
constexpr const char* kRunFn = "KEL::Threading::CThreadPool::CPoolThread::Run";
constexpr const char* kStopFn = "KEL::Threading::CThreadPool::Stop";
/// Stop cancels at most this many idle workers in one walk.
constexpr unsigned int kMaxCancels = 100;
/// Job records kept for reuse once their job has been taken; the rest go back to the heap.
constexpr unsigned int kMaxSpareJobs = 1024;
/// Attempts of Enqueue to take a busy pool lock before sleeping on it. The lock is held for a
/// few list operations only, so its holder is nearly always gone before a sleep and a wake-up
/// through the kernel would be over.
constexpr unsigned int kLockSpins = 100;

inline void CpuRelax() noexcept {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    __asm__ __volatile__("yield");
#endif
}
} // namespace

class CThreadPool::CJob : public Misc::TDoubleLinkedObject<CJob> {
public:
    /// Empty between uses, while it waits in the spare list.
    Delegates_and_Calls::CDelegate m_Job;
    /// The next spare record while this one is spare.
    CJob* m_pNextSpare = nullptr;
};

class CThreadPool::CPoolThread : public Misc::TDoubleLinkedObject<CPoolThread> {
public:
    enum EQueue { None, Idle, Running, Deleted };

    explicit CPoolThread(CThreadPool& pool) : m_Pool(pool) { m_WakeUp.Init(1); }
    /// The thread may still be on its way out after it put itself in the delete queue.
    virtual ~CPoolThread() { m_Thread.Wait(); }

    /// The worker's body.
    void Run();
    /// Moves the worker between queues (under the pool lock).
    void MoveTo(EQueue queue) {
        Detach();
        m_eQueue = queue;
        if (queue == Idle) m_Pool.m_IdleQueue.Add(this);
        if (queue == Running) m_Pool.m_RunningQueue.Add(this);
        if (queue == Deleted) m_Pool.m_DeleteQueue.Add(this);
    }

    Native_OS::CFastEvent m_WakeUp;
    CThread m_Thread;
    CThreadPool& m_Pool;
    Delegates_and_Calls::CDelegate m_Job;
    EQueue m_eQueue = None;
    /// Set under the lock when a job is handed over; cleared by the enqueuing thread once it
    /// has set the wake-up event, which it does after releasing the lock.
    std::atomic<bool> m_bWakePending{false};
};

void CThreadPool::CPoolThread::Run() {
    const unsigned int tid = CCurrentThread().GetThreadID();
    KEL_TRACE(KEL_MODULE_INFO_KelLib, kTrace, kRunFn, "ENTER CThreadPool::CPoolThread::Run()");
    CSyncGuard SG;
    for (;;) {
        // a. Wait for a job. A wait that ends by time-out or by an interrupt (Stop) is decided
        // under the lock: a job handed over in the meantime is still run.
        unsigned int idle = m_Pool.m_uIdleTime;
        KEL_TRACE(KEL_MODULE_INFO_KelLib, kTrace, kRunFn, "Before Wait(%d)") << idle;
        unsigned int rc = 0;
        try {
            rc = m_WakeUp.Wait(idle);
            KEL_TRACE(KEL_MODULE_INFO_KelLib, kTrace, kRunFn, "After Wait()=%d") << rc;
            if (rc == 130) rc = m_WakeUp.Wait(0);
        } catch (const Exceptions::CKelException&) {
            // Interrupted by Stop (with throw mode on): decided below like a time-out.
        }
        m_Pool.Enter(SG);
        if (!m_Job.IsValid()) {
            if (rc == 130) {
                KEL_TRACE(KEL_MODULE_INFO_KelLib, kTrace, kRunFn, "Timeout - leave for() loop");
            }
            break;
        }
        // The thread that handed the job over may not have set the event yet: resetting before
        // it has would leave a stale signal for the next idle wait. Waiting here for every
        // hand-over (not only after a time-out) also matters for speed: the scheduler usually
        // sets the enqueuing thread aside to run the worker it has just woken, and yielding hands
        // the processor back to it (measured: skipping the wait after a signalled wait made the
        // pool about twice as slow under load).
        while (m_bWakePending.load(std::memory_order_acquire))
            std::this_thread::yield();
        m_WakeUp.Reset();
        // b.
        if (m_eQueue == Idle) {
            KEL_TRACE(KEL_MODULE_INFO_KelLib, kTrace, kRunFn,
                      "Move idle thread: Thread-ID=0x%x to running queue")
                << tid;
            MoveTo(Running);
            --m_Pool.m_uIdleThreads;
        }
        // c. Run the job in hand and then the queued ones.
        bool leave = false;
        CJob* surplus = nullptr;
        for (;;) {
            KEL_TRACE(KEL_MODULE_INFO_KelLib, kTrace, kRunFn, "Before SG.Restore()");
            SG.Restore();
            KEL_TRACE(KEL_MODULE_INFO_KelLib, kTrace, kRunFn, "After SG.Restore()");
            // A record the spare list had no room for is freed outside the lock.
            delete surplus;
            surplus = nullptr;
            KEL_TRACE(KEL_MODULE_INFO_KelLib, kTrace, kRunFn, "Before m_Pool.Run()");
            m_Pool.Run(m_Job);
            KEL_TRACE(KEL_MODULE_INFO_KelLib, kTrace, kRunFn, "After m_Pool.Run()");
            m_Job.Release();
            m_Pool.Enter(SG);
            if (m_Pool.m_uStopReq) {
                KEL_TRACE(KEL_MODULE_INFO_KelLib, kTrace, kRunFn, "m_Pool.m_uStopReq - leave for() loop");
                leave = true;
                break;
            }
            if (CJob* job = m_Pool.m_JobQueue.Start()) {
                KEL_TRACE(KEL_MODULE_INFO_KelLib, kTrace, kRunFn,
                          "Delete queued job/thread: Thread-ID=0x%x and force to run")
                    << tid;
                m_Job = std::move(job->m_Job);
                job->Detach();
                surplus = m_Pool.RecycleJob(job);
                continue;
            }
            if (m_Pool.m_uIdleThreads > m_Pool.m_uMinThreads) {
                KEL_TRACE(KEL_MODULE_INFO_KelLib, kTrace, kRunFn,
                          "m_uIdleThreads=%d > m_uMinThreads=%d - leave for() loop")
                    << m_Pool.m_uIdleThreads << m_Pool.m_uMinThreads;
                leave = true;
                break;
            }
            KEL_TRACE(KEL_MODULE_INFO_KelLib, kTrace, kRunFn,
                      "Move running thread: Thread-ID=0x%x to idle queue")
                << tid;
            MoveTo(Idle);
            ++m_Pool.m_uIdleThreads;
            m_WakeUp.Reset();
            // Traced when the worker has nothing left to do and parks in the idle queue.
            KEL_TRACE(KEL_MODULE_INFO_KelLib, kTrace, kRunFn, "Run () - Thread (%s) arbeitslos")
                << CCurrentThread().GetThreadName();
            break;
        }
        if (leave) break;
        SG.Restore();
    }

    // Leaving, under the lock.
    if (m_eQueue == Idle) {
        KEL_TRACE(KEL_MODULE_INFO_KelLib, kTrace, kRunFn, "Move idle thread: Thread-ID=0x%x to delete queue")
            << tid;
        --m_Pool.m_uIdleThreads;
    } else {
        KEL_TRACE(KEL_MODULE_INFO_KelLib, kTrace, kRunFn,
                  "Move running thread: Thread-ID=0x%x to delete queue")
            << tid;
    }
    MoveTo(Deleted);
    KEL_TRACE(KEL_MODULE_INFO_KelLib, kTrace, kRunFn, "Threads=%d, Idle=%d, m_uStopReq=%d")
        << m_Pool.m_uThreads << m_Pool.m_uIdleThreads << m_Pool.m_uStopReq;
    if (KEL_MODULE_INFO_KelLib.CheckTrcPoint(kTrace, 1)) {
        int i = 0;
        for (CPoolThread* p = m_Pool.m_RunningQueue.Start(); p; p = p->Next()) {
            KEL_TRACE(KEL_MODULE_INFO_KelLib, kTrace, kRunFn, "Running queue thread: [%02d] Thread-ID=0x%x")
                << i++ << p->m_Thread.GetThreadID();
        }

        i = 0;
        for (CPoolThread* p = m_Pool.m_IdleQueue.Start(); p; p = p->Next()) {
            KEL_TRACE(KEL_MODULE_INFO_KelLib, kTrace, kRunFn, "Idle queue thread: [%02d] Thread-ID=0x%x")
                << i++ << p->m_Thread.GetThreadID();
        }

        i = 0;
        for (CPoolThread* p = m_Pool.m_DeleteQueue.Start(); p; p = p->Next()) {
            KEL_TRACE(KEL_MODULE_INFO_KelLib, kTrace, kRunFn, "Delete queue thread: [%02d] Thread-ID=0x%x")
                << i++ << p->m_Thread.GetThreadID();
        }

        i = 0;
        for (CJob* j = m_Pool.m_JobQueue.Start(); j; j = j->Next()) {
            KEL_TRACE(KEL_MODULE_INFO_KelLib, kTrace, kRunFn, "Queued job/thread: [%02d] Thread-ID=0x%x")
                << i++ << 0u;
        }
    }
    if (m_Pool.m_uStopReq) m_Pool.m_Event.Set();
    KEL_TRACE(KEL_MODULE_INFO_KelLib, kTrace, kRunFn, "LEAVE CThreadPool::CPoolThread::Run()");
    // After this the reaper may delete the worker: touch nothing of it any more.
    SG.Restore();
}

// ---- CThreadPool --------------------------------------------------------------------------

CThreadPool::~CThreadPool() {
    try {
        Stop();
    } catch (...) {
    }
    CSyncGuard SG;
    Enter(SG);
    DropQueuedJobs();
    while (CJob* job = m_pSpareJobs) {
        m_pSpareJobs = job->m_pNextSpare;
        delete job;
    }
    m_uSpareJobs.store(0, std::memory_order_relaxed);
}

void CThreadPool::DropQueuedJobs() noexcept {
    while (CJob* job = m_JobQueue.Start()) {
        job->Detach();
        delete job;
    }
}

void CThreadPool::LockPool(CSyncGuard& SG) {
    for (unsigned int spin = 0; spin < kLockSpins; ++spin) {
        if (TryEnter(SG) == 1) return;
        CpuRelax();
    }
    Enter(SG);
}

CThreadPool::CJob* CThreadPool::TakeSpareJob() noexcept {
    CJob* job = m_pSpareJobs;
    if (job) {
        m_pSpareJobs = job->m_pNextSpare;
        m_uSpareJobs.store(m_uSpareJobs.load(std::memory_order_relaxed) - 1, std::memory_order_relaxed);
    }
    return job;
}

CThreadPool::CJob* CThreadPool::RecycleJob(CJob* job) noexcept {
    const unsigned int spare = m_uSpareJobs.load(std::memory_order_relaxed);
    if (spare >= kMaxSpareJobs) return job;
    job->m_pNextSpare = m_pSpareJobs;
    m_pSpareJobs = job;
    m_uSpareJobs.store(spare + 1, std::memory_order_relaxed);
    return nullptr;
}

unsigned int CThreadPool::Init(unsigned int minThreads, unsigned int maxThreads, unsigned int idleTimeMs) {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        Native_OS::CCriticalSection::Init(0);
        CSyncGuard SG;
        Enter(SG);
        if (m_uStopReq == 0) KEL_RAISE(0x2001003Cu, "Pool already initialized");
        m_Event.Init(1);
        m_uMinThreads = minThreads;
        m_uMaxThreads = maxThreads == 0 ? 0xFFFFFFFFu : maxThreads;
        m_uIdleTime = idleTimeMs;
        // Workers of an earlier run were all reaped by Stop.
        m_uThreads = 0;
        m_uIdleThreads = 0;
        m_uStopReq = 0;
        return 1u;
    });
}

unsigned int CThreadPool::SetIdleTime(unsigned int ms) {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        CSyncGuard SG;
        Enter(SG);
        if (m_uStopReq) KEL_RAISE(0x2001003Du, "Pool not initialized");
        m_uIdleTime = ms;
        return 1u;
    });
}

void CThreadPool::Reap() {
    while (CPoolThread* p = m_DeleteQueue.Start()) {
        KEL_TRACE(KEL_MODULE_INFO_KelLib, kTrace, kEnqueueFn, "Delete thread: Thread-ID=0x%x")
            << p->m_Thread.GetThreadID();
        p->Detach();
        --m_uThreads;
        delete p;
    }
}

unsigned int CThreadPool::Enqueue(Delegates_and_Calls::CDelegate job) {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        KEL_TRACE(KEL_MODULE_INFO_KelLib, kTrace, kEnqueueFn, "Enter CThreadPool::Enqueue");
        // A job record is made before the lock when no spare one is left, so that the heap is
        // never called while the lock is held; an unused record is kept as a spare, or freed
        // after the lock is released.
        std::unique_ptr<CJob> fresh;
        if (m_uSpareJobs.load(std::memory_order_relaxed) == 0) fresh.reset(new CJob);
        CSyncGuard SG;
        KEL_TRACE(KEL_MODULE_INFO_KelLib, kTrace, kEnqueueFn, "Before m_Lock.Enter(SG)");
        LockPool(SG);
        KEL_TRACE(KEL_MODULE_INFO_KelLib, kTrace, kEnqueueFn, "After m_Lock.Enter(SG)");
        if (m_uStopReq) KEL_RAISE(0x2001003Du, "Pool not initialized");
        Reap();
        CPoolThread* worker = m_IdleQueue.Start();
        if (worker) {
            KEL_TRACE(KEL_MODULE_INFO_KelLib, kTrace, kEnqueueFn, "Unlink idle thread: Thread-ID=0x%x")
                << worker->m_Thread.GetThreadID();
            --m_uIdleThreads;
        } else {
            KEL_TRACE(KEL_MODULE_INFO_KelLib, kTrace, kEnqueueFn, "We have following threads: act=%d max=%d")
                << m_uThreads << m_uMaxThreads;
            // Compared before the increment: the pool may hold one worker more than the maximum.
            if (m_uThreads <= m_uMaxThreads && m_uThreads != 0xFFFFFFFFu) {
                worker = new CPoolThread(*this);
                worker->MoveTo(CPoolThread::Running);
                unsigned int rc = 0;
                try {
                    rc = worker->m_Thread.Create(Delegates_and_Calls::TDelegate<Delegates_and_Calls::CCall>(
                        worker, &CPoolThread::Run));
                } catch (...) {
                    worker->Detach();
                    delete worker;
                    throw;
                }
                if (rc != 1) {
                    worker->Detach();
                    delete worker;
                    KEL_RAISE(rc, "Pool thread could not be started");
                }
                ++m_uThreads;
                KEL_TRACE(KEL_MODULE_INFO_KelLib, kTrace, kEnqueueFn,
                          "Create new pool thread: Thread-ID=0x%x act=%d max=%d")
                    << worker->m_Thread.GetThreadID() << m_uThreads << m_uMaxThreads;
            } else {
                job.HandOver();
                CJob* record = fresh ? fresh.release() : TakeSpareJob();
                if (!record) record = new CJob; // the spares went to other threads meanwhile
                record->m_Job = std::move(job);
                m_JobQueue.Add(record);
                KEL_TRACE(KEL_MODULE_INFO_KelLib, kTrace, kEnqueueFn,
                          "Create new queued job/thread: Thread-ID=0x%x")
                    << 0u;
                SG.Restore();
                KEL_TRACE(KEL_MODULE_INFO_KelLib, kTrace, kEnqueueFn, "LEAVE CThreadPool::Enqueue");
                return 1u;
            }
        }
        job.HandOver();
        worker->m_Job = std::move(job);
        worker->MoveTo(CPoolThread::Running);
        worker->m_bWakePending.store(true, std::memory_order_relaxed);
        KEL_TRACE(KEL_MODULE_INFO_KelLib, kTrace, kEnqueueFn,
                  "Add thread: Thread-ID=0x%x to running queue and wake up to run")
            << worker->m_Thread.GetThreadID();
        if (fresh && !RecycleJob(fresh.get())) fresh.release();
        SG.Restore();
        // Woken after the lock is released: the scheduler tends to run the woken worker at once,
        // and a waker set aside while still holding the lock stalls every other worker. The
        // worker cannot end (nor be reaped) before the flag drops, because it waits for the flag
        // before it resets its event.
        worker->m_WakeUp.Set();
        worker->m_bWakePending.store(false, std::memory_order_release);
        KEL_TRACE(KEL_MODULE_INFO_KelLib, kTrace, kEnqueueFn, "LEAVE CThreadPool::Enqueue");
        return 1u;
    });
}

unsigned int CThreadPool::Stop() {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        KEL_TRACE(KEL_MODULE_INFO_KelLib, kTrace, kStopFn, "ENTER CThreadPool::Stop()");
        CSyncGuard SG;
        Enter(SG);
        if (m_uStopReq || m_uThreads == 0) {
            // A pool without workers stays open and keeps accepting work.
            SG.Restore();
            KEL_TRACE(KEL_MODULE_INFO_KelLib, kTrace, kStopFn, "LEAVE CThreadPool::Stop()");
            return 1u;
        }
        m_uStopReq = 1;
        unsigned int cancels = 0;
        for (CPoolThread* p = m_IdleQueue.Start(); p; p = p->Next()) {
            if (cancels++ == kMaxCancels) {
                KEL_TRACE(KEL_MODULE_INFO_KelLib, kTrace, kStopFn,
                          "After pThread->m_Thread.Cancel() endless loop detected");
                break;
            }
            KEL_TRACE(KEL_MODULE_INFO_KelLib, kTrace, kStopFn, "Cancel idle thread: Thread-ID=0x%x")
                << p->m_Thread.GetThreadID();
            p->m_Thread.Cancel();
            KEL_TRACE(KEL_MODULE_INFO_KelLib, kTrace, kStopFn, "After pThread->m_Thread.Cancel()");
        }
        // Workers that have not left yet set the pool event on their way out; those already in
        // the delete queue are reaped here.
        for (;;) {
            if (m_uThreads == 0) break;
            if (CPoolThread* p = m_DeleteQueue.Start()) {
                p->Detach();
                --m_uThreads;
                SG.Restore();
                KEL_TRACE(KEL_MODULE_INFO_KelLib, kTrace, kStopFn, "Wait for idle thread: Thread-ID=0x%x")
                    << p->m_Thread.GetThreadID();
                delete p; // waits for the thread's end
                Enter(SG);
                continue;
            }
            KEL_TRACE(KEL_MODULE_INFO_KelLib, kTrace, kStopFn, "It seems that we still have %d threads")
                << m_uThreads;
            m_Event.Reset();
            SG.Restore();
            m_Event.Wait();
            Enter(SG);
        }
        KEL_TRACE(KEL_MODULE_INFO_KelLib, kTrace, kStopFn, "All threads are gone");
        DropQueuedJobs();
        SG.Restore();
        KEL_TRACE(KEL_MODULE_INFO_KelLib, kTrace, kStopFn, "LEAVE CThreadPool::Stop()");
        return 1u;
    });
}

unsigned int CThreadPool::Run(Delegates_and_Calls::CDelegate& job) {
    try {
        return job();
    } catch (...) {
        // A foreign exception leaves the job; the worker stays.
        return 0;
    }
}

unsigned int CThreadPool::GetThreadCount() {
    CSyncGuard SG;
    Enter(SG);
    return m_uThreads;
}

unsigned int CThreadPool::GetIdleCount() {
    CSyncGuard SG;
    Enter(SG);
    return m_uIdleThreads;
}

unsigned int CThreadPool::GetQueuedJobCount() {
    CSyncGuard SG;
    Enter(SG);
    return static_cast<unsigned int>(m_JobQueue.Count());
}

} // namespace Threading
} // namespace KEL
