// kelbase - Src/Delegate/Delegate.cpp
//
// Counted delegates: sharing the call block and running the call so that a library exception
// is recorded in the block instead of travelling on.
#define KEL_SOURCE_FILE "Src/Delegate"
#include <kel/Delegates.h>
#include <kel/Threading.h>
#include <kel/Trace.h>

#include <mutex>

#if defined(__SANITIZE_ADDRESS__)
#define KEL_BLOCK_CACHE 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(memory_sanitizer)
#define KEL_BLOCK_CACHE 0
#endif
#endif
#ifndef KEL_BLOCK_CACHE
#define KEL_BLOCK_CACHE 1
#endif

namespace KEL {
namespace Delegates_and_Calls {

// ---- the block cache ------------------------------------------------------------------------
//
// Each thread keeps up to one batch of free blocks per size class. A thread that frees more
// hands its whole batch to a shared depot and starts a new one; a thread that runs out takes a
// batch from the depot. So the depot's lock is taken once per batch, and blocks made on one
// thread and freed on another (a pool's jobs) go round without the heap. Every block comes
// from the global operator new of its class size, so a block freed after its thread's cache
// is gone (or once the depot is full) simply goes back to the heap. AddressSanitizer builds
// leave the blocks to the heap, whose checks would not see into a cache; ThreadSanitizer
// builds keep the cache, so that its hand-over between threads is checked too.
namespace {

#if KEL_BLOCK_CACHE
constexpr std::size_t kClassSize[] = {32, 64, 128, 256};
constexpr unsigned int kClasses = sizeof(kClassSize) / sizeof(kClassSize[0]);
constexpr unsigned int kBatch = 64;
/// Batches the depot keeps per class (at most 64 * 64 * 256 bytes = 1 MiB in the largest).
constexpr unsigned int kDepotBatches = 64;

struct CFreeBlock {
    CFreeBlock* next;      ///< within a batch
    CFreeBlock* nextBatch; ///< first blocks of the depot's batches
    unsigned int length;   ///< blocks in the batch (first block only)
};
static_assert(sizeof(CFreeBlock) <= 32, "a free block must fit the smallest class");

int ClassOf(std::size_t size) noexcept {
    for (unsigned int c = 0; c < kClasses; ++c)
        if (size <= kClassSize[c]) return static_cast<int>(c);
    return -1;
}

void FreeBatch(CFreeBlock* block) noexcept {
    while (block) {
        CFreeBlock* next = block->next;
        ::operator delete(block);
        block = next;
    }
}

struct CDepot {
    std::mutex lock;
    CFreeBlock* batches[kClasses] = {};
    unsigned int count[kClasses] = {};

    void Put(unsigned int c, CFreeBlock* batch, unsigned int length) noexcept {
        if (!batch) return;
        batch->length = length;
        {
            std::lock_guard<std::mutex> guard(lock);
            if (count[c] < kDepotBatches) {
                batch->nextBatch = batches[c];
                batches[c] = batch;
                ++count[c];
                return;
            }
        }
        FreeBatch(batch);
    }
    CFreeBlock* Take(unsigned int c, unsigned int& length) noexcept {
        std::lock_guard<std::mutex> guard(lock);
        CFreeBlock* batch = batches[c];
        if (batch) {
            batches[c] = batch->nextBatch;
            --count[c];
            length = batch->length;
        }
        return batch;
    }
};

// Never destroyed: blocks may be freed by destructors that run after the static ones.
CDepot& Depot() noexcept {
    static CDepot* depot = new CDepot;
    return *depot;
}

struct CThreadCache {
    CFreeBlock* head[kClasses] = {};
    unsigned int count[kClasses] = {};
    ~CThreadCache();
};

enum : unsigned char { CacheUnused, CacheAlive, CacheGone };
thread_local unsigned char t_cacheState = CacheUnused;
thread_local CThreadCache t_cache;

CThreadCache::~CThreadCache() {
    t_cacheState = CacheGone;
    for (unsigned int c = 0; c < kClasses; ++c) Depot().Put(c, head[c], count[c]);
}

CThreadCache* Cache() noexcept {
    if (t_cacheState == CacheAlive) return &t_cache;
    if (t_cacheState == CacheGone) return nullptr;
    t_cacheState = CacheAlive;
    return &t_cache; // first use constructs it and registers its destructor
}
#endif

} // namespace

void* CDelegate::CCbBase::operator new(std::size_t size) {
#if KEL_BLOCK_CACHE
    const int c = ClassOf(size);
    if (c < 0) return ::operator new(size);
    if (CThreadCache* cache = Cache()) {
        CFreeBlock* block = cache->head[c];
        if (!block) {
            unsigned int length = 0;
            block = Depot().Take(static_cast<unsigned int>(c), length);
            cache->count[c] = length;
        }
        if (block) {
            cache->head[c] = block->next;
            --cache->count[c];
            return block;
        }
    }
    return ::operator new(kClassSize[c]);
#else
    return ::operator new(size);
#endif
}

void CDelegate::CCbBase::operator delete(void* block, std::size_t size) noexcept {
#if KEL_BLOCK_CACHE
    const int c = ClassOf(size);
    CThreadCache* cache = c < 0 ? nullptr : Cache();
    if (!cache) {
        ::operator delete(block);
        return;
    }
    if (cache->count[c] == kBatch) {
        Depot().Put(static_cast<unsigned int>(c), cache->head[c], kBatch);
        cache->head[c] = nullptr;
        cache->count[c] = 0;
    }
    CFreeBlock* free = static_cast<CFreeBlock*>(block);
    free->next = cache->head[c];
    cache->head[c] = free;
    ++cache->count[c];
#else
    (void)size;
    ::operator delete(block);
#endif
}

CDelegate::CCbBase::~CCbBase() = default;

CDelegate& CDelegate::operator=(const CDelegate& other) noexcept {
    if (this != &other) {
        if (other.m_pCB) other.m_pCB->Incr();
        Release();
        m_pCB = other.m_pCB;
    }
    return *this;
}

CDelegate& CDelegate::operator=(CDelegate&& other) noexcept {
    if (this != &other) {
        Release();
        m_pCB = other.m_pCB;
        other.m_pCB = nullptr;
    }
    return *this;
}

void CDelegate::Release() noexcept {
    if (m_pCB && m_pCB->Decr() == 0) delete m_pCB;
    m_pCB = nullptr;
}

unsigned int CDelegate::operator()() {
    if (!m_pCB) return 1;
    Threading::CThrowState state;
    try {
        m_pCB->m_ErrorLog.Clear();
        m_pCB->Call();
    } catch (const Exceptions::CKelException&) {
        state.EndException(KEL_SITE());
        Exceptions::CErrorLog& log = Exceptions::ThreadErrorLog();
        m_pCB->m_ErrorLog = log;
        KEL_TRACE(KEL_MODULE_INFO_KelLib, 0x40000000, "KEL::Delegates_and_Calls::CDelegate::operator ()",
                  "QUIETSCH, Delegate-Job ist mit einem Exception abgeraucht!!!\n\n%S")
            << log;
        m_pCB->Failed();
        return 0;
    }
    return 1;
}

unsigned int CDelegate::GetError() const noexcept { return m_pCB ? m_pCB->m_ErrorLog.GetError() : 0u; }

unsigned int CDelegate::GetError(Exceptions::CErrorLog& log) const {
    if (m_pCB && m_pCB->m_ErrorLog.GetError() != 0) {
        log = m_pCB->m_ErrorLog;
        return log.GetError();
    }
    log.Clear();
    return 0;
}

// ---- CWaitableCall ---------------------------------------------------------------------------

unsigned int CWaitableCall::Init(CCbHead* block) {
    Reset(block);
    // Signalled at the start: a call that was never handed over has no run to wait for.
    return block->m_Event.Init(false, true);
}

CWaitableCall::operator Threading::CWaitHandle() const noexcept {
    const CCbHead* block = static_cast<const CCbHead*>(GetCB());
    return block ? static_cast<Threading::CWaitHandle>(block->m_Event) : Threading::CWaitHandle();
}

unsigned int CWaitableCall::Wait(unsigned int timeout) {
    Threading::CWaiter waiter;
    waiter << static_cast<Threading::CWaitHandle>(*this);
    return waiter.Wait(timeout, false);
}

} // namespace Delegates_and_Calls
} // namespace KEL
