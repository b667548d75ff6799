// kelbase - Src/trace/TraceInternal.h
//
// Seams of the trace for its tests: the free-space probe (so a full disk can be simulated).
#pragma once

#include <boost/filesystem/path.hpp>

#include <atomic>

namespace KEL {
namespace Internals {

/// Bytes available to the process on the file system holding `dir` (~0 when unknown).
using PFN_FREE_SPACE = unsigned long long (*)(const boost::filesystem::path& dir);
/// The probe the trace uses; null means the file system's own answer.
extern std::atomic<PFN_FREE_SPACE> g_pfnTraceFreeSpace;

/// Below this many free bytes the trace writes its final entry and stops writing the file.
constexpr unsigned long long kTraceSpaceReserve = 128ull << 10;
/// The free space is asked again after this many bytes were written.
constexpr unsigned long long kTraceSpaceCheckBytes = 32ull << 10;

} // namespace Internals
} // namespace KEL
