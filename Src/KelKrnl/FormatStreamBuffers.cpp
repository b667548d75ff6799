// kelbase - Src/KelKrnl/FormatStreamBuffers.cpp
//
// The sinks of the format streams: the common base (column bookkeeping, ending a broken
// format), the heap character buffer, the string sink behind CStringVar::Format, and the
// re-sorting buffer that lets translated texts place their arguments in their own order.
#define KEL_SOURCE_FILE "Src/KelKrnl"
#include <kel/Exceptions.h>
#include <kel/OutputStreams.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <new>

namespace KEL {
namespace Output_Streams {

namespace {

// The last '\n' of a text, or null.
inline const char* LastLineEnd(const char* text, size_t length) noexcept {
#if defined(__GLIBC__)
    return static_cast<const char*>(memrchr(text, '\n', length));
#else
    for (const char* p = text + length; p != text;)
        if (*--p == '\n') return p;
    return nullptr;
#endif
}

} // namespace

namespace Base_Classes {

CFormatStreamBuffer::~CFormatStreamBuffer() {
    // A stream that outlives its sink must not write into it any more.
    if (m_pActive) m_pActive->m_pSink = nullptr;
}

CFormatStream CFormatStreamBuffer::Format(const char* format) { return CFormatStream(*this, format); }

void CFormatStreamBuffer::Reset() { m_nColumn = 0; }

void CFormatStreamBuffer::Flush(unsigned int) {}

void CFormatStreamBuffer::SignalNewFormatField() {}

void CFormatStreamBuffer::SignalFormatEnd() {}

void CFormatStreamBuffer::Catch() noexcept {
    if (m_pActive) m_pActive->Abandon();
}

void CFormatStreamBuffer::doThrow(Exceptions::SOURCE_INFO& site) {
    Catch();
    if (!RaisesFormatErrors()) throw Internals::CFormatAbort{};
    Exceptions::Raise(site, 0x20010010u, nullptr, "%s", "Bad format");
}

void CFormatStreamBuffer::Put(const char* text, size_t length, unsigned int upperCase) {
    if (length == 0) return;
    try {
        Write(text, length, upperCase);
    } catch (...) {
        // A sink that cannot take more (out of memory, a string at its limit) ends the format,
        // so that unwinding does not try to write the rest into it.
        Catch();
        throw;
    }
    const char* nl = LastLineEnd(text, length);
    m_nColumn = nl ? static_cast<size_t>(text + length - nl - 1) : m_nColumn + length;
}

void CFormatStreamBuffer::PutFill(int ch, size_t count) {
    if (count == 0) return;
    try {
        Fill(ch, count);
    } catch (...) {
        Catch();
        throw;
    }
    m_nColumn = (ch == '\n') ? 0 : m_nColumn + count;
}

} // namespace Base_Classes

// ---------------------------------------------------------------------------------------------
// CChrStreamBuffer

CChrStreamBuffer::CChrStreamBuffer(size_t initial, size_t grow) : m_nGrow(grow) {
    if (initial) ResizeBuffer(initial);
}

CChrStreamBuffer::~CChrStreamBuffer() { std::free(m_pBuffer); }

void CChrStreamBuffer::ResizeBuffer(size_t size) {
    if (m_pBuffer && size < m_nSize) return;
    if (size >= (~size_t(0) >> 1)) KEL_RAISE(0x2001000Fu, "Out of memory (%d bytes)", size);
    size_t bytes = size + 1;
    char* block = static_cast<char*>(std::realloc(m_pBuffer, bytes));
    if (!block) KEL_RAISE(0x2001000Fu, "Out of memory (%d bytes)", bytes);
    if (!m_pBuffer) block[0] = '\0';
    m_pBuffer = block;
    m_nSize = bytes;
}

// Room for `more` characters and the terminator behind them.
static inline size_t NextSize(size_t size, size_t needed, size_t grow) noexcept {
    size_t next = grow ? size + grow : size * 2;
    if (next < 64) next = 64;
    return next > needed ? next : needed;
}

void CChrStreamBuffer::Write(const char* text, size_t length, unsigned int upperCase) {
    if (length == 0) return;
    if (length >= (~size_t(0) >> 2) - m_nLength) KEL_RAISE(0x2001000Fu, "Out of memory (%d bytes)", length);
    size_t needed = m_nLength + length + 1;
    if (needed > m_nSize) ResizeBuffer(NextSize(m_nSize, needed, m_nGrow) - 1);
    char* at = m_pBuffer + m_nLength;
    if (upperCase) {
        for (size_t i = 0; i < length; ++i) at[i] = static_cast<char>(std::toupper(static_cast<unsigned char>(text[i])));
    } else {
        std::memmove(at, text, length);
    }
    m_nLength += length;
    m_pBuffer[m_nLength] = '\0';
}

void CChrStreamBuffer::Fill(int ch, size_t count) {
    if (count == 0) return;
    if (count >= (~size_t(0) >> 2) - m_nLength) KEL_RAISE(0x2001000Fu, "Out of memory (%d bytes)", count);
    size_t needed = m_nLength + count + 1;
    if (needed > m_nSize) ResizeBuffer(NextSize(m_nSize, needed, m_nGrow) - 1);
    std::memset(m_pBuffer + m_nLength, ch, count);
    m_nLength += count;
    m_pBuffer[m_nLength] = '\0';
}

void CChrStreamBuffer::Reset() {
    m_nLength = 0;
    if (m_pBuffer) m_pBuffer[0] = '\0';
    m_nColumn = 0;
}

void CChrStreamBuffer::SetBuffer(char* buffer, size_t length) noexcept {
    std::free(m_pBuffer);
    m_pBuffer = buffer;
    m_nLength = buffer ? length : 0;
    m_nSize = buffer ? length + 1 : 0;
    m_nColumn = 0;
    if (buffer) {
        const char* p = buffer + length;
        while (p != buffer && p[-1] != '\n') --p;
        m_nColumn = static_cast<size_t>(buffer + length - p);
    }
}

char* CChrStreamBuffer::Release() noexcept {
    char* buffer = m_pBuffer;
    m_pBuffer = nullptr;
    m_nLength = 0;
    m_nSize = 0;
    m_nColumn = 0;
    return buffer;
}

// ---------------------------------------------------------------------------------------------
// The string sink of CStringVar::Format

namespace Internals {

void CStringStreamBuffer::Write(const char* text, size_t length, unsigned int upperCase) {
    if (!m_pTarget) return;
    if (upperCase) {
        size_t at = m_pTarget->Length();
        m_pTarget->Cat(text, length);
        m_pTarget->ToUpper(at);
    } else {
        m_pTarget->Cat(text, length);
    }
}

void CStringStreamBuffer::Fill(int ch, size_t count) {
    if (!m_pTarget) return;
    size_t at = m_pTarget->Length();
    char* p = m_pTarget->Lock(count);
    std::memset(p, ch, count);
    p[count] = '\0';
    m_pTarget->Unlock(at + count);
}

// ---------------------------------------------------------------------------------------------
// The re-sorting buffer

CFormatResortBuffer::~CFormatResortBuffer() = default;

void CFormatResortBuffer::Write(const char* text, size_t length, unsigned int upperCase) {
    if (!m_nFields) return; // nothing belongs outside a field
    size_t at = m_Text.Length();
    m_Text.Cat(text, length);
    if (upperCase) m_Text.ToUpper(at);
}

void CFormatResortBuffer::Fill(int ch, size_t count) {
    if (!m_nFields) return;
    size_t at = m_Text.Length();
    char* p = m_Text.Lock(count);
    std::memset(p, ch, count);
    p[count] = '\0';
    m_Text.Unlock(at + count);
}

void CFormatResortBuffer::SignalNewFormatField() {
    m_FieldStart.push_back(m_Text.Length());
    ++m_nFields;
    m_nColumn = 0;
}

void CFormatResortBuffer::Reset() {
    m_Order = Misc::Null;
    m_Text = Misc::Null;
    m_FieldStart.clear();
    m_nFields = 0;
    m_nColumn = 0;
}

CFormatStream CFormatResortBuffer::Format(const char* format, const char* order) {
    try {
        Reset();
        m_Order = order ? order : "";
        m_Order += ' ';
        m_FieldStart.reserve(9);
    } catch (const Exceptions::CKelException&) {
        // No room for the order text: the format runs on nothing, PutInOrder yields nothing.
        m_Order = Misc::Null;
        return CFormatStream(*this, "");
    } catch (const std::bad_alloc&) {
        m_Order = Misc::Null;
        return CFormatStream(*this, "");
    }
    return CFormatStream(*this, format);
}

CFormatStream CFormatResortBuffer::Format(const char* format) {
    m_Text = Misc::Null;
    m_FieldStart.clear();
    m_nFields = 0;
    m_nColumn = 0;
    return CFormatStream(*this, format);
}

void CFormatResortBuffer::PutInOrder(Strings::CStringVar& out) {
    const char* order = m_Order.data();
    const size_t length = m_Order.Length();
    size_t run = 0;
    size_t i = 0;
    while (i < length) {
        if (order[i] != '%') {
            ++i;
            continue;
        }
        char next = i + 1 < length ? order[i + 1] : '\0';
        if (next == '%') {
            out.Cat(order + run, i + 1 - run); // the run with one '%'
            i += 2;
            run = i;
        } else if (next >= '0' && next <= '9') {
            out.Cat(order + run, i - run);
            size_t field = static_cast<size_t>(next - '0');
            if (field == 0 || field > m_nFields)
                KEL_RAISE(0x2001001Bu, "Field %%%c of the order text is not one of the %d fields", next, m_nFields);
            size_t start = m_FieldStart[field - 1];
            size_t end = field < m_nFields ? m_FieldStart[field] : m_Text.Length();
            out.Cat(m_Text.data() + start, end - start);
            i += 2;
            run = i;
        } else {
            ++i; // the '%' stays in the run, written with the character after it
        }
    }
    out.Cat(order + run, length - run);
}

} // namespace Internals
} // namespace Output_Streams
} // namespace KEL
