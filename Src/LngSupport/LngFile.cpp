// kelbase - Src/LngSupport/LngFile.cpp
//
// A module's message strings: entry 0 is built from the strings compiled into the module.
#define KEL_SOURCE_FILE "Src/LngSupport"
#include <kel/Exceptions.h>
#include <kel/LanguageSupport.h>

#include <cstring>

namespace KEL {
namespace Language_Support {

CLngFile::CLngFile(const char* fileName, unsigned int languageId, const char* languageName, unsigned int isUtf8,
                   const char* const* strings, unsigned long long stringCount)
    : m_FileName(fileName ? fileName : ""), m_nStrings(stringCount), m_pEntries(&m_Default) {
    m_Default.languageId = languageId;
    m_Default.isUtf8 = isUtf8;
    m_Default.strings = strings;
    m_Default.file = this;
    if (languageName) {
        // The name field holds 32 characters and a terminating NUL behind them.
        std::strncpy(m_Default.name, languageName, 32);
        m_Default.name[32] = '\0';
    }
}

CLngFile::~CLngFile() = default;

LNGDATA& CLngFile::GetLngData() { return *m_pEntries; }

CLanguageStrg::CLanguageStrg(LNGDATA& entry, size_t stringIndex) noexcept : m_pText(""), m_uUtf8(entry.isUtf8) {
    unsigned long long count = entry.file ? entry.file->GetStringCount() : 0;
    if (entry.strings && stringIndex < count && entry.strings[stringIndex]) m_pText = entry.strings[stringIndex];
}

void CLanguageStrg::UTF8ToChar(Strings::CStringVar& out, unsigned int) const {
    if (!m_uUtf8) {
        out = m_pText;
        return;
    }
    // A text that is no acceptable UTF-8 is shown as it is rather than lost.
    unsigned int status;
    try {
        status = out.CopyFromUTF8(Strings::CSubStringRef(m_pText));
    } catch (const Exceptions::CKelException&) {
        status = 0;
    }
    if (status != 1) out = m_pText;
}

} // namespace Language_Support
} // namespace KEL
