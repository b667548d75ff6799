// kelbase - Src/Posix/Process.h
//
// Process facts from the operating system: the executable's path and command look-up.
#pragma once

#include <boost/filesystem/path.hpp>

#include <string>

namespace KEL {
namespace Internals {
namespace Posix {

/// The running program's full file name (from /proc/self/exe), read once; empty if unknown.
const boost::filesystem::path& ExecutablePath();
/// Looks a command up in the folders of PATH; true with its full name when found.
bool SearchCommand(const std::string& command, boost::filesystem::path& result);

} // namespace Posix
} // namespace Internals
} // namespace KEL
