// kelbase - LanguageSupport.h
//
// Language-dependent texts (KEL::Language_Support). A module's own message strings live in a
// CLngFile: entry 0 holds the strings compiled into the module, further entries come from a
// binary ".nls" language file found on the application's NLS search path. CLanguageStrg is one
// such string; the string and format classes accept it wherever they accept a narrow string.
//
// A language is a 32-bit number packing its two-letter code, first letter in the high byte:
// "en" is 25966 (Default_Language_ID).
#pragma once

#include <kel/Strings.h>

namespace KEL {
namespace Language_Support {

class CLngFile;

/// The packed id of a two-letter language code ("en" -> 25966).
constexpr unsigned int MakeLanguageID(char first, char second) noexcept {
    return (static_cast<unsigned int>(static_cast<unsigned char>(first)) << 8) |
           static_cast<unsigned int>(static_cast<unsigned char>(second));
}
constexpr unsigned int Default_Language_ID = MakeLanguageID('e', 'n');

/// One entry of a module's error-message list: the message number (low 16 bits compared) and
/// the index of its text in the module's language file. A list ends at message number 0.
struct ERROR_MSG_LIST {
    unsigned int message;
    unsigned int textIndex;
};

/// One language entry of a language file.
struct LNGDATA {
    unsigned int languageId = 0;
    int offset = 0;              ///< file offset of the string block
    unsigned int size = 0;       ///< byte size of the string block
    unsigned int isUtf8 = 0;     ///< nonzero when the strings are UTF-8
    const char* const* strings = nullptr; ///< one pointer per string; null until loaded
    CLngFile* file = nullptr;
    char name[33] = {};
};

/// A module's message strings: entry 0 from the compiled-in strings, more from a ".nls" file.
class KEL_API CLngFile {
public:
    CLngFile(const char* fileName, unsigned int languageId, const char* languageName, unsigned int isUtf8,
             const char* const* strings, unsigned long long stringCount);
    virtual ~CLngFile();
    CLngFile(const CLngFile&) = delete;
    CLngFile& operator=(const CLngFile&) = delete;

    /// The entry for the calling thread's language (entry 0 when there is none).
    LNGDATA& GetLngData();
    /// Entry 0: the compiled-in strings.
    LNGDATA& GetDefaultLngData() noexcept { return *m_pEntries; }
    unsigned long long GetStringCount() const noexcept { return m_nStrings; }
    const char* GetFileName() const noexcept { return m_FileName.C_Str(); }

protected:
    Strings::TString<32> m_FileName;
    unsigned long long m_nStrings;
    size_t m_nEntries = 1;
    LNGDATA* m_pEntries;
    LNGDATA m_Default;
    unsigned int m_uState = 1; ///< 1 not searched, 2 searched without success, 0 opened
};

/// One string of a language entry.
class KEL_API CLanguageStrg {
public:
    CLanguageStrg(LNGDATA& entry, size_t stringIndex) noexcept;
    /// The bytes as stored ("" for an index past the entry's strings).
    const char* Native() const noexcept { return m_pText; }
    operator const char*() const noexcept { return m_pText; }
    unsigned int IsUTF8() const noexcept { return m_uUtf8; }
    /// The string in the local single-byte code page (Latin-1; 0 and 28591 both mean it):
    /// UTF-8 strings are converted, others copied.
    void UTF8ToChar(Strings::CStringVar& out, unsigned int codePage = 0) const;

private:
    const char* m_pText;
    unsigned int m_uUtf8;
};

} // namespace Language_Support
} // namespace KEL
