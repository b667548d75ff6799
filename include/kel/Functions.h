// kelbase - Functions.h
//
// Free functions of the library (KEL::Functions): module look-up, the library tick clock and
// the native errors of the calling thread.
#pragma once

#include <kel/Exceptions.h>

#include <cstdint>

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

} // namespace Functions
} // namespace KEL
