// kelbase - Src/threads/EventHandler.cpp
//
// The counting event mailbox. It sits on the standard primitives rather than the library's wait
// engine: its users wait for application events, not for library objects, and must not be
// thrown out of a wait by a thread interrupt.
//
// The lock is a plain std::mutex with a std::condition_variable: nothing runs under the lock
// but the list walk, so it is never taken twice by one thread, and the plain pair waits on the
// caller's mutex directly, where the lock-type-agnostic condition variable takes a second,
// shared mutex (and its reference count) on every wait.
#define KEL_SOURCE_FILE "Src/threads"
#include <kel/Threading.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <utility>
#include <vector>

namespace KEL {
namespace Threading {

class CEventHandler::CEventHandlerImpl {
public:
    /// Room for a few distinct ids, so that the usual handler never allocates after its start:
    /// entries that are consumed leave their capacity behind.
    static constexpr size_t kInitialIds = 8;

    CEventHandlerImpl() { pending.reserve(kInitialIds); }

    /// (id, count) in order of first posting; a count never drops to 0 in the list.
    std::vector<std::pair<int, uint64_t>> pending;
    std::mutex mutex;
    std::condition_variable wake;

    /// Consumes one post of the first id of `events` that is pending.
    bool TakeFirst(const std::initializer_list<int>& events, CEventHandlerNS::wait_forNS::TResult& result) {
        for (int id : events) {
            for (auto it = pending.begin(); it != pending.end(); ++it) {
                if (it->first != id) continue;
                if (it->second < 2)
                    pending.erase(it);
                else
                    --it->second;
                result = CEventHandlerNS::wait_forNS::TResult(true, id);
                return true;
            }
        }
        return false;
    }
};

CEventHandler::CEventHandler() : m_pImpl(new CEventHandlerImpl) {}
CEventHandler::~CEventHandler() = default;
CEventHandler::CEventHandler(CEventHandler&& other) noexcept = default;
CEventHandler& CEventHandler::operator=(CEventHandler&& other) noexcept = default;

void CEventHandler::notifyOne(int event) {
    {
        std::lock_guard<std::mutex> lock(m_pImpl->mutex);
        auto& pending = m_pImpl->pending;
        auto it = pending.begin();
        while (it != pending.end() && it->first != event)
            ++it;
        if (it != pending.end())
            ++it->second;
        else
            pending.emplace_back(event, 1u);
    }
    // Signalled after the unlock, so that the woken waiter does not run into the lock still
    // held here. The post was made under the lock, so a waiter between its check and its wait
    // still holds the lock and cannot miss it.
    m_pImpl->wake.notify_one();
}

CEventHandlerNS::wait_forNS::TResult CEventHandler::wait_for(const std::initializer_list<int>& events,
                                                             unsigned long long timeoutMs) {
    using Clock = std::chrono::steady_clock;
    CEventHandlerNS::wait_forNS::TResult result;
    const long long signedMs = static_cast<long long>(timeoutMs);
    // Beyond this a deadline would overflow the clock's representation; such waits have no
    // deadline at all.
    constexpr long long kUnbounded = 100LL * 365 * 24 * 3600 * 1000;
    const bool forever = signedMs > kUnbounded;
    const Clock::time_point deadline = signedMs > 0 && !forever
                                           ? Clock::now() + std::chrono::milliseconds(signedMs)
                                           : Clock::time_point::min();

    std::unique_lock<std::mutex> lock(m_pImpl->mutex);
    if (m_pImpl->TakeFirst(events, result) || signedMs <= 0) return result;
    for (;;) {
        if (forever) {
            m_pImpl->wake.wait(lock);
        } else if (m_pImpl->wake.wait_until(lock, deadline) == std::cv_status::timeout) {
            m_pImpl->TakeFirst(events, result);
            break;
        }
        if (m_pImpl->TakeFirst(events, result)) break;
    }
    return result;
}

} // namespace Threading
} // namespace KEL
