// kelbase - Strings.h
//
// The library's string family (KEL::Strings). Every part of kelbase passes text as these types:
//
//  - CSubStringRef  a read-only view (data, length), not necessarily NUL-terminated;
//  - CStringRef     a view whose text is NUL-terminated;
//  - CStringVar     an owned, growable, NUL-terminated string with a 7-character inline buffer;
//  - TString<N>     a CStringVar with N more inline characters (N + 7 in all); overflow moves the
//                   text to the heap and never truncates;
//  - CSubStringVar  a writable window into a CStringVar: assigning to it replaces the window;
//  - CStringAlias   borrows another CStringVar's storage for a while and gives it back;
//  - CStringRefPtr, CStringVarPtr  owning pointers to heap strings.
//
// Growth: below 8192 characters the capacity doubles (plus one), from there it grows in 4 KiB
// steps; heap blocks are multiples of 16 bytes. Once its capacity exceeds 0x4000000 characters
// a string takes no more text at all (status 0x20010036, also for text that would fit) until
// FreeExtra shrinks it. Failures are raised as library exceptions (see Exceptions.h).
//
// None of the types is locked: a string belongs to one thread at a time.
#pragma once

#include <kel/Config.h>

#include <cstdint>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

namespace KEL {
namespace Language_Support {
class CLanguageStrg;
}
namespace Output_Streams {
class CFormatStream;
class CFormatResortBuffer;
} // namespace Output_Streams

namespace Strings {

class CStringRef;
class CStringVar;
class CStringRefPtr;
class CStringVarPtr;

/// A read-only view of characters: a pointer and a length. The text need not end in NUL.
class KEL_API CSubStringRef {
public:
    static constexpr size_t POSERR = ~size_t(0); ///< "not found", or "to the end"
    static constexpr int IGNORE_CASE = 1;
    static constexpr char PATH_SEPARATOR = ';';
    static constexpr char PATH_SLASH = '\\';

    CSubStringRef() noexcept : m_pData(""), m_nLength(0) {}
    CSubStringRef(const char* text, size_t length) noexcept : m_pData(text ? text : ""), m_nLength(text ? length : 0) {}
    CSubStringRef(const char* text) noexcept : m_pData(text ? text : ""), m_nLength(text ? std::strlen(text) : 0) {}
    CSubStringRef(const std::string& text) noexcept : m_pData(text.c_str()), m_nLength(text.size()) {}
    CSubStringRef(const CSubStringRef&) noexcept = default;
    CSubStringRef& operator=(const CSubStringRef&) noexcept = default;
    virtual ~CSubStringRef() = default;

    size_t Length() const noexcept { return m_nLength; }
    size_t size() const noexcept { return m_nLength; }
    const char* data() const noexcept { return m_pData; }
    char operator[](size_t i) const noexcept { return m_pData[i]; }
    std::string str() const { return std::string(m_pData, m_nLength); }

    /// The view from `pos` to the end; a `pos` beyond the length gives an empty view at the start.
    CSubStringRef operator()(size_t pos) const noexcept;
    /// `count` characters at `pos` (POSERR = to the end), clipped to the text.
    CSubStringRef operator()(size_t pos, size_t count) const noexcept;

    /// First `ch` at or after `pos` (which must not exceed the length), else POSERR.
    size_t Find(int ch, size_t pos = 0) const noexcept;
    /// Last `ch` at or after `pos`, searching from the end, else POSERR.
    size_t FindLast(int ch, size_t pos = 0) const noexcept;
    size_t Find(const char* text, size_t pos = 0) const noexcept;
    size_t Find(const CSubStringRef& text, size_t pos = 0) const noexcept;
    /// Length of the leading run of characters from `set` / not in `set`.
    size_t SpanIncluding(const char* set) const noexcept;
    size_t SpanExcluding(const char* set) const noexcept;

    /// Byte-wise over the common length; on equality the longer view is greater (-1, 0, 1).
    int Compare(const CSubStringRef& other, int ignoreCase = 0) const noexcept;
    /// Compares this view's length of `text`; equal when `text` ends there, 1 when it goes on.
    /// So a view that is a proper prefix of a C string compares greater: deliberate, kept.
    int Compare(const char* text, int ignoreCase = 0) const noexcept;
    int Compare(size_t count, const CSubStringRef& other, int ignoreCase = 0) const noexcept;
    int Compare(size_t count, const char* text, int ignoreCase = 0) const noexcept;

    bool operator==(const CSubStringRef& o) const noexcept { return Compare(o) == 0; }
    bool operator!=(const CSubStringRef& o) const noexcept { return Compare(o) != 0; }
    bool operator==(const char* o) const noexcept { return Compare(o) == 0; }
    bool operator!=(const char* o) const noexcept { return Compare(o) != 0; }
    bool operator==(char c) const noexcept { return m_nLength == 1 && m_pData[0] == c; }
    bool operator!=(char c) const noexcept { return !(*this == c); }
    bool operator<(const CSubStringRef& o) const noexcept { return Compare(o) < 0; }
    bool operator<=(const CSubStringRef& o) const noexcept { return Compare(o) <= 0; }
    bool operator>(const CSubStringRef& o) const noexcept { return Compare(o) > 0; }
    bool operator>=(const CSubStringRef& o) const noexcept { return Compare(o) >= 0; }

    /// Code points of UTF-8 text (2- to 6-byte forms, overlong forms not rejected); POSERR for
    /// a truncated sequence, a missing continuation byte, a continuation byte where a
    /// character should start, or a byte 0xFE/0xFF.
    size_t UTF8Length() const noexcept;
    /// Bytes this narrow (Latin-1) text needs as UTF-8.
    size_t UTF8BufferSize() const noexcept;

    /// A heap copy of the text: a read-only one in a single block, or (with `extra`) a
    /// CStringVar with room for `extra` more characters.
    CStringRefPtr Dup() const;
    CStringVarPtr Dup(size_t extra) const;

protected:
    const char* m_pData;
    size_t m_nLength;
};

/// A view whose text is NUL-terminated, so C_Str() and the conversion to `const char*` hold.
class KEL_API CStringRef : public CSubStringRef {
public:
    CStringRef() noexcept = default;
    CStringRef(const char* text, size_t length) noexcept : CSubStringRef(text, length) {}
    CStringRef(const char* text) noexcept : CSubStringRef(text) {}
    CStringRef(const std::string& text) noexcept : CSubStringRef(text) {}

    const char* C_Str() const noexcept { return m_pData; }
    const char* data() const noexcept { return m_pData; }
    operator const char*() const noexcept { return m_pData; }

    using CSubStringRef::Compare;
    using CSubStringRef::Find;
    bool operator<(const CStringRef& o) const noexcept { return Compare(o) < 0; }
    bool operator<=(const CStringRef& o) const noexcept { return Compare(o) <= 0; }
    bool operator>(const CStringRef& o) const noexcept { return Compare(o) > 0; }
    bool operator>=(const CStringRef& o) const noexcept { return Compare(o) >= 0; }
    bool operator<(const char* o) const noexcept { return Compare(o) < 0; }
    bool operator<=(const char* o) const noexcept { return Compare(o) <= 0; }
    bool operator>(const char* o) const noexcept { return Compare(o) > 0; }
    bool operator>=(const char* o) const noexcept { return Compare(o) >= 0; }
    // Resolve the ambiguity between the view comparisons and the pointer conversion.
    bool operator==(const CSubStringRef& o) const noexcept { return Compare(o) == 0; }
    bool operator!=(const CSubStringRef& o) const noexcept { return Compare(o) != 0; }
    bool operator==(const char* o) const noexcept { return Compare(o) == 0; }
    bool operator!=(const char* o) const noexcept { return Compare(o) != 0; }
    bool operator==(char c) const noexcept { return CSubStringRef::operator==(c); }
    bool operator!=(char c) const noexcept { return CSubStringRef::operator!=(c); }
};

class CSubStringVar;

/// An owned, growable, NUL-terminated string with a small inline buffer.
///
/// Layout matters: the 8-byte inline area is followed directly by the extra inline bytes of
/// TString<N>. While the text lives on the heap, the inline area keeps the inline capacity so
/// that the string can move back; an alias keeps 0 there. Capacity 0 marks foreign text that
/// is not owned: the first change copies it into own storage.
class KEL_API CStringVar : public CStringRef {
public:
    static constexpr size_t MAX_SIZE = 0x4000000;

    CStringVar() noexcept : CStringVar(size_t(0), 0) {}
    CStringVar(const CSubStringRef& text);
    CStringVar(const char* text);
    CStringVar(const std::string& text);
    CStringVar(const CStringVar& other);
    CStringVar(CStringVar&& other) noexcept;
    CStringVar(const Language_Support::CLanguageStrg& text);
    ~CStringVar() override {
        if (OwnsHeapBlock()) FreeBlock();
    }

    CStringVar& operator=(const CStringVar& text);
    CStringVar& operator=(CStringVar&& text) noexcept;
    CStringVar& operator=(const CStringRef& text);
    CStringVar& operator=(const CSubStringRef& text);
    CStringVar& operator=(const char* text);
    CStringVar& operator=(const std::string& text);
    CStringVar& operator=(char ch);
    CStringVar& operator=(const Language_Support::CLanguageStrg& text);
    CStringVar& operator=(Output_Streams::CFormatResortBuffer& formatted);
    CStringVar& operator=(Misc::CNull) noexcept {
        if (m_nCapacity != 0) {
            m_nLength = 0;
            WData()[0] = '\0';
        } else {
            ResetInline();
        }
        return *this;
    }

    CStringVar& operator+=(const CSubStringRef& text) { return Cat(text.data(), text.Length()); }
    CStringVar& operator+=(const char* text) { return Cat(text, text ? std::strlen(text) : 0); }
    CStringVar& operator+=(const std::string& text) { return Cat(text.data(), text.size()); }
    CStringVar& operator+=(char ch) {
        // Fast path: room for the character in an owned string below the size limit.
        if (m_nLength < m_nCapacity && m_nCapacity - 1 < MAX_SIZE) {
            char* end = WData() + m_nLength;
            end[0] = ch;
            end[1] = '\0';
            ++m_nLength;
            return *this;
        }
        return AppendSlow(&ch, 1);
    }
    CStringVar& operator+=(const Language_Support::CLanguageStrg& text);
    CStringVar& operator+=(Output_Streams::CFormatResortBuffer& formatted);
    CStringVar& operator<<(const CSubStringRef& text) { return Cat(text.data(), text.Length()); }
    CStringVar& operator<<(const char* text) { return *this += text; }
    CStringVar& operator<<(const std::string& text) { return Cat(text.data(), text.size()); }
    CStringVar& operator<<(char ch) { return *this += ch; }
    CStringVar& operator<<(const Language_Support::CLanguageStrg& text) { return *this += text; }
    CStringVar& operator<<(Output_Streams::CFormatResortBuffer& formatted) { return *this += formatted; }

    /// Appends `count` characters of `text` (which may lie inside this string). A null `text`
    /// only rewrites the terminator. Raises 0x20010036 at the size limit, 0x2001000F when
    /// memory runs out.
    CStringVar& Cat(const char* text, size_t count) {
        // Fast path, kept inline: the text fits and the string owns its storage (capacity 0
        // and capacities past the limit both fail the single unsigned comparison).
        if (text && count <= m_nCapacity - m_nLength && m_nCapacity - 1 < MAX_SIZE) {
            char* end = WData() + m_nLength;
            CopySmall(end, text, count);
            end[count] = '\0';
            m_nLength += count;
            return *this;
        }
        return AppendSlow(text, count);
    }

    /// Starts a `%`-directive format that writes into this string (appending); the arguments
    /// follow with `<<`. See OutputStreams.h for the directive grammar.
    Output_Streams::CFormatStream Format(const char* format);

    /// Makes room for `room` more characters and returns a writable pointer at the end (with
    /// `reset` not 0 the string is emptied first). Unlock(n) sets the length to n; Unlock(0)
    /// takes the length from the NUL terminator.
    char* Lock(size_t room, unsigned int reset = 0);
    void Unlock(size_t length = 0) noexcept;
    /// Shortens to `length`; no effect when longer than the text or without own storage.
    void Cut(size_t length) noexcept;
    /// Overwrites the first `count` characters with `ch` (POSERR = the length), growing as needed.
    void Set(char ch, size_t count = POSERR);
    void ToLower(size_t pos = 0) noexcept;
    void ToUpper(size_t pos = 0) noexcept;
    /// Replaces each '/' by '\'.
    void FixSlashes() noexcept;
    /// Shrinks the heap block to the text, or moves the text back inline when it fits.
    void FreeExtra();

    size_t Capacity() const noexcept { return m_nCapacity; }
    char& operator[](int i) noexcept { return WData()[i]; }
    char& operator[](unsigned int i) noexcept { return WData()[i]; }
    char& operator[](long long i) noexcept { return WData()[i]; }
    char& operator[](size_t i) noexcept { return WData()[i]; }
    char operator[](int i) const noexcept { return m_pData[i]; }
    char operator[](unsigned int i) const noexcept { return m_pData[i]; }
    char operator[](long long i) const noexcept { return m_pData[i]; }
    char operator[](size_t i) const noexcept { return m_pData[i]; }

    /// A writable window of the text (see CSubStringVar).
    CSubStringVar operator()(size_t pos);
    CSubStringVar operator()(size_t pos, size_t count);

    /// Moves the text into `target` and leaves this string empty. A heap block is handed over
    /// as it is (`target` frees its own block); inline text, and text of or into an alias, is
    /// copied.
    void operator>>(CStringVar& target);
    /// Hands the text over as a malloc'ed buffer that the caller owns (release it with free()).
    void operator>>(char*& buffer);

    /// Converts narrow (Latin-1) or wide text into UTF-8 in this string (the source may be
    /// this string's own text). Wide characters are taken as code points: values past
    /// U+1FFFFF get the 5- and 6-byte forms that UTF8Length accepts, negative ones U+FFFD.
    CStringVar& CopyAsUTF8(const CSubStringRef& narrow);
    CStringVar& CopyAsUTF8(const wchar_t* wide);
    /// Converts UTF-8 into single-byte text: returns 1, or 0x20010060 when the text is not
    /// acceptable (see the failure transport in Exceptions.h). Two-byte forms are folded into
    /// one byte ((lead & 3) << 6 | cont & 0x3F): code points 0x100..0x7FF lose their upper bits.
    unsigned int CopyFromUTF8(const CSubStringRef& utf8);

protected:
    /// For TString<N>: `extraInline` more inline bytes follow this object's inline area.
    explicit CStringVar(size_t extraInline, int) noexcept
        : CStringRef(m_inline, 0), m_nCapacity(7 + extraInline), m_inline{} {
        m_pData = m_inline;
    }

    friend class CStringAlias;
    friend class CSubStringVar;

    /// Ensures room for `n` more characters (the growth rule).
    void Alloc(size_t n);
    /// Appends `max` characters of `text` (all of a NUL-terminated text when max is 0).
    void AllocCopy(const char* text, size_t max);
    /// The out-of-line part of Cat and += (growth, foreign text, null text).
    CStringVar& AppendSlow(const char* text, size_t count);
    /// Assignment: empties the string and appends `count` characters of `text`, which may
    /// be part of this string's own text.
    CStringVar& Assign(const char* text, size_t count);
    /// Copies `count` bytes; pieces of up to 16 bytes without a call (two overlapping loads
    /// and stores, all loads first, never touching a byte outside either range).
    static void CopySmall(char* to, const char* from, size_t count) noexcept {
        if (count > 16) {
            std::memcpy(to, from, count);
        } else if (count >= 8) {
            std::uint64_t head, tail;
            std::memcpy(&head, from, 8);
            std::memcpy(&tail, from + count - 8, 8);
            std::memcpy(to, &head, 8);
            std::memcpy(to + count - 8, &tail, 8);
        } else if (count >= 4) {
            std::uint32_t head, tail;
            std::memcpy(&head, from, 4);
            std::memcpy(&tail, from + count - 4, 4);
            std::memcpy(to, &head, 4);
            std::memcpy(to + count - 4, &tail, 4);
        } else if (count != 0) {
            const char first = from[0], middle = from[count / 2], last = from[count - 1];
            to[0] = first;
            to[count / 2] = middle;
            to[count - 1] = last;
        }
    }
    char* WData() noexcept { return const_cast<char*>(m_pData); }
    char* InlineBuf() noexcept { return m_inline; }
    bool IsInline() const noexcept { return m_pData == m_inline; }
    /// The inline capacity noted in the inline area while the text is elsewhere (0: alias).
    size_t StoredInlineCapacity() const noexcept {
        size_t cap;
        std::memcpy(&cap, m_inline, sizeof cap);
        return cap;
    }
    void StoreInlineCapacity(size_t cap) noexcept { std::memcpy(m_inline, &cap, sizeof cap); }
    /// The capacity of the inline buffer (0 for an alias).
    size_t InlineCapacity() const noexcept { return IsInline() ? m_nCapacity : StoredInlineCapacity(); }
    bool IsAlias() const noexcept { return !IsInline() && StoredInlineCapacity() == 0; }
    /// Whether the text is in a heap block that this string owns.
    bool OwnsHeapBlock() const noexcept { return !IsInline() && m_nCapacity != 0 && StoredInlineCapacity() != 0; }
    /// Frees the heap block (the destructor's out-of-line part).
    void FreeBlock() noexcept;
    /// Drops any heap block and points the string at its empty inline buffer.
    void ResetInline() noexcept;
    /// Copies foreign text (capacity 0) into own storage before a change.
    void MakeOwn() {
        if (m_nCapacity == 0) Alloc(0);
    }
    void ReplaceRange(size_t pos, size_t count, const char* text, size_t length);

    size_t m_nCapacity;
    alignas(8) char m_inline[8];
};

/// A CStringVar with N more inline bytes (inline capacity N + 7).
template <size_t N>
class TString : public CStringVar {
public:
    TString() noexcept : CStringVar(N, 0) {}
    TString(const CSubStringRef& text) : CStringVar(N, 0) { Cat(text.data(), text.Length()); }
    TString(const char* text) : CStringVar(N, 0) { *this += text; }
    TString(const std::string& text) : CStringVar(N, 0) { Cat(text.data(), text.size()); }
    TString(const CStringVar& text) : CStringVar(N, 0) { Cat(text.data(), text.Length()); }
    TString(const TString& text) : CStringVar(N, 0) { Cat(text.data(), text.Length()); }
    TString(const Language_Support::CLanguageStrg& text) : CStringVar(N, 0) { *this += text; }
    TString& operator=(const TString& text) { CStringVar::operator=(text); return *this; }
    using CStringVar::operator=;
    using CStringVar::operator+=;

private:
    char m_extra[N];
};

/// CStringVar with its own assignment operators (same layout).
class KEL_API CStringEx : public CStringVar {
public:
    using CStringVar::CStringVar;
    CStringEx() noexcept = default;
    CStringEx(const CStringEx& o) : CStringVar(o) {}
    CStringEx& operator=(const CStringEx& o) { CStringVar::operator=(o); return *this; }
    using CStringVar::operator=;
    using CStringVar::operator+=;
};

/// Borrows the storage of a target CStringVar: the target reads empty while the alias lives,
/// growth happens on the target's storage, and the destructor writes the length back.
class KEL_API CStringAlias : public CStringVar {
public:
    explicit CStringAlias(CStringVar& target) noexcept;
    ~CStringAlias() override;
    CStringAlias(const CStringAlias&) = delete;
    CStringAlias& operator=(const CStringAlias&) = delete;
    using CStringVar::operator=;
    using CStringVar::operator+=;

    /// Grows the target and takes over its new block (called by the growth rule).
    void GrowTarget(size_t n);

private:
    CStringVar* m_pTarget;
};

/// A writable window (data, length) into a CStringVar. Assigning replaces the window's
/// characters in the parent, moving the rest of the parent's text; the window then covers
/// the new characters. The source may be part of the same parent. A window is valid until
/// its parent is changed by other means.
class KEL_API CSubStringVar : public CSubStringRef {
public:
    CSubStringVar(CStringVar& parent, size_t pos, size_t count) noexcept;

    CSubStringVar& operator=(const CSubStringVar& text);
    CSubStringVar& operator=(const CStringRef& text);
    CSubStringVar& operator=(const CStringVar& text);
    CSubStringVar& operator=(const CSubStringRef& text);
    CSubStringVar& operator=(const char* text);
    CSubStringVar& operator=(char ch);
    CSubStringVar& operator=(Misc::CNull);

    /// Replaces the window by `count` copies of `ch` (POSERR: as many as the window holds);
    /// the window grows or shrinks with it.
    void Set(char ch, size_t count = POSERR);
    void ToLower() noexcept;
    void ToUpper() noexcept;
    /// Turns every '/' of the window into '\' (the suite's stored paths use backslashes).
    void FixSlashes() noexcept;

private:
    void Replace(const char* text, size_t length);
    CStringVar* m_pParent;
};

/// Owning pointer to a heap CStringRef (with its own copy of the text). Copy and move transfer
/// ownership, as in the original interface.
class KEL_API CStringRefPtr {
public:
    CStringRefPtr() noexcept = default;
    explicit CStringRefPtr(CStringRef* p) noexcept : m_p(p) {}
    CStringRefPtr(CStringRefPtr& o) noexcept : m_p(o.Release()) {}
    CStringRefPtr(CStringRefPtr&& o) noexcept : m_p(o.Release()) {}
    ~CStringRefPtr() { Delete(); }
    CStringRefPtr& operator=(CStringRefPtr& o) noexcept { if (this != &o) { Delete(); m_p = o.Release(); } return *this; }
    CStringRefPtr& operator=(CStringRefPtr&& o) noexcept { if (this != &o) { Delete(); m_p = o.Release(); } return *this; }
    CStringRefPtr& operator=(Misc::CNull) noexcept { Delete(); return *this; }
    bool IsValid() const noexcept { return m_p != nullptr; }
    CStringRef* Release() noexcept { CStringRef* p = m_p; m_p = nullptr; return p; }
    void Delete() noexcept;
    CStringRef* operator->() const noexcept { return m_p; }
    CStringRef& operator*() const noexcept { return *m_p; }

private:
    CStringRef* m_p = nullptr;
};

/// Owning pointer to a heap CStringVar. Copy and move transfer ownership.
class KEL_API CStringVarPtr {
public:
    CStringVarPtr() noexcept = default;
    explicit CStringVarPtr(CStringVar* p) noexcept : m_p(p) {}
    CStringVarPtr(CStringVarPtr& o) noexcept : m_p(o.Release()) {}
    CStringVarPtr(CStringVarPtr&& o) noexcept : m_p(o.Release()) {}
    ~CStringVarPtr() { Delete(); }
    CStringVarPtr& operator=(CStringVarPtr& o) noexcept { if (this != &o) { Delete(); m_p = o.Release(); } return *this; }
    CStringVarPtr& operator=(CStringVarPtr&& o) noexcept { if (this != &o) { Delete(); m_p = o.Release(); } return *this; }
    CStringVarPtr& operator=(Misc::CNull) noexcept { Delete(); return *this; }
    bool IsValid() const noexcept { return m_p != nullptr; }
    CStringVar* Release() noexcept { CStringVar* p = m_p; m_p = nullptr; return p; }
    void Delete() noexcept { delete m_p; m_p = nullptr; }
    CStringVar* operator->() const noexcept { return m_p; }
    CStringVar& operator*() const noexcept { return *m_p; }

private:
    CStringVar* m_p = nullptr;
};

/// Global views.
KEL_API extern const CStringRef _TEmpty; ///< ""
KEL_API extern const CStringRef _TBlank; ///< " "
KEL_API extern const CStringRef _TNL;    ///< "\n"
KEL_API extern const CStringRef _TFNL;   ///< "\r\n"

/// Narrow (Latin-1) or wide text to UTF-8.
KEL_API void ToUTF8(const std::string& narrow, std::string& utf8);
KEL_API void ToUTF8(const wchar_t* wide, std::string& utf8);
/// Code points of UTF-8 text, as CSubStringRef::UTF8Length.
KEL_API size_t UTF8length(const std::string& utf8);
/// Splits `text` at any of the separator characters. Adjacent separators give no empty token.
KEL_API std::vector<std::string> tokenizeString(const char* const text, const char* const separators);
/// Concatenates parts[first] .. parts[last] with nothing between; "" when first >= size.
KEL_API std::string joinString(const std::vector<std::string>& parts, size_t first);
/// Appends a hex dump: lines of `bytesPerLine` bytes, each as two lower-case hex digits and a
/// blank, lines after the first begun with '\n', each prefixed with the index range
/// "0x00 - 0x10: " when the data spans more than one line (`bytesPerLine` 0: one line). The
/// stream's own number base and fill are kept.
KEL_API void ByteStreamAppend(const char* data, size_t length, std::stringstream& out, size_t bytesPerLine);

} // namespace Strings
} // namespace KEL
