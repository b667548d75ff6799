// kelbase - Src/string/StringRef.cpp
//
// The read-only view operations: windows, searching, spans and comparison.
#define KEL_SOURCE_FILE "Src/string"
#include <kel/Strings.h>

#include <cstring>

namespace KEL {
namespace Strings {

namespace {

inline unsigned char Fold(unsigned char c, int ignoreCase) noexcept {
    return (ignoreCase && c >= 'A' && c <= 'Z') ? static_cast<unsigned char>(c + ('a' - 'A')) : c;
}

// -1, 0 or 1 for the first `count` bytes of a and b.
int CompareBytes(const char* a, const char* b, size_t count, int ignoreCase) noexcept {
    if (!ignoreCase) {
        int r = count ? std::memcmp(a, b, count) : 0;
        return (r > 0) - (r < 0);
    }
    for (size_t i = 0; i < count; ++i) {
        unsigned char x = Fold(static_cast<unsigned char>(a[i]), 1);
        unsigned char y = Fold(static_cast<unsigned char>(b[i]), 1);
        if (x != y) return x < y ? -1 : 1;
    }
    return 0;
}

// The view against a C string over the view's length; `limited` means the C string counts as
// ending after `length` characters (the counted comparisons).
int CompareWithText(const char* data, size_t length, const char* text, int ignoreCase, bool limited) noexcept {
    if (!text) text = "";
    for (size_t i = 0; i < length; ++i) {
        unsigned char y = static_cast<unsigned char>(text[i]);
        // The C string ends inside the view: the view goes on, so it is the greater one.
        if (y == 0) return 1;
        unsigned char x = Fold(static_cast<unsigned char>(data[i]), ignoreCase);
        y = Fold(y, ignoreCase);
        if (x != y) return x < y ? -1 : 1;
    }
    if (limited) return 0;
    return text[length] == '\0' ? 0 : 1;
}

// One bit per byte value of the NUL-terminated `set`.
struct CharSet {
    unsigned long long bits[4] = {};
    explicit CharSet(const char* set) noexcept {
        if (!set) return;
        for (const unsigned char* p = reinterpret_cast<const unsigned char*>(set); *p; ++p)
            bits[*p >> 6] |= 1ull << (*p & 63);
    }
    bool Has(unsigned char c) const noexcept { return (bits[c >> 6] >> (c & 63)) & 1; }
};

} // namespace

CSubStringRef CSubStringRef::operator()(size_t pos) const noexcept {
    if (pos > m_nLength) return CSubStringRef(m_pData, 0);
    return CSubStringRef(m_pData + pos, m_nLength - pos);
}

CSubStringRef CSubStringRef::operator()(size_t pos, size_t count) const noexcept {
    if (pos > m_nLength) return CSubStringRef(m_pData, 0);
    size_t rest = m_nLength - pos;
    return CSubStringRef(m_pData + pos, count < rest ? count : rest);
}

size_t CSubStringRef::Find(int ch, size_t pos) const noexcept {
    if (pos >= m_nLength) return POSERR;
    const void* hit = std::memchr(m_pData + pos, static_cast<unsigned char>(ch), m_nLength - pos);
    return hit ? static_cast<size_t>(static_cast<const char*>(hit) - m_pData) : POSERR;
}

size_t CSubStringRef::FindLast(int ch, size_t pos) const noexcept {
    const char c = static_cast<char>(ch);
    for (size_t i = m_nLength; i > pos;) {
        --i;
        if (m_pData[i] == c) return i;
    }
    return POSERR;
}

size_t CSubStringRef::Find(const char* text, size_t pos) const noexcept {
    if (!text) return POSERR;
    return Find(CSubStringRef(text, std::strlen(text)), pos);
}

size_t CSubStringRef::Find(const CSubStringRef& text, size_t pos) const noexcept {
    if (pos > m_nLength) return POSERR;
    const size_t n = text.m_nLength;
    if (n == 0) return pos;
    if (n > m_nLength - pos) return POSERR;
    const unsigned char first = static_cast<unsigned char>(text.m_pData[0]);
    const char* p = m_pData + pos;
    const char* last = m_pData + (m_nLength - n); // the last place a match can start
    while (p <= last) {
        const void* hit = std::memchr(p, first, static_cast<size_t>(last - p) + 1);
        if (!hit) break;
        p = static_cast<const char*>(hit);
        if (std::memcmp(p + 1, text.m_pData + 1, n - 1) == 0) return static_cast<size_t>(p - m_pData);
        ++p;
    }
    return POSERR;
}

size_t CSubStringRef::SpanIncluding(const char* set) const noexcept {
    CharSet s(set);
    size_t i = 0;
    while (i < m_nLength && s.Has(static_cast<unsigned char>(m_pData[i]))) ++i;
    return i;
}

size_t CSubStringRef::SpanExcluding(const char* set) const noexcept {
    CharSet s(set);
    size_t i = 0;
    while (i < m_nLength && !s.Has(static_cast<unsigned char>(m_pData[i]))) ++i;
    return i;
}

int CSubStringRef::Compare(const CSubStringRef& other, int ignoreCase) const noexcept {
    size_t common = m_nLength < other.m_nLength ? m_nLength : other.m_nLength;
    int r = CompareBytes(m_pData, other.m_pData, common, ignoreCase);
    if (r != 0) return r;
    return (m_nLength > other.m_nLength) - (m_nLength < other.m_nLength);
}

int CSubStringRef::Compare(const char* text, int ignoreCase) const noexcept {
    return CompareWithText(m_pData, m_nLength, text, ignoreCase, false);
}

int CSubStringRef::Compare(size_t count, const CSubStringRef& other, int ignoreCase) const noexcept {
    return (*this)(0, count).Compare(other(0, count), ignoreCase);
}

int CSubStringRef::Compare(size_t count, const char* text, int ignoreCase) const noexcept {
    CSubStringRef head = (*this)(0, count);
    // When the view reaches `count`, the C string counts as ending there too.
    return CompareWithText(head.m_pData, head.m_nLength, text, ignoreCase, head.m_nLength == count);
}

} // namespace Strings
} // namespace KEL
