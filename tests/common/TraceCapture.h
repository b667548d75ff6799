// kelbase - tests/common/TraceCapture.h
//
// Collects the library's trace entries in memory while it lives, through the kernel's writer
// hook, so tests can look for lines. Entries may come from several threads (both ends of a
// loopback connection), hence the lock.
#pragma once

#include <kel/Exceptions.h>
#include <kel/Misc.h>

#include "KelKrnl/Hooks.h"

#include <mutex>
#include <string>
#include <vector>

namespace kel_test {

class CTraceCapture {
public:
    /// Switches the library's trace points to `points`, or adds them to those on (`add`).
    explicit CTraceCapture(unsigned int points = 0x40000000u, bool add = false)
        : m_uSaved(KEL::KEL_MODULE_INFO_KelLib.GetTrcPoints()) {
        Clear();
        m_pSavedWriter = KEL::Internals::g_pfnTraceWrite.exchange(&Write);
        KEL::KEL_MODULE_INFO_KelLib.SetTrcPoints(add ? m_uSaved | points : points);
    }
    ~CTraceCapture() {
        KEL::KEL_MODULE_INFO_KelLib.SetTrcPoints(m_uSaved);
        KEL::Internals::g_pfnTraceWrite.store(m_pSavedWriter);
    }
    CTraceCapture(const CTraceCapture&) = delete;
    CTraceCapture& operator=(const CTraceCapture&) = delete;

    /// Forgets the entries so far.
    static void Clear() {
        std::lock_guard<std::mutex> lock(Mutex());
        Store().clear();
    }
    /// The entries so far, oldest first.
    static std::vector<std::string> Entries() {
        std::lock_guard<std::mutex> lock(Mutex());
        return Store();
    }
    /// Entries whose text contains `needle`.
    size_t Count(const std::string& needle) const {
        size_t n = 0;
        for (const std::string& e : Entries()) n += e.find(needle) != std::string::npos;
        return n;
    }
    /// Entries whose text after the header line is exactly `text`.
    size_t CountExact(const std::string& text) const {
        size_t n = 0;
        for (const std::string& e : Entries()) {
            const size_t at = e.find('\n', 1);
            n += at != std::string::npos && e.compare(at + 1, std::string::npos, text) == 0;
        }
        return n;
    }
    bool Has(const std::string& text) const { return CountExact(text) > 0; }
    /// Whether an entry's header names `function`.
    bool FromFunction(const std::string& function) const { return Count("kelbase::" + function + "@") > 0; }

private:
    static void Write(const KEL::Strings::CStringRef& entry) {
        std::lock_guard<std::mutex> lock(Mutex());
        Store().emplace_back(entry.C_Str(), entry.Length());
    }
    static std::vector<std::string>& Store() {
        static std::vector<std::string> entries;
        return entries;
    }
    static std::mutex& Mutex() {
        static std::mutex m;
        return m;
    }

    unsigned int m_uSaved;
    KEL::Internals::PFN_TRACE_WRITE m_pSavedWriter;
};

} // namespace kel_test
