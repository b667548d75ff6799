// kelbase - Trace.h
//
// Trace entries (KEL::Trace). Code writes an entry only when its module's trace-point mask has
// the entry's category bit set, so a switched-off trace point costs one load and one test:
//
//     KEL_TRACE(KEL::KEL_MODULE_INFO_KelLib, 0x20, "KEL::Threading::Native_OS::CFastEvent::Init",
//               "After CreateEvent handle=(x%x)") << handle;
//
// Categories used by the library: 0x20 threading steps, 0x20000000 module and socket events,
// 0x40000000 string limits, TLS and failure reports.
#pragma once

#include <kel/Misc.h>
#include <kel/OutputStreams.h>

namespace KEL {
namespace Trace {
class CTrace;
}

namespace Internals {

/// The sink of one trace entry: writes the entry header at construction (tick time, category,
/// thread name, module, function, line) and hands the finished entry to the trace when it is
/// destroyed. An entry whose category has bit 31 set continues the previous one.
class KEL_API CTraceStreamBuffer : public Output_Streams::Base_Classes::CFormatStreamBuffer {
public:
    CTraceStreamBuffer(unsigned int category, Misc::CModuleInfo& module, const char* function, unsigned int line);
    CTraceStreamBuffer(unsigned int category, Misc::CModuleInfo& module, const char* function, const char* second,
                       unsigned int line);
    ~CTraceStreamBuffer() override;
    CTraceStreamBuffer(const CTraceStreamBuffer&) = delete;
    CTraceStreamBuffer& operator=(const CTraceStreamBuffer&) = delete;

    void Write(const char* text, size_t length, unsigned int upperCase) override;
    void Fill(int ch, size_t count) override;
    /// The entry so far (header and text).
    const Strings::CStringVar& GetEntry() const noexcept { return m_Entry; }

private:
    void WriteHeader(unsigned int category, Misc::CModuleInfo& module, const char* function, const char* second,
                     unsigned int line);
    Strings::TString<512> m_Entry;
};

} // namespace Internals
} // namespace KEL

/// Starts a trace entry of `category` for `module` from `function` when that trace point is on;
/// the format's arguments follow with <<. Nothing is formatted when the point is off.
#define KEL_TRACE(module, category, function, format)                                                          \
    if (!(module).CheckTrcPoint((category), 1)) {                                                              \
    } else                                                                                                     \
        ::KEL::Internals::CTraceStreamBuffer((category), (module), (function), __LINE__).Format(format)
