// kelbase - Src/trace/TraceStreamBuffer.cpp
//
// One trace entry: the header is written when the entry begins, the finished entry goes to the
// open trace (through the kernel's writer hook) when the buffer is destroyed.
#define KEL_SOURCE_FILE "Src/trace"
#include <kel/Functions.h>
#include <kel/Trace.h>

#include "KelKrnl/Hooks.h"
#include "threads/ThreadCB.h"

#include <cstring>

namespace KEL {
namespace Internals {

CTraceStreamBuffer::CTraceStreamBuffer(unsigned int category, Misc::CModuleInfo& module, const char* function,
                                       unsigned int line) {
    WriteHeader(category, module, function, nullptr, line);
}

CTraceStreamBuffer::CTraceStreamBuffer(unsigned int category, Misc::CModuleInfo& module, const char* function,
                                       const char* second, unsigned int line) {
    WriteHeader(category, module, function, second ? second : "", line);
}

void CTraceStreamBuffer::WriteHeader(unsigned int category, Misc::CModuleInfo& module, const char* function,
                                     const char* second, unsigned int line) {
    unsigned long long t = Functions::GetTickTime(10000);
    unsigned int hours = static_cast<unsigned int>(t / 36000000ull);
    unsigned int minutes = static_cast<unsigned int>((t % 36000000ull) / 600000ull);
    unsigned int seconds = static_cast<unsigned int>((t % 600000ull) / 10000ull);
    unsigned int fraction = static_cast<unsigned int>(t % 10000ull);
    unsigned int digits = category > 0xFFFFu ? 8u : 4u;
    CThreadCB* cb = CThreadCB::Peek();
    const char* thread = cb ? cb->m_Name.C_Str() : "undefined";
    if (category & 0x80000000u) {
        m_Entry.Format("**F%0*X** %02d:%02d:%02d.%04d [TID=%s]: ")
            << digits << category << hours << minutes << seconds << fraction << thread;
    } else if (second) {
        m_Entry.Format("\n**F%0*X** %02d:%02d:%02d.%04d [TID=%s] %s::%s:%s@%d\n")
            << digits << category << hours << minutes << seconds << fraction << thread << module.GetModuleName()
            << (function ? function : "") << second << line;
    } else {
        m_Entry.Format("\n**F%0*X** %02d:%02d:%02d.%04d [TID=%s] %s::%s@%d\n")
            << digits << category << hours << minutes << seconds << fraction << thread << module.GetModuleName()
            << (function ? function : "") << line;
    }
    m_nColumn = 0;
}

CTraceStreamBuffer::~CTraceStreamBuffer() {
    if (PFN_TRACE_WRITE write = g_pfnTraceWrite.load(std::memory_order_acquire)) {
        try {
            write(m_Entry);
        } catch (...) {
            // A trace that cannot write must never take its caller down.
        }
    }
}

void CTraceStreamBuffer::Write(const char* text, size_t length, unsigned int upperCase) {
    size_t at = m_Entry.Length();
    m_Entry.Cat(text, length);
    if (upperCase) m_Entry.ToUpper(at);
}

void CTraceStreamBuffer::Fill(int ch, size_t count) {
    size_t at = m_Entry.Length();
    char* p = m_Entry.Lock(count);
    std::memset(p, ch, count);
    p[count] = '\0';
    m_Entry.Unlock(at + count);
}

} // namespace Internals
} // namespace KEL
