// kelbase - Src/string/StringUtf8.cpp
//
// Conversions between the narrow single-byte text (Latin-1 on this platform) and UTF-8, and
// from wide text (wchar_t holding UTF-32 code points) to UTF-8.
#define KEL_SOURCE_FILE "Src/string"
#include <kel/Exceptions.h>
#include <kel/Strings.h>

#include <cstdint>
#include <cstring>
#include <cwchar>
#include <string>

namespace KEL {
namespace Strings {

namespace {

constexpr unsigned int kBadUtf8 = 0x20010060u;

// Continuation bytes that follow a lead byte; -1 for a byte that cannot start a sequence
// (a continuation byte 10xxxxxx, or 1111111x).
inline int TrailBytes(unsigned char lead) noexcept {
    if (lead < 0x80) return 0;
    if ((lead & 0xE0) == 0xC0) return 1;
    if ((lead & 0xF0) == 0xE0) return 2;
    if ((lead & 0xF8) == 0xF0) return 3;
    if ((lead & 0xFC) == 0xF8) return 4;
    if ((lead & 0xFE) == 0xFC) return 5;
    return -1;
}

size_t CountCodePoints(const unsigned char* p, size_t length) noexcept {
    size_t count = 0;
    size_t i = 0;
    while (i < length) {
        unsigned char c = p[i];
        if (c < 0x80) {
            ++i;
            ++count;
            continue;
        }
        int trail = TrailBytes(c);
        if (trail < 0 || static_cast<size_t>(trail) >= length - i) return CSubStringRef::POSERR;
        for (int k = 1; k <= trail; ++k)
            if ((p[i + k] & 0xC0) != 0x80) return CSubStringRef::POSERR;
        i += static_cast<size_t>(trail) + 1;
        ++count;
    }
    return count;
}

inline bool IsInside(const char* p, const CStringVar& s) noexcept {
    return s.Capacity() != 0 && p >= s.data() && p <= s.data() + s.Capacity();
}

// Bytes of a code point in UTF-8; values past 0x7FFFFFFF (negative wchar_t) become U+FFFD.
inline size_t EncodedSize(uint32_t cp) noexcept {
    if (cp < 0x80) return 1;
    if (cp < 0x800) return 2;
    if (cp < 0x10000) return 3;
    if (cp < 0x200000) return 4;
    if (cp < 0x4000000) return 5;
    if (cp < 0x80000000u) return 6;
    return 3;
}

// Writes the code point (the 5- and 6-byte forms for values past U+1FFFFF, as the decoder
// accepts them) and returns the number of bytes.
size_t Encode(uint32_t cp, char* out) noexcept {
    if (cp >= 0x80000000u) cp = 0xFFFD;
    size_t n = EncodedSize(cp);
    if (n == 1) {
        out[0] = static_cast<char>(cp);
        return 1;
    }
    static const unsigned char kLeadMark[7] = {0, 0, 0xC0, 0xE0, 0xF0, 0xF8, 0xFC};
    for (size_t k = n - 1; k > 0; --k) {
        out[k] = static_cast<char>(0x80 | (cp & 0x3F));
        cp >>= 6;
    }
    out[0] = static_cast<char>(kLeadMark[n] | cp);
    return n;
}

size_t WideSize(const wchar_t* wide) noexcept {
    size_t size = 0;
    for (; *wide; ++wide) size += EncodedSize(static_cast<uint32_t>(*wide));
    return size;
}

void EncodeWide(const wchar_t* wide, char* out) noexcept {
    for (; *wide; ++wide) out += Encode(static_cast<uint32_t>(*wide), out);
}

// Latin-1 to UTF-8; `out` has room for UTF8BufferSize() bytes.
void EncodeNarrow(const unsigned char* p, size_t length, char* out) noexcept {
    for (size_t i = 0; i < length; ++i) {
        unsigned char c = p[i];
        if (c < 0x80) {
            *out++ = static_cast<char>(c);
        } else {
            *out++ = static_cast<char>(0xC0 | (c >> 6));
            *out++ = static_cast<char>(0x80 | (c & 0x3F));
        }
    }
}

} // namespace

size_t CSubStringRef::UTF8Length() const noexcept {
    return CountCodePoints(reinterpret_cast<const unsigned char*>(m_pData), m_nLength);
}

size_t CSubStringRef::UTF8BufferSize() const noexcept {
    size_t size = m_nLength;
    const unsigned char* p = reinterpret_cast<const unsigned char*>(m_pData);
    for (size_t i = 0; i < m_nLength; ++i) size += p[i] >> 7;
    return size;
}

unsigned int CStringVar::CopyFromUTF8(const CSubStringRef& utf8) {
    return Exceptions::Guarded(KEL_SITE(), [&]() -> unsigned int {
        if (utf8.Length() != 0 && IsInside(utf8.data(), *this)) {
            // Converting our own text: work from a copy, the result is written over it.
            TString<256> copy(utf8);
            return CopyFromUTF8(copy);
        }
        const unsigned char* p = reinterpret_cast<const unsigned char*>(utf8.data());
        const size_t length = utf8.Length();
        size_t count = CountCodePoints(p, length);
        if (count == POSERR) KEL_RAISE(kBadUtf8, "The text is not well-formed UTF-8 (%d bytes)", length);
        for (size_t i = 0; i < length; ++i) {
            // Only one- and two-byte forms fit a single byte; every byte from 0xE0 on is the
            // lead of a longer form (continuation bytes stay below 0xC0).
            if (p[i] >= 0xE0)
                KEL_RAISE(kBadUtf8, "Character at byte %d has no single-byte form (lead byte 0x%02X)", i,
                          static_cast<unsigned int>(p[i]));
        }
        if (length == 0) {
            *this = Misc::Null;
            MakeOwn();
            return 1u;
        }
        char* out = Lock(count, 1);
        for (size_t i = 0; i < length;) {
            unsigned char c = p[i];
            if (c < 0x80) {
                *out++ = static_cast<char>(c);
                ++i;
            } else {
                // Only the two low payload bits of the lead byte survive: code points from
                // U+0100 to U+07FF fold into one byte.
                *out++ = static_cast<char>(((c & 0x03) << 6) | (p[i + 1] & 0x3F));
                i += 2;
            }
        }
        Unlock(count);
        return 1u;
    });
}

CStringVar& CStringVar::CopyAsUTF8(const CSubStringRef& narrow) {
    if (narrow.Length() != 0 && IsInside(narrow.data(), *this)) {
        TString<256> copy(narrow);
        return CopyAsUTF8(copy);
    }
    size_t size = narrow.UTF8BufferSize();
    if (size == 0) {
        *this = Misc::Null;
        return *this;
    }
    char* out = Lock(size, 1);
    EncodeNarrow(reinterpret_cast<const unsigned char*>(narrow.data()), narrow.Length(), out);
    Unlock(size);
    return *this;
}

CStringVar& CStringVar::CopyAsUTF8(const wchar_t* wide) {
    size_t size = wide ? WideSize(wide) : 0;
    if (size == 0) {
        *this = Misc::Null;
        return *this;
    }
    char* out = Lock(size, 1);
    EncodeWide(wide, out);
    Unlock(size);
    return *this;
}

void ToUTF8(const std::string& narrow, std::string& utf8) {
    std::string result(CSubStringRef(narrow).UTF8BufferSize(), '\0');
    EncodeNarrow(reinterpret_cast<const unsigned char*>(narrow.data()), narrow.size(), &result[0]);
    utf8.swap(result);
}

void ToUTF8(const wchar_t* wide, std::string& utf8) {
    std::string result(wide ? WideSize(wide) : 0, '\0');
    if (!result.empty()) EncodeWide(wide, &result[0]);
    utf8.swap(result);
}

size_t UTF8length(const std::string& utf8) { return CSubStringRef(utf8).UTF8Length(); }

} // namespace Strings
} // namespace KEL
