// kelbase - Src/FileSystem/Functions.cpp
//
// The process helpers of KEL::Functions; the system calls are in Src/Posix.
#define KEL_SOURCE_FILE "Src/FileSystem"
#include <kel/Functions.h>
#include <kel/Trace.h>

#include "Posix/FileIo.h"

#include <cstdio>

namespace KEL {
namespace Functions {

unsigned long long GetCurrentProcessID() noexcept { return Internals::Posix::ProcessId(); }

unsigned int GetCurrentDirectoryA(Strings::CStringVar& out) {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        std::string dir;
        if (int err = Internals::Posix::CurrentDirectory(dir)) {
            Exceptions::NATIVE_ERROR native{2u, static_cast<unsigned int>(err)};
            KEL_RAISE_NATIVE(0x20010017u, native, "%s", "Can't get the current directory");
        }
        out = dir;
        return 1u;
    });
}

unsigned int GetDnsName(std::string& host, std::string& fqdn) {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        std::string h, f;
        if (int err = Internals::Posix::HostNames(h, f)) {
            Exceptions::NATIVE_ERROR native{2u, static_cast<unsigned int>(err)};
            KEL_RAISE_NATIVE(0x20010017u, native, "%s", "Can't get the host name");
        }
        host.swap(h);
        fqdn.swap(f);
        return 1u;
    });
}

unsigned int GetDnsName(Strings::CStringVar& host, Strings::CStringVar& fqdn) {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        std::string h, f;
        if (int err = Internals::Posix::HostNames(h, f)) {
            Exceptions::NATIVE_ERROR native{2u, static_cast<unsigned int>(err)};
            KEL_RAISE_NATIVE(0x20010017u, native, "%s", "Can't get the host name");
        }
        host = h;
        fqdn = f;
        return 1u;
    });
}

unsigned int HeapCheck() {
    switch (Internals::Posix::HeapState()) {
    case Internals::Posix::HEAP_BAD_NODE:
        std::fputs("ERROR - bad node in heap\n", stderr);
        KEL_TRACE(KEL_MODULE_INFO_KelLib, 0x40000000, "KEL::Functions::HeapCheck", "HeapCheck: bad node in heap");
        return 0;
    case Internals::Posix::HEAP_BAD_START:
        std::fputs("ERROR - bad start of heap\n", stderr);
        KEL_TRACE(KEL_MODULE_INFO_KelLib, 0x40000000, "KEL::Functions::HeapCheck", "HeapCheck: bad start of heap");
        return 0;
    default:
        return 1;
    }
}

} // namespace Functions
} // namespace KEL
