// kelbase - Config.h
//
// Build-wide definitions shared by every public header: the export macro and the library's
// version. Nothing here depends on the platform beyond the symbol-visibility attribute.
#pragma once

#include <cstddef>
#include <cstdint>

/// Marks a class or function as part of the exported interface of libkelbase.so. Everything
/// else stays hidden, as the original library exported exactly its classes.
#if defined(_WIN32)
#if defined(KEL_STATIC)
#define KEL_API
#elif defined(KEL_BUILDING_LIBRARY)
#define KEL_API __declspec(dllexport)
#else
#define KEL_API __declspec(dllimport)
#endif
#else
#define KEL_API __attribute__((visibility("default")))
#endif

#define KEL_VERSION_MAJOR 7
#define KEL_VERSION_MINOR 10
#define KEL_VERSION_PATCH 2
#define KEL_VERSION_TEXT "7.10.2"

namespace KEL {
namespace Misc {
/// The "nothing" value: assigning it clears a string or deletes what an owning pointer holds.
struct CNull {};
inline constexpr CNull Null{};
} // namespace Misc

/// Operation results shared by waits, sockets and the message channel.
enum URET : unsigned int {
    URET_Failed = 0,
    URET_Ok = 1,
    URET_Abandoned = 65,
    URET_Timeout = 130,
    URET_WouldBlock = 131,
    URET_MoreData = 132,
    URET_Closed = 133,
    URET_PeerClosed = 134,
    URET_ConnectFailed = 135, ///< a connection test (LDAP, CAS) did not succeed
};
} // namespace KEL
