// kelbase - Src/KelKrnl/FormatStream.cpp
//
// The format stream: a lazy directive parser that writes the plain text of the format on its
// way to the next directive, and the field writers behind `<<`. Every message, trace line and
// exception text of the suite passes through here, so the common path (plain runs, %s, %d,
// %X into a string) does one sink call per run and no allocation.
#define KEL_SOURCE_FILE "Src/KelKrnl"
#include <kel/Exceptions.h>
#include <kel/LanguageSupport.h>
#include <kel/OutputStreams.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <string>

namespace KEL {
namespace Output_Streams {

namespace {

// Widths and precisions beyond this are taken as broken formats rather than honoured: no
// message needs a 64 KiB field, and a stray `*` fed a large number must not fill memory.
constexpr unsigned long long kMaxFieldValue = 0xFFFF;
constexpr unsigned int kMaxDigits = 64;

constexpr char kLowerDigits[] = "0123456789abcdef";
constexpr char kUpperDigits[] = "0123456789ABCDEF";

constexpr char kDigitPairs[] = "00010203040506070809"
                               "10111213141516171819"
                               "20212223242526272829"
                               "30313233343536373839"
                               "40414243444546474849"
                               "50515253545556575859"
                               "60616263646566676869"
                               "70717273747576777879"
                               "80818283848586878889"
                               "90919293949596979899";

// What each type letter selects; `valid` is 0 for every other character.
struct TYPE_INFO {
    unsigned char valid, conv, radix, upper, sign, integer;
};

constexpr std::array<TYPE_INFO, 256> MakeTypeTable() {
    std::array<TYPE_INFO, 256> t{};
    using S = CFormatStream;
    t['c'] = {1, S::CV_Char, 10, 0, 0, 1};
    t['C'] = {1, S::CV_Char, 10, 1, 0, 1};
    t['d'] = {1, S::CV_Signed, 10, 0, 0, 1};
    t['D'] = {1, S::CV_Signed, 10, 0, '+', 1};
    t['b'] = {1, S::CV_Unsigned, 2, 0, 0, 1};
    t['o'] = {1, S::CV_Unsigned, 8, 0, 0, 1};
    t['x'] = {1, S::CV_Unsigned, 16, 0, 0, 1};
    t['X'] = {1, S::CV_Unsigned, 16, 1, 0, 1};
    t['s'] = {1, S::CV_String, 10, 0, 0, 0};
    t['S'] = {1, S::CV_String, 10, 1, 0, 0};
    t['p'] = {1, S::CV_Pointer, 16, 0, 0, 0};
    t['P'] = {1, S::CV_Pointer, 16, 1, 0, 0};
    t['h'] = {1, S::CV_HexDump, 16, 0, 0, 0};
    t['H'] = {1, S::CV_HexDump, 16, 1, 0, 0};
    return t;
}
constexpr std::array<TYPE_INFO, 256> kTypes = MakeTypeTable();

inline bool IsDigit(char c) noexcept { return c >= '0' && c <= '9'; }

inline char UpperChar(char c) noexcept { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c; }

// The end of a directive that starts after its '%', or null when it is malformed. Used where
// no argument will come any more: the directive is passed over without output.
const char* SkipDirective(const char* p, bool fromPrecision) noexcept {
    if (!fromPrecision) {
        if (*p == '!') ++p;
        if (*p == '-' || *p == '=' || *p == '+') {
            if (!p[1]) return nullptr;
            p += 2;
        } else if (*p == '0') {
            ++p;
        }
        if (*p == '*')
            ++p;
        else
            while (IsDigit(*p)) ++p;
    }
    while (*p == '.') {
        ++p;
        if (*p == '*')
            ++p;
        else if (IsDigit(*p))
            while (IsDigit(*p)) ++p;
        else
            return nullptr;
    }
    return kTypes[static_cast<unsigned char>(*p)].valid ? p + 1 : nullptr;
}

// The last '\n' of a text, or null.
inline const char* LastLineEnd(const char* text, size_t length) noexcept {
#if defined(__GLIBC__)
    if (length > 16) return static_cast<const char*>(memrchr(text, '\n', length));
#endif
    for (const char* p = text + length; p != text;)
        if (*--p == '\n') return p;
    return nullptr;
}

// The column after the last line of `text` (the characters behind its last '\n').
inline size_t TrailingColumn(const char* text, size_t length) noexcept {
    const char* nl = LastLineEnd(text, length);
    return nl ? static_cast<size_t>(text + length - nl - 1) : length;
}

} // namespace

// ---------------------------------------------------------------------------------------------
// Construction, take-over and the end of a format

CFormatStream::CFormatStream(Base_Classes::CFormatStreamBuffer& sink, const char* format) { Start(sink, format); }

CFormatStream::CFormatStream(Strings::CStringVar& target, const char* format) : m_StringSink(&target) {
    Start(m_StringSink, format);
}

CFormatStream::CFormatStream(CFormatStream&& other) noexcept { TakeOver(other); }

CFormatStream::CFormatStream(const CFormatStream& other) noexcept { TakeOver(const_cast<CFormatStream&>(other)); }

CFormatStream::~CFormatStream() {
    if (!m_pSink) return;
    WriteRest();
    End();
}

void CFormatStream::Start(Base_Classes::CFormatStreamBuffer& sink, const char* format) {
    m_pFormat = format ? format : "";
    m_State = PS_Start;
    m_bPlainText = sink.TakesPlainText();
    Bind(&sink);
}

void CFormatStream::Bind(Base_Classes::CFormatStreamBuffer* sink) noexcept {
    m_pSink = sink;
    if (sink) sink->m_pActive = this;
}

void CFormatStream::TakeOver(CFormatStream& other) noexcept {
    m_pFormat = other.m_pFormat;
    std::memcpy(m_Prec, other.m_Prec, sizeof m_Prec);
    m_nWidth = other.m_nWidth;
    m_nIndent = other.m_nIndent;
    m_nPrec = other.m_nPrec;
    m_nRadix = other.m_nRadix;
    m_cFill = other.m_cFill;
    m_cSign = other.m_cSign;
    m_Align = other.m_Align;
    m_Conv = other.m_Conv;
    m_State = other.m_State;
    m_bUpper = other.m_bUpper;
    m_bSplit = other.m_bSplit;
    m_bPlainText = other.m_bPlainText;
    m_StringSink = other.m_StringSink;
    static_cast<Base_Classes::CFormatStreamBuffer&>(m_StringSink).m_pActive = nullptr;

    Base_Classes::CFormatStreamBuffer* sink = other.m_pSink;
    bool ownSink = sink == &other.m_StringSink;
    if (ownSink) sink = &m_StringSink;
    m_pSink = sink;
    if (sink && (ownSink || sink->m_pActive == &other)) sink->m_pActive = this;

    // The source is disarmed: its destructor neither writes nor signals the end.
    other.m_pSink = nullptr;
    other.m_pFormat = "";
    static_cast<Base_Classes::CFormatStreamBuffer&>(other.m_StringSink).m_pActive = nullptr;
}

void CFormatStream::End() noexcept {
    Base_Classes::CFormatStreamBuffer* sink = m_pSink;
    if (!sink) return;
    m_pSink = nullptr;
    m_pFormat = "";
    if (sink->m_pActive == this) sink->m_pActive = nullptr;
    try {
        sink->SignalFormatEnd();
    } catch (...) {
        // A sink that fails to finish must not take the code that ended the format with it.
    }
}

void CFormatStream::Abandon() noexcept { End(); }

// The text after the last consumed directive. Directives that get no argument write nothing;
// a broken one ends the output there, without an error: destructors do not throw.
void CFormatStream::WriteRest() noexcept {
    try {
        if (m_State == PS_Precision) {
            const char* p = SkipDirective(m_pFormat, true);
            if (!p) return;
            m_pFormat = p;
            m_State = PS_Start;
        }
        for (;;) {
            const char* p = ScanPlain();
            if (!m_pSink || *p == '\0') return;
            p = SkipDirective(p + 1, false);
            if (!p) return;
            m_pFormat = p;
        }
    } catch (...) {
        // The sink failed; what was written stays, the format ends.
    }
}

void CFormatStream::Fail(Exceptions::SOURCE_INFO& site) {
    Base_Classes::CFormatStreamBuffer* sink = m_pSink;
    End();
    if (!sink || !sink->RaisesFormatErrors()) throw Internals::CFormatAbort{};
    Exceptions::Raise(site, 0x20010010u, nullptr, "%s", "Bad format");
}

// ---------------------------------------------------------------------------------------------
// The directive parser

// Put for unconverted text. Into the stream's own string sink (CStringVar::Format, the most
// common case) the text is appended in place: no indirect call for the sink's Write.
inline void CFormatStream::Emit(const char* text, size_t length) {
    if (m_pSink != &m_StringSink) {
        m_pSink->Put(text, length);
        return;
    }
    Strings::CStringVar* target = m_StringSink.GetTarget();
    if (!target || length == 0) return;
    try {
        target->Cat(text, length);
    } catch (...) {
        End();
        throw;
    }
}

// The string keeps its own text, so its column is read from it when a field needs it rather
// than counted on every write.
size_t CFormatStream::CurrentColumn() const noexcept {
    if (m_pSink != &m_StringSink) return m_pSink->GetColumn();
    const Strings::CStringVar* target = m_StringSink.GetTarget();
    return target ? TrailingColumn(target->data(), target->Length()) : 0;
}

// Writes the plain text up to the next directive ("%%" as one '%') and returns where that
// directive's '%' is, or the terminating NUL.
const char* CFormatStream::ScanPlain() {
    const char* p = m_pFormat;
    for (;;) {
        const char* run = p;
        p += std::strcspn(p, "%"); // the C library scans a word at a time
        if (*p == '%' && p[1] == '%') {
            m_pFormat = p + 2;
            if (m_bPlainText) Emit(run, static_cast<size_t>(p + 1 - run));
            p += 2;
            continue;
        }
        m_pFormat = p;
        if (p != run && m_bPlainText) Emit(run, static_cast<size_t>(p - run));
        return p;
    }
}

unsigned int CFormatStream::TakeStar(unsigned long long value, unsigned int isInteger, unsigned int& target) {
    if (!isInteger) Fail(KEL_SITE()); // `*` needs an integer argument
    if (value > kMaxFieldValue) Fail(KEL_SITE());
    target = static_cast<unsigned int>(value);
    m_State = PS_Precision;
    return FP_NeedsValue;
}

unsigned int CFormatStream::GetFormatParameters(unsigned long long value, unsigned int isInteger) {
    if (!m_pSink) return 0;
    const char* p;
    if (m_State != PS_Precision) {
        p = ScanPlain();
        if (*p == '\0') return FP_Exhausted;
        ++p;
        m_nWidth = 0;
        m_nIndent = 0;
        m_nPrec = 0;
        m_cFill = ' ';
        m_Align = AL_None;
        m_bSplit = false;
        if (kTypes[static_cast<unsigned char>(*p)].valid) return TypeReady(p, isInteger); // "%s", "%d", ...
        if (*p == '!') {
            m_bSplit = true;
            ++p;
        }
        m_State = PS_Fill;
        switch (*p) {
        case '-': m_Align = AL_Left; break;
        case '=': m_Align = AL_Centre; break;
        case '+': m_Align = AL_Right; break;
        case '0':
            m_Align = AL_Right;
            m_cFill = '0';
            ++p;
            break;
        default: break;
        }
        if (m_Align != AL_None && m_cFill != '0') {
            if (p[1] == '\0') Fail(KEL_SITE()); // the fill character is required
            m_cFill = p[1];
            p += 2;
        }
        m_State = PS_Width;
        if (*p == '*') {
            m_pFormat = p + 1;
            return TakeStar(value, isInteger, m_nWidth);
        }
        unsigned long long width = 0;
        while (IsDigit(*p)) {
            width = width * 10 + static_cast<unsigned int>(*p++ - '0');
            if (width > kMaxFieldValue) Fail(KEL_SITE());
        }
        m_nWidth = static_cast<unsigned int>(width);
    } else {
        p = m_pFormat;
    }

    m_State = PS_Precision;
    while (*p == '.') {
        if (m_nPrec == 5) Fail(KEL_SITE()); // at most five precisions
        ++p;
        if (*p == '*') {
            m_pFormat = p + 1;
            return TakeStar(value, isInteger, m_Prec[m_nPrec++]);
        }
        if (!IsDigit(*p)) Fail(KEL_SITE()); // a '.' needs digits or '*'
        unsigned long long prec = 0;
        while (IsDigit(*p)) {
            prec = prec * 10 + static_cast<unsigned int>(*p++ - '0');
            if (prec > kMaxFieldValue) Fail(KEL_SITE());
        }
        m_Prec[m_nPrec++] = static_cast<unsigned int>(prec);
    }
    m_State = PS_Type;
    return TypeReady(p, isInteger);
}

// The type letter at `p` ends the directive: the field waits for its argument.
unsigned int CFormatStream::TypeReady(const char* p, unsigned int isInteger) {
    const TYPE_INFO& type = kTypes[static_cast<unsigned char>(*p)];
    if (!type.valid) Fail(KEL_SITE()); // an unknown type letter, or the format ends inside a directive
    if (type.integer && !isInteger) Fail(KEL_SITE()); // c C d D b o x X need an integer
    if (!type.integer && isInteger) Fail(KEL_SITE()); // s S p P h H need a non-integer
    m_Conv = static_cast<CONV>(type.conv);
    m_nRadix = type.radix;
    m_bUpper = type.upper != 0;
    m_cSign = static_cast<char>(type.sign);
    m_pFormat = p + 1;
    m_State = PS_Ready;
    if (m_nWidth == 0) m_Align = AL_None;
    if (m_bSplit) {
        size_t column = CurrentColumn();
        size_t margin = m_pSink->GetLeftMargin();
        size_t indent = column > margin ? column : margin;
        m_nIndent = indent > kMaxFieldValue ? static_cast<unsigned int>(kMaxFieldValue) : static_cast<unsigned int>(indent);
    }
    if (m_pSink != &m_StringSink) m_pSink->SignalNewFormatField(); // a string keeps no fields
    return FP_Ready;
}

// ---------------------------------------------------------------------------------------------
// Field output

void CFormatStream::PadToIndent() {
    size_t column = CurrentColumn();
    if (column < m_nIndent) m_pSink->PutFill(' ', m_nIndent - column);
}

void CFormatStream::WritePiece(const char* text, size_t length) {
    Base_Classes::CFormatStreamBuffer& sink = *m_pSink;
    if (m_nIndent) PadToIndent();
    const unsigned int upper = m_bUpper ? 1u : 0u;
    const size_t width = m_nWidth;
    switch (m_Align) {
    case AL_None:
        if (upper)
            sink.Put(text, length, upper);
        else
            Emit(text, length);
        break;
    case AL_Left:
        if (length >= width) {
            sink.Put(text, width, upper);
        } else {
            sink.Put(text, length, upper);
            sink.PutFill(m_cFill, width - length);
        }
        break;
    case AL_Centre:
        if (length >= width) {
            sink.Put(text, width, upper);
        } else {
            size_t before = (width - length) / 2;
            sink.PutFill(m_cFill, before);
            sink.Put(text, length, upper);
            sink.PutFill(m_cFill, width - length - before);
        }
        break;
    case AL_Right:
        if (length < width) sink.PutFill(m_cFill, width - length);
        sink.Put(text, length, upper);
        break;
    }
}

void CFormatStream::FormatedWrite(const char* text, size_t length, unsigned int splitLines) {
    if (!m_pSink) return;
    if (!splitLines) {
        WritePiece(text, length);
        return;
    }
    for (;;) {
        const char* nl = static_cast<const char*>(std::memchr(text, '\n', length));
        if (!nl) {
            WritePiece(text, length);
            return;
        }
        size_t line = static_cast<size_t>(nl - text);
        WritePiece(text, (line && text[line - 1] == '\r') ? line - 1 : line);
        m_pSink->Put("\n", 1);
        text = nl + 1;
        length -= line + 1;
        // A text that ends with its line end gets no empty piece (no fill, no indent) after it.
        if (length == 0) return;
    }
}

char* CFormatStream::UIntToString(unsigned long long value, char (*buffer)[66]) const noexcept {
    char* p = *buffer + 65;
    *p = '\0';
    switch (m_nRadix) {
    case 10:
        while (value >= 100) {
            unsigned int pair = static_cast<unsigned int>(value % 100) * 2;
            value /= 100;
            *--p = kDigitPairs[pair + 1];
            *--p = kDigitPairs[pair];
        }
        if (value >= 10) {
            unsigned int pair = static_cast<unsigned int>(value) * 2;
            *--p = kDigitPairs[pair + 1];
            *--p = kDigitPairs[pair];
        } else {
            *--p = static_cast<char>('0' + value);
        }
        break;
    case 16: {
        const char* digits = m_bUpper ? kUpperDigits : kLowerDigits;
        do {
            *--p = digits[value & 15];
            value >>= 4;
        } while (value);
        break;
    }
    case 8:
        do {
            *--p = static_cast<char>('0' + (value & 7));
            value >>= 3;
        } while (value);
        break;
    case 2:
        do {
            *--p = static_cast<char>('0' + (value & 1));
            value >>= 1;
        } while (value);
        break;
    default: {
        const char* digits = m_bUpper ? kUpperDigits : kLowerDigits;
        unsigned int radix = (m_nRadix >= 2 && m_nRadix <= 16) ? m_nRadix : 10;
        do {
            *--p = digits[value % radix];
            value /= radix;
        } while (value);
        break;
    }
    }
    return p;
}

void CFormatStream::WriteNumber(unsigned long long magnitude, char sign) {
    char buffer[66];
    char* first = UIntToString(magnitude, &buffer);
    size_t digits = static_cast<size_t>(buffer + 65 - first);
    if (m_nPrec) {
        size_t least = m_Prec[0] < kMaxDigits ? m_Prec[0] : kMaxDigits;
        while (digits < least) {
            *--first = '0';
            ++digits;
        }
    }
    m_bUpper = false; // the digits are already in their case
    if (sign) {
        if (m_Align == AL_Right && m_cFill == '0' && digits + 1 < m_nWidth) {
            // The sign goes before the zeros: -0042, not 00-42.
            PadToIndent();
            m_pSink->Put(&sign, 1);
            --m_nWidth;
            WritePiece(first, digits);
            return;
        }
        *--first = sign;
        ++digits;
    }
    WritePiece(first, digits);
}

void CFormatStream::WriteChar(unsigned long long value) {
    char ch = static_cast<char>(value & 0xFF);
    if (m_bUpper) ch = UpperChar(ch);
    m_bUpper = false;
    size_t count = m_nPrec ? m_Prec[0] : 1;
    char local[128];
    if (count <= sizeof local) {
        std::memset(local, ch, count);
        WritePiece(local, count);
    } else {
        std::string repeated(count, ch);
        WritePiece(repeated.data(), count);
    }
}

void CFormatStream::WritePointer(const void* pointer) {
    char buffer[66];
    char* first = UIntToString(static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(pointer)), &buffer);
    size_t digits = static_cast<size_t>(buffer + 65 - first);
    size_t least = m_nPrec ? m_Prec[0] : sizeof(void*) * 2;
    if (least > kMaxDigits) least = kMaxDigits;
    while (digits < least) {
        *--first = '0';
        ++digits;
    }
    m_bUpper = false;
    WritePiece(first, digits);
}

void CFormatStream::WriteDump(const unsigned char* data, size_t length) {
    const char* digits = m_bUpper ? kUpperDigits : kLowerDigits;
    m_bUpper = false;
    size_t perLine = (m_nPrec >= 1) ? m_Prec[0] : 16;
    if (m_nPrec >= 2 && m_Prec[1] && m_Prec[1] < length) length = m_Prec[1];
    if (perLine == 0 || perLine > length) perLine = length;
    if (length == 0) {
        WritePiece("", 0);
        return;
    }
    std::string line;
    line.reserve(perLine * 3);
    for (size_t at = 0; at < length; at += perLine) {
        size_t n = length - at < perLine ? length - at : perLine;
        line.clear();
        for (size_t i = 0; i < n; ++i) {
            if (i) line.push_back(' ');
            line.push_back(digits[data[at + i] >> 4]);
            line.push_back(digits[data[at + i] & 15]);
        }
        if (at) m_pSink->Put("\n", 1);
        WritePiece(line.data(), line.size());
    }
}

// An argument after the last directive: appended as it is; a re-sorting sink gets it as a
// field of its own, so that an order text can still place it.
void CFormatStream::WriteExtra(const char* text, size_t length) {
    if (!m_bPlainText) m_pSink->SignalNewFormatField();
    Emit(text, length);
}

// ---------------------------------------------------------------------------------------------
// Arguments

CFormatStream& CFormatStream::FormatSigned(long long value, unsigned int bits) {
    switch (GetFormatParameters(static_cast<unsigned long long>(value), 1)) {
    case FP_Ready:
        if (m_Conv == CV_Signed) {
            unsigned long long magnitude =
                value < 0 ? 0ull - static_cast<unsigned long long>(value) : static_cast<unsigned long long>(value);
            WriteNumber(magnitude, value < 0 ? '-' : m_cSign);
        } else if (m_Conv == CV_Unsigned) {
            unsigned long long bitsOf = static_cast<unsigned long long>(value);
            if (bits < 64) bitsOf &= (1ull << bits) - 1;
            WriteNumber(bitsOf, 0);
        } else {
            WriteChar(static_cast<unsigned long long>(value));
        }
        m_State = PS_Start;
        break;
    case FP_Exhausted: {
        char buffer[66];
        m_nRadix = 10;
        char* first = UIntToString(
            value < 0 ? 0ull - static_cast<unsigned long long>(value) : static_cast<unsigned long long>(value), &buffer);
        if (value < 0) *--first = '-';
        WriteExtra(first, static_cast<size_t>(buffer + 65 - first));
        break;
    }
    default:
        break;
    }
    return *this;
}

CFormatStream& CFormatStream::FormatInt(long long value) { return FormatSigned(value, 64); }

CFormatStream& CFormatStream::FormatInt(unsigned long long value) {
    switch (GetFormatParameters(value, 1)) {
    case FP_Ready:
        if (m_Conv == CV_Char)
            WriteChar(value);
        else
            WriteNumber(value, m_cSign);
        m_State = PS_Start;
        break;
    case FP_Exhausted: {
        char buffer[66];
        m_nRadix = 10;
        char* first = UIntToString(value, &buffer);
        WriteExtra(first, static_cast<size_t>(buffer + 65 - first));
        break;
    }
    default:
        break;
    }
    return *this;
}

void CFormatStream::WriteString(const char* text, size_t length) {
    switch (GetFormatParameters(0, 0)) {
    case FP_Ready:
        switch (m_Conv) {
        case CV_HexDump:
            WriteDump(reinterpret_cast<const unsigned char*>(text), length);
            break;
        case CV_Pointer:
            WritePointer(text);
            break;
        default:
            if (m_nPrec && m_Prec[0] < length) length = m_Prec[0];
            if (m_Align == AL_None && !m_bSplit && !m_bUpper)
                Emit(text, length); // the common plain %s
            else
                FormatedWrite(text, length, m_bSplit ? 1u : 0u);
            break;
        }
        m_State = PS_Start;
        break;
    case FP_Exhausted:
        WriteExtra(text, length);
        break;
    default:
        break;
    }
}

CFormatStream& CFormatStream::operator<<(const char* text) {
    if (!text) {
        WriteString("(null)", 6);
    } else {
        WriteString(text, std::strlen(text));
    }
    return *this;
}

CFormatStream& CFormatStream::operator<<(const Strings::CSubStringRef& text) {
    WriteString(text.data(), text.Length());
    return *this;
}

CFormatStream& CFormatStream::operator<<(const std::string& text) {
    WriteString(text.data(), text.size());
    return *this;
}

CFormatStream& CFormatStream::operator<<(const Language_Support::CLanguageStrg& text) {
    if (text.IsUTF8()) {
        Strings::TString<512> local;
        text.UTF8ToChar(local);
        WriteString(local.data(), local.Length());
    } else {
        *this << text.Native();
    }
    return *this;
}

CFormatStream& CFormatStream::operator<<(CFormatResortBuffer& fields) {
    Strings::TString<512> local;
    try {
        fields.PutInOrder(local);
    } catch (...) {
        End(); // a bad order text ends this format like a format error would
        throw;
    }
    WriteString(local.data(), local.Length());
    return *this;
}

CFormatStream& CFormatStream::operator<<(const void* pointer) { return FormatPointer(pointer); }

CFormatStream& CFormatStream::FormatPointer(const void* pointer) {
    switch (GetFormatParameters(0, 0)) {
    case FP_Ready:
        if (m_Conv == CV_HexDump) Fail(KEL_SITE()); // an address alone has no length to dump
        m_nRadix = 16;
        WritePointer(pointer);
        m_State = PS_Start;
        break;
    case FP_Exhausted: {
        char buffer[66];
        m_nRadix = 16;
        m_bUpper = false;
        char* first = UIntToString(static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(pointer)), &buffer);
        WriteExtra(first, static_cast<size_t>(buffer + 65 - first));
        break;
    }
    default:
        break;
    }
    return *this;
}

CFormatStream& CFormatStream::HexDump(const unsigned char* data, size_t length) {
    if (!data) length = 0;
    switch (GetFormatParameters(0, 0)) {
    case FP_Ready:
        switch (m_Conv) {
        case CV_HexDump:
            WriteDump(data, length);
            break;
        case CV_Pointer:
            WritePointer(data);
            break;
        default:
            if (m_nPrec && m_Prec[0] < length) length = m_Prec[0];
            FormatedWrite(reinterpret_cast<const char*>(data), length, m_bSplit ? 1u : 0u);
            break;
        }
        m_State = PS_Start;
        break;
    case FP_Exhausted:
        // Bytes after the last directive are appended as a dump: raw bytes may not be text.
        if (!m_bPlainText) m_pSink->SignalNewFormatField();
        m_Align = AL_None;
        m_nIndent = 0;
        m_nPrec = 0;
        m_bUpper = false;
        WriteDump(data, length);
        break;
    default:
        break;
    }
    return *this;
}

CFormatStream& CFormatStream::operator>>(const char* text) {
    if (!m_pSink) return *this;
    if (m_State != PS_Precision) ScanPlain();
    if (text && m_bPlainText && m_pSink) m_pSink->Put(text, std::strlen(text));
    return *this;
}

} // namespace Output_Streams
} // namespace KEL
