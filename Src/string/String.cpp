// kelbase - Src/string/String.cpp
//
// CStringVar storage: the growth rule, appending and assigning (also from the string's own
// text), hand-over of heap blocks, and the alias that borrows another string's storage.
//
// Storage states of a CStringVar (see Strings.h):
//   inline   m_pData == m_inline, capacity = inline capacity (7 + extra inline bytes);
//   heap     m_pData is a malloc'ed block of capacity + 1 bytes, m_inline notes the inline
//            capacity so that the text can move back;
//   foreign  capacity 0, m_pData points at text that is not ours, m_inline notes the inline
//            capacity;
//   alias    m_pData is the target's storage, m_inline holds 0.
#define KEL_SOURCE_FILE "Src/string"
#include <kel/Exceptions.h>
#include <kel/LanguageSupport.h>
#include <kel/OutputStreams.h>
#include <kel/Strings.h>
#include <kel/Trace.h>

#include <cstdlib>
#include <cstring>
#include <new>

namespace KEL {
namespace Strings {

namespace {

constexpr size_t kDoublingLimit = 8192; // below this length the capacity doubles
constexpr size_t kPageStep = 4096;      // from there on it grows in steps of this size
constexpr size_t kBlockGrain = 16;      // heap blocks are multiples of this size
// Requests this large cannot be met by any heap; refusing them early keeps the size
// arithmetic below free of overflow.
constexpr size_t kAbsurdRequest = ~size_t(0) / 4;

constexpr size_t RoundUp(size_t value, size_t grain) noexcept { return (value + grain - 1) / grain * grain; }

[[noreturn]] void RaiseOutOfMemory(size_t bytes) {
    KEL_RAISE(0x2001000Fu, "Out of memory: no string block of %d bytes", static_cast<unsigned long long>(bytes));
}

} // namespace

// ---------------------------------------------------------------------------------------------
// Construction and destruction

CStringVar::CStringVar(const CSubStringRef& text) : CStringVar() { Cat(text.data(), text.Length()); }

CStringVar::CStringVar(const char* text) : CStringVar() { *this += text; }

CStringVar::CStringVar(const std::string& text) : CStringVar() { Cat(text.data(), text.size()); }

CStringVar::CStringVar(const CStringVar& other) : CStringVar() { Cat(other.data(), other.Length()); }

CStringVar::CStringVar(CStringVar&& other) noexcept : CStringVar() {
    if (other.OwnsHeapBlock()) {
        StoreInlineCapacity(m_nCapacity);
        m_pData = other.m_pData;
        m_nCapacity = other.m_nCapacity;
        m_nLength = other.m_nLength;
        other.m_pData = other.m_inline;
        other.m_nCapacity = other.StoredInlineCapacity();
        other.m_nLength = 0;
        other.m_inline[0] = '\0';
        return;
    }
    // Inline, foreign or aliased text is copied. Should the heap fail, `other` keeps its
    // text and this string stays empty.
    try {
        Cat(other.data(), other.Length());
        other = Misc::Null;
    } catch (...) {
        ResetInline();
    }
}

CStringVar::CStringVar(const Language_Support::CLanguageStrg& text) : CStringVar() { *this = text; }

void CStringVar::FreeBlock() noexcept { std::free(WData()); }

void CStringVar::ResetInline() noexcept {
    if (IsInline()) {
        m_nLength = 0;
        m_inline[0] = '\0';
        return;
    }
    size_t inlineCap = StoredInlineCapacity();
    if (inlineCap == 0) { // an alias keeps its target's storage and only empties it
        m_nLength = 0;
        if (m_nCapacity != 0) WData()[0] = '\0';
        return;
    }
    if (m_nCapacity != 0) std::free(WData());
    m_pData = m_inline;
    m_nCapacity = inlineCap;
    m_nLength = 0;
    m_inline[0] = '\0';
}

// ---------------------------------------------------------------------------------------------
// The growth rule

void CStringVar::Alloc(size_t n) {
    if (m_nCapacity == 0) {
        if (IsAlias()) {
            static_cast<CStringAlias*>(this)->GrowTarget(n);
            return;
        }
        // Foreign text: continue from the empty inline buffer and bring the text along.
        const char* foreign = m_pData;
        size_t length = m_nLength;
        size_t inlineCap = StoredInlineCapacity();
        if (length > kAbsurdRequest || n > kAbsurdRequest - length) RaiseOutOfMemory(~size_t(0));
        m_pData = m_inline;
        m_nCapacity = inlineCap;
        m_nLength = 0;
        m_inline[0] = '\0';
        try {
            Alloc(length + n);
        } catch (...) {
            // Still the foreign text, as before the call.
            StoreInlineCapacity(inlineCap);
            m_pData = foreign;
            m_nLength = length;
            m_nCapacity = 0;
            throw;
        }
        std::memcpy(WData(), foreign, length);
        WData()[length] = '\0';
        m_nLength = length;
        return;
    }
    if (m_nCapacity > MAX_SIZE) {
        KEL_TRACE(KEL_MODULE_INFO_KelLib, 0x40000000u, "KEL::Strings::CStringVar::Alloc",
                  "Maximum buff size (%d) already reached")
            << static_cast<unsigned long long>(m_nCapacity);
        KEL_RAISE(0x20010036u, "Maximum buff size (%d) already reached", static_cast<unsigned long long>(m_nCapacity));
    }
    if (m_nCapacity - m_nLength >= n) return;
    if (n > kAbsurdRequest) RaiseOutOfMemory(n);

    size_t size;
    if (m_nLength < kDoublingLimit)
        size = m_nLength == 0 ? n + 1 : 2 * m_nCapacity + 1;
    else
        size = RoundUp(m_nCapacity + kPageStep, kPageStep);
    if (size <= m_nLength + n) size = m_nLength + n + 1;
    size = RoundUp(size, kBlockGrain);

    if (IsAlias()) {
        static_cast<CStringAlias*>(this)->GrowTarget(n);
        return;
    }
    if (IsInline()) {
        char* block = static_cast<char*>(std::malloc(size));
        if (!block) RaiseOutOfMemory(size);
        std::memcpy(block, m_inline, m_nLength + 1);
        StoreInlineCapacity(m_nCapacity);
        m_pData = block;
        m_nCapacity = size - 1;
        return;
    }
    size_t inlineCap = StoredInlineCapacity();
    if (inlineCap >= m_nLength + n) {
        // A block handed over from a smaller string: the inline buffer holds more.
        char* block = WData();
        std::memcpy(m_inline, block, m_nLength + 1);
        m_pData = m_inline;
        m_nCapacity = inlineCap;
        std::free(block);
        return;
    }
    char* block = static_cast<char*>(std::realloc(WData(), size));
    if (!block) {
        // The old block is given up too, so the string is left empty but sound.
        std::free(WData());
        m_pData = m_inline;
        m_nCapacity = inlineCap;
        m_nLength = 0;
        m_inline[0] = '\0';
        RaiseOutOfMemory(size);
    }
    m_pData = block;
    m_nCapacity = size - 1;
}

void CStringVar::AllocCopy(const char* text, size_t max) {
    if (!text) {
        MakeOwn();
        if (m_nCapacity != 0) WData()[m_nLength] = '\0';
        return;
    }
    size_t count = max != 0 ? max : std::strlen(text);
    if (count == 0) {
        MakeOwn();
        WData()[m_nLength] = '\0';
        return;
    }
    // A source inside our own buffer moves with it: note its offset before growing.
    const char* base = m_pData;
    bool inside = m_nCapacity != 0 && text >= base && text <= base + m_nCapacity;
    if (inside && static_cast<size_t>(text - base) + count > m_nLength && m_nCapacity - m_nLength < count) {
        // Part of the source lies beyond the text, where growth keeps nothing: copy it first.
        TString<256> copy;
        copy.Cat(text, count);
        AllocCopy(copy.data(), count);
        return;
    }
    size_t offset = static_cast<size_t>(text - base);
    Alloc(count);
    if (inside) text = m_pData + offset;
    char* end = WData() + m_nLength;
    std::memmove(end, text, count);
    end[count] = '\0';
    m_nLength += count;
}

CStringVar& CStringVar::AppendSlow(const char* text, size_t count) {
    if (text && count == 0) {
        MakeOwn();
        if (m_nCapacity > MAX_SIZE) Alloc(0); // a string past the limit takes no more text
        WData()[m_nLength] = '\0';
        return *this;
    }
    AllocCopy(text, count);
    return *this;
}

CStringVar& CStringVar::Assign(const char* text, size_t count) {
    if (!text) text = "";
    if (m_nCapacity == 0) {
        // Foreign text is dropped; the source may be that very text, which stays valid.
        ResetInline();
    } else if (text >= m_pData && text <= m_pData + m_nCapacity) {
        // Part of our own buffer: it moves to the front without any growth.
        size_t available = static_cast<size_t>(m_pData + m_nCapacity - text);
        if (count > available) count = available;
        if (m_nCapacity > MAX_SIZE) Alloc(0);
        std::memmove(WData(), text, count);
        WData()[count] = '\0';
        m_nLength = count;
        return *this;
    }
    m_nLength = 0;
    if (m_nCapacity != 0 && m_nCapacity <= MAX_SIZE) WData()[0] = '\0';
    return Cat(text, count);
}

// ---------------------------------------------------------------------------------------------
// Assignment and appending

CStringVar& CStringVar::operator=(const CStringVar& text) {
    if (this != &text) Assign(text.data(), text.Length());
    return *this;
}

CStringVar& CStringVar::operator=(CStringVar&& text) noexcept {
    if (this == &text) return *this;
    if (text.OwnsHeapBlock() && !IsAlias()) {
        size_t inlineCap = InlineCapacity();
        if (OwnsHeapBlock()) std::free(WData());
        StoreInlineCapacity(inlineCap);
        m_pData = text.m_pData;
        m_nCapacity = text.m_nCapacity;
        m_nLength = text.m_nLength;
        text.m_pData = text.m_inline;
        text.m_nCapacity = text.StoredInlineCapacity();
        text.m_nLength = 0;
        text.m_inline[0] = '\0';
        return *this;
    }
    try {
        Assign(text.data(), text.Length());
        text = Misc::Null;
    } catch (...) {
        *this = Misc::Null;
    }
    return *this;
}

CStringVar& CStringVar::operator=(const CStringRef& text) { return Assign(text.data(), text.Length()); }

CStringVar& CStringVar::operator=(const CSubStringRef& text) { return Assign(text.data(), text.Length()); }

CStringVar& CStringVar::operator=(const char* text) { return Assign(text, text ? std::strlen(text) : 0); }

CStringVar& CStringVar::operator=(const std::string& text) { return Assign(text.data(), text.size()); }

CStringVar& CStringVar::operator=(char ch) { return Assign(&ch, 1); }

CStringVar& CStringVar::operator=(const Language_Support::CLanguageStrg& text) {
    if (text.IsUTF8()) {
        text.UTF8ToChar(*this);
        return *this;
    }
    return *this = text.Native();
}

CStringVar& CStringVar::operator+=(const Language_Support::CLanguageStrg& text) {
    if (!text.IsUTF8()) return *this += text.Native();
    TString<256> converted;
    text.UTF8ToChar(converted);
    return Cat(converted.data(), converted.Length());
}

CStringVar& CStringVar::operator=(Output_Streams::CFormatResortBuffer& formatted) {
    *this = Misc::Null;
    TString<256> ordered;
    formatted.PutInOrder(ordered);
    return Assign(ordered.data(), ordered.Length());
}

CStringVar& CStringVar::operator+=(Output_Streams::CFormatResortBuffer& formatted) {
    TString<256> ordered;
    formatted.PutInOrder(ordered);
    return Cat(ordered.data(), ordered.Length());
}

Output_Streams::CFormatStream CStringVar::Format(const char* format) {
    return Output_Streams::CFormatStream(*this, format);
}

// ---------------------------------------------------------------------------------------------
// Direct access

char* CStringVar::Lock(size_t room, unsigned int reset) {
    if (reset) *this = Misc::Null;
    Alloc(room);
    return WData() + m_nLength;
}

void CStringVar::Unlock(size_t length) noexcept {
    if (m_nCapacity == 0) return;
    char* data = WData();
    if (length == 0) {
        const void* nul = std::memchr(data, '\0', m_nCapacity);
        length = nul ? static_cast<size_t>(static_cast<const char*>(nul) - data) : m_nCapacity;
    }
    if (length > m_nCapacity) length = m_nCapacity;
    data[length] = '\0';
    m_nLength = length;
}

void CStringVar::Cut(size_t length) noexcept {
    if (m_nCapacity == 0 || length >= m_nLength) return;
    m_nLength = length;
    WData()[length] = '\0';
}

void CStringVar::Set(char ch, size_t count) {
    if (count == POSERR) count = m_nLength;
    MakeOwn();
    if (count > m_nLength) Alloc(count - m_nLength);
    char* data = WData();
    std::memset(data, static_cast<unsigned char>(ch), count);
    if (count > m_nLength) {
        m_nLength = count;
        data[count] = '\0';
    }
}

namespace {
inline char AsciiLower(char c) noexcept { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + ('a' - 'A')) : c; }
inline char AsciiUpper(char c) noexcept { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - ('a' - 'A')) : c; }
} // namespace

void CStringVar::ToLower(size_t pos) noexcept {
    if (m_nCapacity == 0) return; // foreign text is never written to
    char* data = WData();
    for (size_t i = pos; i < m_nLength; ++i) data[i] = AsciiLower(data[i]);
}

void CStringVar::ToUpper(size_t pos) noexcept {
    if (m_nCapacity == 0) return;
    char* data = WData();
    for (size_t i = pos; i < m_nLength; ++i) data[i] = AsciiUpper(data[i]);
}

void CStringVar::FixSlashes() noexcept {
    if (m_nCapacity == 0) return;
    char* data = WData();
    for (size_t i = 0; i < m_nLength; ++i)
        if (data[i] == '/') data[i] = '\\';
}

void CStringVar::FreeExtra() {
    if (!OwnsHeapBlock()) return;
    size_t inlineCap = StoredInlineCapacity();
    char* block = WData();
    if (m_nLength <= inlineCap) {
        std::memcpy(m_inline, block, m_nLength + 1);
        m_pData = m_inline;
        m_nCapacity = inlineCap;
        std::free(block);
        return;
    }
    size_t size = RoundUp(m_nLength + 1, kBlockGrain);
    if (size - 1 >= m_nCapacity) return;
    // Shrinking in place never fails on a sound heap; if it does, the old block stays.
    if (char* smaller = static_cast<char*>(std::realloc(block, size))) {
        m_pData = smaller;
        m_nCapacity = size - 1;
    }
}

CSubStringVar CStringVar::operator()(size_t pos) { return CSubStringVar(*this, pos, POSERR); }

CSubStringVar CStringVar::operator()(size_t pos, size_t count) { return CSubStringVar(*this, pos, count); }

// ---------------------------------------------------------------------------------------------
// Hand-over

void CStringVar::operator>>(CStringVar& target) {
    if (&target == this) return;
    if (OwnsHeapBlock() && !target.IsAlias()) {
        size_t targetInline = target.InlineCapacity();
        if (target.OwnsHeapBlock()) std::free(target.WData());
        target.StoreInlineCapacity(targetInline);
        target.m_pData = m_pData;
        target.m_nCapacity = m_nCapacity;
        target.m_nLength = m_nLength;
        m_pData = m_inline;
        m_nCapacity = StoredInlineCapacity();
        m_nLength = 0;
        m_inline[0] = '\0';
        return;
    }
    target.Assign(m_pData, m_nLength);
    *this = Misc::Null;
}

void CStringVar::operator>>(char*& buffer) {
    if (OwnsHeapBlock()) {
        buffer = WData();
        m_pData = m_inline;
        m_nCapacity = StoredInlineCapacity();
        m_nLength = 0;
        m_inline[0] = '\0';
        return;
    }
    char* copy = static_cast<char*>(std::malloc(m_nLength + 1));
    if (!copy) RaiseOutOfMemory(m_nLength + 1);
    std::memcpy(copy, m_pData, m_nLength);
    copy[m_nLength] = '\0';
    buffer = copy;
    *this = Misc::Null;
}

// ---------------------------------------------------------------------------------------------
// Replacing a window (CSubStringVar)

void CStringVar::ReplaceRange(size_t pos, size_t count, const char* text, size_t length) {
    if (!text) length = 0;
    if (pos > m_nLength) pos = m_nLength;
    if (count > m_nLength - pos) count = m_nLength - pos;
    if (length != 0 && m_nCapacity != 0 && text >= m_pData && text <= m_pData + m_nCapacity) {
        // The new characters come from this very string, which is about to move: copy them.
        TString<256> copy;
        copy.Cat(text, length);
        ReplaceRange(pos, count, copy.data(), length);
        return;
    }
    MakeOwn();
    if (length > count) Alloc(length - count);
    char* data = WData();
    std::memmove(data + pos + length, data + pos + count, m_nLength - pos - count + 1);
    if (length) std::memcpy(data + pos, text, length);
    m_nLength = m_nLength - count + length;
}

// ---------------------------------------------------------------------------------------------
// CStringAlias

CStringAlias::CStringAlias(CStringVar& target) noexcept : CStringVar(), m_pTarget(&target) {
    m_pData = target.m_pData;
    m_nLength = target.m_nLength;
    m_nCapacity = target.m_nCapacity;
    StoreInlineCapacity(0);
    target.m_nLength = 0;
}

CStringAlias::~CStringAlias() {
    m_pTarget->m_nLength = m_nLength;
    // The storage stays with the target.
    m_pData = m_inline;
    m_nCapacity = 7;
    m_nLength = 0;
    m_inline[0] = '\0';
}

void CStringAlias::GrowTarget(size_t n) {
    CStringVar& target = *m_pTarget;
    target.m_nLength = m_nLength;
    try {
        target.Alloc(n);
    } catch (...) {
        m_pData = target.m_pData;
        m_nCapacity = target.m_nCapacity;
        m_nLength = target.m_nLength;
        target.m_nLength = 0;
        throw;
    }
    m_pData = target.m_pData;
    m_nCapacity = target.m_nCapacity;
    target.m_nLength = 0;
}

// ---------------------------------------------------------------------------------------------
// CSubStringVar

CSubStringVar::CSubStringVar(CStringVar& parent, size_t pos, size_t count) noexcept
    : CSubStringRef(static_cast<const CSubStringRef&>(parent)(pos, count)), m_pParent(&parent) {}

void CSubStringVar::Replace(const char* text, size_t length) {
    size_t pos = static_cast<size_t>(m_pData - m_pParent->data());
    m_pParent->ReplaceRange(pos, m_nLength, text, length);
    m_pData = m_pParent->data() + pos;
    m_nLength = length;
}

CSubStringVar& CSubStringVar::operator=(const CSubStringVar& text) {
    Replace(text.data(), text.Length());
    return *this;
}

CSubStringVar& CSubStringVar::operator=(const CStringRef& text) {
    Replace(text.data(), text.Length());
    return *this;
}

CSubStringVar& CSubStringVar::operator=(const CStringVar& text) {
    Replace(text.data(), text.Length());
    return *this;
}

CSubStringVar& CSubStringVar::operator=(const CSubStringRef& text) {
    Replace(text.data(), text.Length());
    return *this;
}

CSubStringVar& CSubStringVar::operator=(const char* text) {
    Replace(text, text ? std::strlen(text) : 0);
    return *this;
}

CSubStringVar& CSubStringVar::operator=(char ch) {
    Replace(&ch, 1);
    return *this;
}

CSubStringVar& CSubStringVar::operator=(Misc::CNull) {
    Replace(nullptr, 0);
    return *this;
}

void CSubStringVar::Set(char ch, size_t count) {
    if (count == POSERR) count = m_nLength;
    CStringVar& parent = *m_pParent;
    size_t pos = static_cast<size_t>(m_pData - parent.data());
    parent.MakeOwn();
    if (count > m_nLength) {
        // The window grows: the characters after it move on.
        size_t extra = count - m_nLength;
        parent.Alloc(extra);
        char* data = parent.WData();
        std::memmove(data + pos + count, data + pos + m_nLength, parent.m_nLength - pos - m_nLength + 1);
        parent.m_nLength += extra;
        m_nLength = count;
    }
    std::memset(parent.WData() + pos, static_cast<unsigned char>(ch), count);
    m_pData = parent.data() + pos;
}

void CSubStringVar::ToLower() noexcept {
    if (m_pParent->Capacity() == 0) return;
    char* p = const_cast<char*>(m_pData);
    for (size_t i = 0; i < m_nLength; ++i) p[i] = AsciiLower(p[i]);
}

void CSubStringVar::ToUpper() noexcept {
    if (m_pParent->Capacity() == 0) return;
    char* p = const_cast<char*>(m_pData);
    for (size_t i = 0; i < m_nLength; ++i) p[i] = AsciiUpper(p[i]);
}

void CSubStringVar::FixSlashes() noexcept {
    if (m_pParent->Capacity() == 0) return;
    char* p = const_cast<char*>(m_pData);
    for (size_t i = 0; i < m_nLength; ++i)
        if (p[i] == '/') p[i] = '\\';
}

// ---------------------------------------------------------------------------------------------
// Owning pointers and copies

void CStringRefPtr::Delete() noexcept {
    if (!m_p) return;
    // Dup() builds the view and its text in one block from operator new, which also matches
    // a pointer that came from `new CStringRef`.
    m_p->~CStringRef();
    ::operator delete(static_cast<void*>(m_p));
    m_p = nullptr;
}

CStringRefPtr CSubStringRef::Dup() const {
    void* block = ::operator new(sizeof(CStringRef) + m_nLength + 1);
    char* text = static_cast<char*>(block) + sizeof(CStringRef);
    std::memcpy(text, m_pData, m_nLength);
    text[m_nLength] = '\0';
    return CStringRefPtr(new (block) CStringRef(text, m_nLength));
}

CStringVarPtr CSubStringRef::Dup(size_t extra) const {
    CStringVarPtr copy(new CStringVar());
    if (extra > kAbsurdRequest || m_nLength > kAbsurdRequest - extra) RaiseOutOfMemory(~size_t(0));
    copy->Lock(m_nLength + extra);
    copy->Cat(m_pData, m_nLength);
    return copy;
}

} // namespace Strings
} // namespace KEL
