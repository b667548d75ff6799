// kelbase - Src/KelKrnl/ErrorLogText.cpp
//
// An error log rendered as text, as it appears in traces, delegate reports and the suite's
// logs: the status with its module and text, the native error, then the message stack with
// the site of each message.
#define KEL_SOURCE_FILE "Src/KelKrnl"
#include <kel/Exceptions.h>
#include <kel/Functions.h>
#include <kel/Misc.h>

namespace KEL {
namespace Output_Streams {

namespace {

void RenderCode(Strings::CStringVar& out, const char* caption, const char* unknownCaption, unsigned int code,
                unsigned int number, unsigned int moduleKey) {
    Misc::CModuleInfo* module = Functions::GetModuleInfo(moduleKey);
    if (module) {
        Strings::TString<256> text;
        module->GetErrorMsg(text, code);
        out.Format(caption) << module->GetModuleName() << number << code << text;
    } else {
        unsigned int id = (moduleKey & 0x20000000u) ? ((moduleKey >> 16) & 0x1FFFu) : moduleKey;
        out.Format(unknownCaption) << id << number << code;
    }
}

void RenderSite(Strings::CStringVar& out, const char* format, const Exceptions::SOURCE_INFO* site) {
    if (!site) {
        out += " Source information lost!\n";
    } else {
        const char* name = site->module ? site->module->GetModuleName() : "?";
        out.Format(format) << name << (site->file ? site->file : "?") << site->line;
    }
}

} // namespace

CFormatStream& CFormatStream::operator<<(const Exceptions::CErrorLog& log) {
    Strings::TString<1024> text;
    Exceptions::NATIVE_ERROR native;
    unsigned int code = log.GetError(native);
    if (code != 0) {
        RenderCode(text, "Error   : %s::%d (0x%X)\nMessage : %s\n", "Error   : %d::%d (0x%X)\n", code, code & 0xFFFFu,
                   code);
        if (native.kind != 0) {
            RenderCode(text, "\nN-Error : %s::%d (0x%X)\nMessage : %s\n", "\nError   : %d::%d (0x%X)\n", native.value,
                       native.value, native.kind);
        }
        unsigned int count = log.GetLogCount();
        if (count) text += "\nErrLog-Stack:\n\n";
        for (unsigned int i = 0; i < count; ++i) {
            const char* msg = log.GetErrorMsg(i);
            const Exceptions::SOURCE_INFO* site = log.GetSrcInfo(i);
            if (i == 0) {
                text.Format("  %!s\n") << msg;
                RenderSite(text, "\nModule  : %s::%s@%d\n", site);
            } else {
                text.Format("          --> %!s") << msg;
                RenderSite(text, " %s::%s@%d\n", site);
            }
        }
    }
    return *this << static_cast<const Strings::CSubStringRef&>(text);
}

} // namespace Output_Streams
} // namespace KEL
