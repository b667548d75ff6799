// kelbase - Src/Posix/KelPosix.cpp
//
// The operating-system module (id 2, "OS") and the C runtime module (id 3, "C-LIB"), the
// library tick clock and the process facts. Every call into the OS for these lives here.
#define KEL_SOURCE_FILE "Src/Posix"
#include <kel/Functions.h>
#include <kel/Misc.h>

#include "Posix/Process.h"

#include <boost/filesystem/operations.hpp>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>

namespace KEL {
namespace Internals {
namespace Posix {

namespace {

unsigned long long MonotonicNs() noexcept {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<unsigned long long>(ts.tv_sec) * 1000000000ull + static_cast<unsigned long long>(ts.tv_nsec);
}

// The start stamp is taken when the library loads; a function-local static keeps it valid for
// any static initialiser that asks earlier.
unsigned long long StartStamp() noexcept {
    static const unsigned long long s_Start = MonotonicNs();
    return s_Start;
}

// GNU strerror_r returns the text, which may or may not be in the buffer.
void SystemText(Strings::CStringVar& text, int error) {
    char buffer[256];
    const char* msg = strerror_r(error, buffer, sizeof buffer);
    if (msg && *msg) text = msg;
}

// Both modules answer plain error numbers with the system's text; a status code that names
// another module is still handed to that module.
class CErrnoModule : public Misc::CModuleInfo {
public:
    using CModuleInfo::CModuleInfo;
    void GetErrorMsg(Strings::CStringVar& text, unsigned int code, unsigned int raw) override {
        unsigned int id = (code >> 16) & 0x1FFFu;
        if (id != 0 && id != GetModuleId())
            CModuleInfo::GetErrorMsg(text, code, raw);
        else
            SystemText(text, static_cast<int>(code & 0xFFFFu));
    }
};

class CModuleInfo_Posix : public CErrnoModule {
public:
    CModuleInfo_Posix() : CErrnoModule(2, "OS", "") { (void)StartStamp(); }
};

class CCRtlModuleInfo : public CErrnoModule {
public:
    CCRtlModuleInfo() : CErrnoModule(3, "C-LIB", "") {}
};

CCRtlModuleInfo s_CRtlModule;
CModuleInfo_Posix s_OsModule;

} // namespace

const boost::filesystem::path& ExecutablePath() {
    static const boost::filesystem::path s_Path = [] {
        char buffer[PATH_MAX + 1];
        ssize_t n = ::readlink("/proc/self/exe", buffer, PATH_MAX);
        return n > 0 ? boost::filesystem::path(std::string(buffer, static_cast<size_t>(n))) : boost::filesystem::path();
    }();
    return s_Path;
}

bool SearchCommand(const std::string& command, boost::filesystem::path& result) {
    if (command.empty()) return false;
    auto executable = [](const std::string& file) {
        struct stat st;
        return ::stat(file.c_str(), &st) == 0 && S_ISREG(st.st_mode) && ::access(file.c_str(), X_OK) == 0;
    };
    if (command.find('/') != std::string::npos) {
        if (!executable(command)) return false;
        result = command;
        return true;
    }
    const char* path = std::getenv("PATH");
    std::string dirs = path ? path : "/usr/local/bin:/usr/bin:/bin";
    size_t start = 0;
    while (start <= dirs.size()) {
        size_t end = dirs.find(':', start);
        if (end == std::string::npos) end = dirs.size();
        std::string dir = dirs.substr(start, end - start);
        if (dir.empty()) dir = ".";
        std::string candidate = dir + "/" + command;
        if (executable(candidate)) {
            result = candidate;
            return true;
        }
        start = end + 1;
    }
    return false;
}

} // namespace Posix
} // namespace Internals

namespace Functions {

unsigned long long GetTickTime() noexcept { return Internals::Posix::MonotonicNs() - Internals::Posix::StartStamp(); }

unsigned long long GetTickTime(unsigned int perSecond) noexcept {
    // Split the product so that it cannot overflow for any uptime.
    unsigned long long t = GetTickTime();
    constexpr unsigned long long f = 1000000000ull;
    return (t / f) * perSecond + (t % f) * perSecond / f;
}

unsigned long long GetTickFrequency() noexcept { return 1000000000ull; }

Exceptions::NATIVE_ERROR GetOsError() noexcept { return Exceptions::NATIVE_ERROR{2, static_cast<unsigned int>(errno)}; }

Exceptions::NATIVE_ERROR GetErrno() noexcept { return Exceptions::NATIVE_ERROR{3, static_cast<unsigned int>(errno)}; }

} // namespace Functions
} // namespace KEL
