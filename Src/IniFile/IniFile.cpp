// kelbase - Src/IniFile/IniFile.cpp
//
// The INI reader: a single pass over the text, line by line, that never rejects a file for a
// bad line (settings files are edited by hand; one typo must not cost every other setting).
#define KEL_SOURCE_FILE "Src/IniFile"
#include <kel/Exceptions.h>
#include <kel/IniFiles.h>

#include "Posix/FileIo.h"

#include <cerrno>
#include <climits>
#include <cstdlib>

namespace KEL {
namespace INI_Files {

namespace {

constexpr size_t kMaxFileSize = size_t(64) << 20;

inline char LowerAscii(char c) noexcept { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

bool SameName(const std::string& a, const Strings::CSubStringRef& b) noexcept {
    if (a.size() != b.Length()) return false;
    const char* p = b.data();
    for (size_t i = 0; i < a.size(); ++i) {
        if (LowerAscii(a[i]) != LowerAscii(p[i])) return false;
    }
    return true;
}

inline bool IsBlank(char c) noexcept { return c == ' ' || c == '\t'; }

void Trim(const char*& begin, const char*& end) noexcept {
    while (begin < end && IsBlank(*begin)) ++begin;
    while (end > begin && IsBlank(end[-1])) --end;
}

std::string Str(const Strings::CSubStringRef& s) { return std::string(s.data(), s.Length()); }

} // namespace

// ---- CIniSection ------------------------------------------------------------------------------

const CIniKey* CIniSection::FindKey(const Strings::CSubStringRef& name) const noexcept {
    for (const CIniKey& k : m_Keys) {
        if (SameName(k.GetName(), name)) return &k;
    }
    return nullptr;
}

std::string CIniSection::GetValue(const Strings::CSubStringRef& name, const Strings::CSubStringRef& defaultValue) const {
    const CIniKey* k = FindKey(name);
    return k ? k->GetValue() : Str(defaultValue);
}

void CIniSection::SetValue(const Strings::CSubStringRef& name, const Strings::CSubStringRef& value) {
    for (CIniKey& k : m_Keys) {
        if (SameName(k.GetName(), name)) {
            k.SetValue(Str(value));
            return;
        }
    }
    m_Keys.emplace_back(Str(name), Str(value));
}

void CIniSection::GetKeyNames(CIniList& names) const {
    names.Clear();
    for (const CIniKey& k : m_Keys) names.Add(k.GetName());
}

void CIniSection::AddParsed(std::string name, std::string value, unsigned int line) {
    if (FindKey(Strings::CSubStringRef(name.data(), name.size()))) return;
    m_Keys.emplace_back(std::move(name), std::move(value), line);
}

// ---- CIniFile ---------------------------------------------------------------------------------

size_t CIniFile::IndexOf(const CIniSection& section) const noexcept {
    return static_cast<size_t>(&section - m_Sections.data());
}

CIniSection& CIniFile::Section(const Strings::CSubStringRef& name) {
    for (CIniSection& s : m_Sections) {
        if (SameName(s.GetName(), name)) return s;
    }
    m_Sections.emplace_back(Str(name));
    return m_Sections.back();
}

void CIniFile::Parse(const Strings::CSubStringRef& text) {
    std::vector<CIniSection> sections;
    sections.swap(m_Sections);
    m_uBrokenLines = 0;
    const char* p = text.data();
    const char* const end = p + text.Length();
    if (end - p >= 3 && static_cast<unsigned char>(p[0]) == 0xEF && static_cast<unsigned char>(p[1]) == 0xBB &&
        static_cast<unsigned char>(p[2]) == 0xBF)
        p += 3;
    // Keys before the first header go to the section ""; keys under a broken header are
    // skipped with it, so they cannot land in the wrong section.
    enum { ST_Top, ST_Section, ST_Broken } state = ST_Top;
    size_t current = 0;
    unsigned int lineNo = 0;
    try {
        while (p < end) {
            ++lineNo;
            const char* lineEnd = p;
            while (lineEnd < end && *lineEnd != '\n' && *lineEnd != '\r') ++lineEnd;
            const char* next = lineEnd;
            if (next < end && *next == '\r') ++next;
            if (next < end && *next == '\n' && (next == lineEnd || next[-1] == '\r')) ++next;
            const char* b = p;
            const char* e = lineEnd;
            p = next;
            Trim(b, e);
            if (b == e || *b == ';' || *b == '#') continue;
            if (*b == '[') {
                const char* close = b + 1;
                while (close < e && *close != ']') ++close;
                const char* rest = close + 1;
                while (rest < e && IsBlank(*rest)) ++rest;
                if (close == e || (rest < e && *rest != ';' && *rest != '#')) {
                    ++m_uBrokenLines;
                    state = ST_Broken;
                    continue;
                }
                const char* nb = b + 1;
                const char* ne = close;
                Trim(nb, ne);
                current = IndexOf(Section(Strings::CSubStringRef(nb, static_cast<size_t>(ne - nb))));
                state = ST_Section;
                continue;
            }
            const char* eq = b;
            while (eq < e && *eq != '=') ++eq;
            if (eq == e || eq == b) {
                ++m_uBrokenLines;
                continue;
            }
            const char* kb = b;
            const char* ke = eq;
            Trim(kb, ke);
            if (kb == ke) {
                ++m_uBrokenLines;
                continue;
            }
            const char* vb = eq + 1;
            const char* ve = e;
            Trim(vb, ve);
            if (ve - vb >= 2 && *vb == '"' && ve[-1] == '"') {
                ++vb;
                --ve;
            }
            if (state == ST_Broken) {
                ++m_uBrokenLines;
                continue;
            }
            if (state == ST_Top) {
                current = IndexOf(Section(Strings::CSubStringRef("")));
                state = ST_Section;
            }
            m_Sections[current].AddParsed(std::string(kb, ke), std::string(vb, ve), lineNo);
        }
    } catch (...) {
        m_Sections.swap(sections);
        throw;
    }
}

unsigned int CIniFile::Read(const boost::filesystem::path& file, unsigned int waitMs) {
    return Exceptions::Guarded(KEL_SITE(), [&] {
        std::string text;
        int err = Internals::Posix::ReadLockedFile(file, waitMs, kMaxFileSize, text);
        if (err == Internals::Posix::READ_TOO_LARGE)
            KEL_RAISE(0x20010029u, "INI file %s is larger than %d MiB", file.string(), int(kMaxFileSize >> 20));
        if (err != 0) {
            Exceptions::NATIVE_ERROR native{2u, static_cast<unsigned int>(err)};
            KEL_RAISE_NATIVE(0x20010017u, native, "Can't read INI file %s", file.string());
        }
        CIniFile parsed;
        parsed.Parse(Strings::CSubStringRef(text.data(), text.size()));
        parsed.m_File = file;
        *this = std::move(parsed);
        return 1u;
    });
}

const CIniSection* CIniFile::FindSection(const Strings::CSubStringRef& name) const noexcept {
    for (const CIniSection& s : m_Sections) {
        if (SameName(s.GetName(), name)) return &s;
    }
    return nullptr;
}

std::string CIniFile::GetValue(const Strings::CSubStringRef& section, const Strings::CSubStringRef& key,
                               const Strings::CSubStringRef& defaultValue) const {
    const CIniSection* s = FindSection(section);
    return s ? s->GetValue(key, defaultValue) : Str(defaultValue);
}

long long CIniFile::GetInt(const Strings::CSubStringRef& section, const Strings::CSubStringRef& key,
                           long long defaultValue) const {
    const CIniSection* s = FindSection(section);
    const CIniKey* k = s ? s->FindKey(key) : nullptr;
    if (!k || k->GetValue().empty()) return defaultValue;
    const std::string& v = k->GetValue();
    if (v.find('\0') != std::string::npos) return defaultValue;
    errno = 0;
    char* stop = nullptr;
    long long n = std::strtoll(v.c_str(), &stop, 0);
    if (errno == ERANGE || stop == v.c_str() || *stop != '\0') return defaultValue;
    return n;
}

bool CIniFile::GetBool(const Strings::CSubStringRef& section, const Strings::CSubStringRef& key,
                       bool defaultValue) const {
    std::string v = GetValue(section, key, "");
    for (char& c : v) c = LowerAscii(c);
    if (v == "1" || v == "yes" || v == "true" || v == "on") return true;
    if (v == "0" || v == "no" || v == "false" || v == "off") return false;
    return defaultValue;
}

void CIniFile::GetList(const Strings::CSubStringRef& section, const Strings::CSubStringRef& key,
                       CIniList& items) const {
    items.Clear();
    const CIniSection* s = FindSection(section);
    const CIniKey* k = s ? s->FindKey(key) : nullptr;
    if (!k) return;
    const std::string& v = k->GetValue();
    size_t start = 0;
    for (;;) {
        size_t comma = v.find(',', start);
        const char* b = v.data() + start;
        const char* e = v.data() + (comma == std::string::npos ? v.size() : comma);
        Trim(b, e);
        items.Add(std::string(b, e));
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
}

void CIniFile::SetValue(const Strings::CSubStringRef& section, const Strings::CSubStringRef& key,
                        const Strings::CSubStringRef& value) {
    Section(section).SetValue(key, value);
}

void CIniFile::GetSectionNames(CIniList& names) const {
    names.Clear();
    for (const CIniSection& s : m_Sections) names.Add(s.GetName());
}

} // namespace INI_Files
} // namespace KEL
