// kelbase - Functions.h
//
// Free functions of the library (KEL::Functions): module look-up, the library tick clock and
// the native errors of the calling thread.
#pragma once

#include <kel/Exceptions.h>

#include <cstdint>
#include <string>

namespace KEL {
namespace Misc {
class CModuleInfo;
}
namespace Functions {

/// The module with this id; a full status code (bit 29 set) is taken by its module bits.
/// Null when no such module is registered. Takes no lock: modules register at load time.
KEL_API Misc::CModuleInfo* GetModuleInfo(unsigned int idOrCode) noexcept;

/// Raw ticks of the library clock since the library was loaded (monotonic, nanoseconds).
KEL_API unsigned long long GetTickTime() noexcept;
/// The same time in units of 1/perSecond seconds (GetTickTime(1000) = milliseconds).
KEL_API unsigned long long GetTickTime(unsigned int perSecond) noexcept;
/// Ticks per second of GetTickTime().
KEL_API unsigned long long GetTickFrequency() noexcept;

/// The calling thread's last system error as a native error of kind 2 (errno).
KEL_API Exceptions::NATIVE_ERROR GetOsError() noexcept;
/// The C runtime's errno as a native error of kind 3.
KEL_API Exceptions::NATIVE_ERROR GetErrno() noexcept;

/// The process id.
KEL_API unsigned long long GetCurrentProcessID() noexcept;
/// The process's current directory into `out`. Returns 1, or status 0x20010017 with the
/// system error (for example when the directory was removed; a throw in throw mode).
KEL_API unsigned int GetCurrentDirectoryA(Strings::CStringVar& out);
/// The host's name (`host`) and its fully qualified DNS name (`fqdn`, the host name again when
/// the resolver knows no longer one). Returns 1, or status 0x20010017 with the system error.
KEL_API unsigned int GetDnsName(Strings::CStringVar& host, Strings::CStringVar& fqdn);
KEL_API unsigned int GetDnsName(std::string& host, std::string& fqdn);
/// Checks the C runtime heap; 1 when sound. A damaged heap is reported on standard error
/// ("ERROR - bad node in heap" / "ERROR - bad start of heap") and, with trace point
/// 0x40000000 of kelbase on, in the trace. glibc offers no walk of its heap, so on this
/// platform the heap always reports sound.
KEL_API unsigned int HeapCheck();

} // namespace Functions
} // namespace KEL
