// kelbase - Src/xmlLngSupport/XmlLanguage.h
//
// The built-in English label table behind CLanguageSupport: kept in key order as compiled in,
// and once per process as a copy sorted by label id, which every language's table starts from.
#pragma once

#include <kel/LanguageSupport.h>

#include <cstdint>
#include <vector>

namespace KEL {
namespace Internals {

/// The English labels sorted by id (empty texts read "?"), and for each record of the key-ordered
/// table the position of its label in the sorted one, so a translation finds its slot by key.
struct CSortedDefaults {
    std::vector<Language_Support::NLS_DEFAULT> m_Labels;
    std::vector<uint16_t> m_PosOfKey;
};

/// Sorts `table` (key order in, `count` records) by id into `out`; traces "nlsDefaults cannot be
/// sorted by ID's" wherever an id is not greater than the one before it.
void SortDefaults(const Language_Support::NLS_DEFAULT* table, size_t count, CSortedDefaults& out);
/// The process's sorted copy of the built-in table, built on first use.
const CSortedDefaults& SortedDefaults();
/// The index of `key` in the key-ordered built-in table, or -1.
long FindDefaultKey(const char* key, size_t length) noexcept;

/// Whether `name` is a language file name: two ASCII letters and ".xml".
bool IsLanguageFileName(const std::string& name) noexcept;

/// Translated texts longer than this keep their English text.
constexpr size_t Max_Label_Text = 0xFFFF;

} // namespace Internals
} // namespace KEL
