// kelbase - Src/Posix/FileIo.h
//
// File and process facts from the operating system for the portable parts above: whole-file
// reads under an advisory lock, the process id, the current directory and the host's names.
#pragma once

#include <boost/filesystem/path.hpp>

#include <string>

namespace KEL {
namespace Internals {
namespace Posix {

enum : int { READ_TOO_LARGE = -1 };

/// Reads all of `file` into `text` while holding a shared flock, waiting up to `waitMs` ms
/// for the lock (0xFFFFFFFF: for ever). 0 on success, an errno value on failure
/// (EWOULDBLOCK when the lock was not had in time), READ_TOO_LARGE beyond `maxSize` bytes.
int ReadLockedFile(const boost::filesystem::path& file, unsigned int waitMs, size_t maxSize, std::string& text);

unsigned long long ProcessId() noexcept;
/// The current directory; an errno value on failure, else 0.
int CurrentDirectory(std::string& directory);
/// The host name and the fully qualified name (the host name again when the resolver knows
/// no better); 0 or an errno value.
int HostNames(std::string& host, std::string& fqdn);

enum : int { HEAP_SOUND = 0, HEAP_BAD_NODE = 1, HEAP_BAD_START = 2 };
/// The state of the C runtime heap. glibc checks its heap on every call into malloc and has
/// no walk to offer, so this is always HEAP_SOUND here.
int HeapState() noexcept;

} // namespace Posix
} // namespace Internals
} // namespace KEL
