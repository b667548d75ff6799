// kelbase - Src/KelKrnl/KelModule.h
//
// The library's own module: its language-file object with the compiled-in message texts.
#pragma once

#include <kel/LanguageSupport.h>

#include <string>

namespace KEL {
namespace Internals {

/// Index of kelbase's generic text for a status code that has no text of its own.
constexpr unsigned int kUnknownCodeText = 98;

/// kelbase's language file (entry 0 holds the texts compiled into the library).
Language_Support::CLngFile* KelLngFile() noexcept;
/// Whether the kelbase module object is constructed and not yet destroyed.
bool KelModuleAlive() noexcept;
extern bool g_bKelModuleAlive;
/// The local time in the C runtime's asctime form, without its line end.
std::string AscTimeNow();

} // namespace Internals
} // namespace KEL
