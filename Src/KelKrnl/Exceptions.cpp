// kelbase - Src/KelKrnl/Exceptions.cpp
//
// Raising, passing and ending library exceptions, the per-thread throw mode, and the rendering
// of an error log as text.
#define KEL_SOURCE_FILE "Src/KelKrnl"
#include <kel/Exceptions.h>
#include <kel/Functions.h>
#include <kel/Misc.h>

#include "threads/ThreadCB.h"

#include <boost/format.hpp>

#include <new>

namespace KEL {
namespace Threading {

std::atomic<unsigned int> CThrowState::s_nThrowingThreads{0};

// Changes the calling thread's mode and keeps the process-wide count of throwing threads.
unsigned int CThrowState::SwapMode(Internals::CThreadCB& cb, unsigned int on) noexcept {
    unsigned int prev = cb.m_ThrowState.m_uThrow;
    on = on ? 1u : 0u;
    if (prev != on) {
        cb.m_ThrowState.m_uThrow = on;
        if (on)
            s_nThrowingThreads.fetch_add(1, std::memory_order_relaxed);
        else
            s_nThrowingThreads.fetch_sub(1, std::memory_order_relaxed);
    }
    return prev;
}

namespace {
// The status of the library exception being handled. The thread's log has it unless memory
// ran out while the log was made; only then is the exception itself asked (a rethrow).
unsigned int CurrentStatus(const Exceptions::CErrorLog& log) noexcept {
    unsigned int code = log.GetError();
    if (code) return code;
    try {
        if (std::current_exception()) throw;
    } catch (const Exceptions::CKelException& e) {
        code = e.GetCode();
    } catch (...) {
    }
    return code ? code : 0x2001001Au;
}
} // namespace

void CThrowState::Init() noexcept {
    if (m_bInit) return;
    m_pTCB = &Internals::CThreadCB::Current();
    m_uSavedMode = m_pTCB->m_ThrowState.m_uThrow;
    m_bInit = true;
}

void CThrowState::Restore() noexcept {
    if (m_bChanged && m_pTCB) {
        SwapMode(*m_pTCB, m_uSavedMode);
        m_bChanged = false;
    }
}

Internals::CThreadCB* CThrowState::GetThreadCB() noexcept {
    Init();
    return m_pTCB;
}

unsigned int CThrowState::SetThrow(unsigned int on) { return SwapMode(Internals::CThreadCB::Current(), on); }

unsigned int CThrowState::GetThrow() noexcept {
    Internals::CThreadCB* cb = Internals::CThreadCB::Peek();
    return cb ? cb->m_ThrowState.m_uThrow : 0u;
}

unsigned int CThrowState::ThrowNext(Exceptions::SOURCE_INFO& site) {
    Init();
    return ThrowNext(site, CurrentStatus(m_pTCB->m_ThrowState.m_Log));
}

unsigned int CThrowState::ThrowNext(Exceptions::SOURCE_INFO& site, unsigned int code) {
    Init();
    Exceptions::CErrorLog& log = m_pTCB->m_ThrowState.m_Log;
    // Throw mode stays on while the site is added, so that nothing raised meanwhile is lost.
    if (!m_pTCB->m_ThrowState.m_uThrow) {
        SwapMode(*m_pTCB, 1);
        m_bChanged = true;
    }
    log.BeginMessage(&site);
    Restore();
    if (m_uSavedMode) throw Exceptions::CKelException(code);
    return code;
}

unsigned int CThrowState::EndException(Exceptions::SOURCE_INFO& site) {
    Init();
    Exceptions::CErrorLog& log = m_pTCB->m_ThrowState.m_Log;
    unsigned int code = CurrentStatus(log);
    log.BeginMessage(&site);
    return code;
}

} // namespace Threading

namespace Exceptions {

CErrorLog& ThreadErrorLog() { return Internals::CThreadCB::Current().m_ThrowState.m_Log; }

CFormatStreamCurrExc::CFormatStreamCurrExc(unsigned int code, const NATIVE_ERROR* native, SOURCE_INFO* site,
                                           const char* format)
    : m_uCode(code), m_Buffer(m_Log) {
    if (m_Log.Start(code, native) && m_Log.BeginMessage(site)) {
        m_pStream = new (m_Stream) Output_Streams::CFormatStream(m_Buffer, format ? format : "");
    }
}

CFormatStreamCurrExc::CFormatStreamCurrExc(unsigned int code, const NATIVE_ERROR* native, SOURCE_INFO* site,
                                           std::string&& text)
    : m_uCode(code), m_Buffer(m_Log), m_Text(std::move(text)) {
    if (m_Log.Start(code, native) && m_Log.BeginMessage(site)) m_Log.AppendText(m_Text.data(), m_Text.size(), 0);
}

void CFormatStreamCurrExc::EndMessage() noexcept {
    if (m_pStream) {
        m_pStream->~CFormatStream(); // writes the text after the last directive
        m_pStream = nullptr;
    }
}

CFormatStreamCurrExc::~CFormatStreamCurrExc() { EndMessage(); }

void CFormatStreamCurrExc::tryThrow() {
    EndMessage();
    Internals::CThreadCB* cb = nullptr;
    try {
        cb = &Internals::CThreadCB::Current();
    } catch (...) {
    }
    if (cb && !m_Log.IsEmpty()) cb->m_ThrowState.m_Log = std::move(m_Log);
    throw CKelException(m_uCode);
}

CFormatStreamCurrExc CException::prepareThrow(unsigned int code, const char* message) {
    (void)m_State;
    (void)m_uLine;
    return CFormatStreamCurrExc(code, nullptr, nullptr, message);
}

CFormatStreamCurrExc CException::prepareThrow(unsigned int code, const NATIVE_ERROR& native, const char* message) {
    return CFormatStreamCurrExc(code, &native, nullptr, message);
}

CFormatStreamCurrExc CException::prepareThrow(unsigned int code, SOURCE_INFO& site, const char* message) {
    return CFormatStreamCurrExc(code, nullptr, &site, message);
}

CFormatStreamCurrExc CException::prepareThrow(unsigned int code, const NATIVE_ERROR& native, SOURCE_INFO& site,
                                              const char* message) {
    return CFormatStreamCurrExc(code, &native, &site, message);
}

CFormatStreamCurrExc CException::prepareThrow(unsigned int code, const boost::format& message) {
    return CFormatStreamCurrExc(code, nullptr, nullptr, message.str());
}

CFormatStreamCurrExc CException::prepareThrow(unsigned int code, const NATIVE_ERROR& native,
                                              const boost::format& message) {
    return CFormatStreamCurrExc(code, &native, nullptr, message.str());
}

CFormatStreamCurrExc CException::prepareThrow(unsigned int code, SOURCE_INFO& site, const boost::format& message) {
    return CFormatStreamCurrExc(code, nullptr, &site, message.str());
}

void CExceptionLog::Format(const char* message) {
    CErrorLog& log = ThreadErrorLog();
    if (!log.BeginMessage(&m_Site)) return;
    CExceptionBuffer buffer(log);
    try {
        Output_Streams::CFormatStream s(buffer, message ? message : "");
    } catch (const Output_Streams::Internals::CFormatAbort&) {
    }
}

unsigned int CExceptionLog::tryThrow(unsigned int code) {
    m_State.Init();
    if (m_State.CallerThrows()) throw CKelException(code);
    return code;
}

} // namespace Exceptions
} // namespace KEL
