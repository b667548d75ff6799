// kelbase - tests/ldap/TraceCapture.h
//
// Collects the library's trace entries in memory while it lives (through the kernel's writer
// hook, switching on the categories the directory code writes), so tests can look for lines.
#pragma once

#include <kel/Exceptions.h>
#include <kel/Misc.h>

#include "KelKrnl/Hooks.h"

#include <mutex>
#include <string>
#include <vector>

namespace KelTest {

class CTraceCapture {
public:
    CTraceCapture() {
        {
            std::lock_guard<std::mutex> lock(Mutex());
            Lines().clear();
        }
        m_uOldMask = KEL::KEL_MODULE_INFO_KelLib.GetTrcPoints();
        KEL::KEL_MODULE_INFO_KelLib.SetTrcPoints(m_uOldMask | 0x60000000u);
        m_pfnOld = KEL::Internals::g_pfnTraceWrite.exchange(&Write);
    }
    ~CTraceCapture() {
        KEL::Internals::g_pfnTraceWrite.store(m_pfnOld);
        KEL::KEL_MODULE_INFO_KelLib.SetTrcPoints(m_uOldMask);
    }
    CTraceCapture(const CTraceCapture&) = delete;
    CTraceCapture& operator=(const CTraceCapture&) = delete;

    /// Whether an entry's text (after its header line) is exactly `text`.
    bool Has(const std::string& text) const { return Count(text) > 0; }
    size_t Count(const std::string& text) const {
        std::lock_guard<std::mutex> lock(Mutex());
        size_t n = 0;
        for (const std::string& entry : Lines()) {
            size_t at = entry.find('\n', 1);
            if (at != std::string::npos && entry.compare(at + 1, std::string::npos, text) == 0) ++n;
        }
        return n;
    }
    /// Whether an entry's header names `function`.
    bool FromFunction(const std::string& function) const {
        std::lock_guard<std::mutex> lock(Mutex());
        for (const std::string& entry : Lines())
            if (entry.find("kelbase::" + function + "@") != std::string::npos) return true;
        return false;
    }

private:
    static void Write(const KEL::Strings::CStringRef& entry) {
        std::lock_guard<std::mutex> lock(Mutex());
        Lines().emplace_back(entry.C_Str());
    }
    static std::vector<std::string>& Lines() {
        static std::vector<std::string> lines;
        return lines;
    }
    static std::mutex& Mutex() {
        static std::mutex m;
        return m;
    }

    unsigned int m_uOldMask;
    KEL::Internals::PFN_TRACE_WRITE m_pfnOld;
};

} // namespace KelTest
