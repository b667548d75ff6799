// kelbase - Src/Delegate/Delegate.cpp
//
// Counted delegates: sharing the call block and running the call so that a library exception
// is recorded in the block instead of travelling on.
#define KEL_SOURCE_FILE "Src/Delegate"
#include <kel/Delegates.h>
#include <kel/Threading.h>
#include <kel/Trace.h>

namespace KEL {
namespace Delegates_and_Calls {

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
