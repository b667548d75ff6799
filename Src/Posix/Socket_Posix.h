// kelbase - Src/Posix/Socket_Posix.h
//
// The system calls behind sockets, for the portable parts in Src/Socket: a receive and a send
// that never block and never raise SIGPIPE.
#pragma once

#include <cstddef>

namespace KEL {
namespace Internals {
namespace Posix {

/// recv: bytes received, 0 when the peer closed, -1 with errno set.
long long SocketRecv(unsigned long long handle, void* buffer, size_t size, bool peek) noexcept;
/// send: bytes sent or -1 with errno set.
long long SocketSend(unsigned long long handle, const void* data, size_t size) noexcept;

} // namespace Posix
} // namespace Internals
} // namespace KEL
