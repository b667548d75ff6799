// kelbase - Src/KelKrnl/Application.cpp
//
// The process's application object and the default one the library installs.
#define KEL_SOURCE_FILE "Src/KelKrnl"
#include <kel/Misc.h>

#include "Posix/Process.h"

namespace KEL {
namespace Misc {

CKelApplication* pKelApp = nullptr;

namespace {
CKelApplication* s_pDefaultApp = nullptr;
}

CKelApplication::CKelApplication() { pKelApp = this; }

CKelApplication::CKelApplication(DefaultTag) {
    s_pDefaultApp = this;
    if (!pKelApp) pKelApp = this;
}

CKelApplication::~CKelApplication() {
    if (this == s_pDefaultApp) {
        s_pDefaultApp = nullptr;
        pKelApp = nullptr;
    } else {
        pKelApp = s_pDefaultApp;
    }
}

unsigned int CKelApplication::GetErrorMessage(Strings::CStringVar& text, unsigned int) {
    text = Misc::Null;
    return 129;
}

void CKelApplication::SetNlsSearchPath(const Strings::CSubStringRef& path) { m_NlsSearchPath = path; }

void CKelApplication::SetNlsSearchPath(const boost::filesystem::path& path) { m_NlsSearchPath = path.string(); }

void CKelApplication::GetNlsSearchPath(Strings::CStringVar& path) const { path = m_NlsSearchPath; }

unsigned int CKelApplication::GetProcessPath(boost::filesystem::path& path) {
    const boost::filesystem::path& exe = Internals::Posix::ExecutablePath();
    if (exe.empty()) return 0;
    path = exe;
    return 1;
}

unsigned int CKelApplication::GetProcessPath(Strings::CStringVar& path) {
    boost::filesystem::path p;
    unsigned int status = GetProcessPath(p);
    if (status) path = p.string();
    return status;
}

unsigned int CKelApplication::GetWindowsPath(boost::filesystem::path&) { return 0; }

unsigned int CKelApplication::GetCommandPath(const std::string& command, boost::filesystem::path& result) {
    return Internals::Posix::SearchCommand(command, result) ? 1u : 0u;
}

RAII_RuntimeInvalidParameterHandler::RAII_RuntimeInvalidParameterHandler() = default;
RAII_RuntimeInvalidParameterHandler::~RAII_RuntimeInvalidParameterHandler() = default;

void RAII_RuntimeInvalidParameterHandler::CustomRuntimeInvalidParameterHandler(const wchar_t*, const wchar_t*,
                                                                              const wchar_t*, unsigned int,
                                                                              uintptr_t) {}

} // namespace Misc

namespace Internals {
// The default application object: whatever the program installs replaces it while it lives.
class CMyApplication : public Misc::CKelApplication {
public:
    CMyApplication() : CKelApplication(DefaultTag{}) {}
};
namespace {
CMyApplication s_MyApplication;
}
} // namespace Internals
} // namespace KEL
