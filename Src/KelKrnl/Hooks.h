// kelbase - Src/KelKrnl/Hooks.h
//
// Late-bound links from the kernel to parts that build on it: the trace registers itself here
// when it opens, so the kernel neither depends on the trace nor pays for it while none is open.
#pragma once

#include <kel/Misc.h>

#include <atomic>

namespace KEL {
namespace Internals {

using PFN_MODULE_LOADED = void (*)(Misc::CModuleInfo& module);
using PFN_TRACE_WRITE = void (*)(const Strings::CStringRef& entry);

/// Called by every module that registers while a trace is open.
extern std::atomic<PFN_MODULE_LOADED> g_pfnModuleLoaded;
/// Receives each finished trace entry; entries are dropped while it is null.
extern std::atomic<PFN_TRACE_WRITE> g_pfnTraceWrite;

} // namespace Internals
} // namespace KEL
