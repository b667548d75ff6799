// kelbase - OutputStreams.h
//
// Formatted output (KEL::Output_Streams): a format text with `%` directives is bound to a sink
// and the arguments follow with `<<`, one per directive:
//
//     s.Format("Error   : %s::%d (0x%X)\n") << module << number << code;
//
// Directive syntax:  % [!] [flag] [width] { .precision } type
//   %%        a percent sign; a `%` that ends the format is a format error
//   !         continuation lines of this field are indented to the column where it starts
//             (at least to the sink's left margin); each line is aligned on its own
//   flag      `-`c left, `=`c centre, `+`c right aligned with fill character c (required);
//             `0` right aligned with fill '0'; no flag: no alignment (a width alone pads
//             nothing: printf's `%5d` is `%+ 5d` here)
//   width     digits, or `*` for the next (integer) argument; 0 turns alignment off
//   precision up to five `.` parts, each digits or `*`; a sixth, or an empty one, is an error
//   type      c C d D b o x X take integers; s S p P h H take non-integers (S, P, H, C upper
//             case; D always shows its sign; h/H is a hex dump of the string's bytes)
// Widths and precisions above 65535 (also from `*`, where a negative value counts as large)
// are format errors.
//
// What the precisions mean (further ones are parsed and ignored):
//   s S       .n  at most n characters of the text
//   d D b o x X   .n  at least n digits (leading zeros; at most 64)
//   c C       .n  the character n times (default once)
//   p P       .n  at least n hexadecimal digits (default: 16, all of a 64-bit address)
//   h H       .n  n bytes per line (default 16; 0 = one line);  .n.m  at most m bytes
// A hex dump writes each byte as two digits, blank separated: "61 62 0a"; lines end in "\n"
// and each line is a piece of the field (aligned, and indented with `!`).
// Left and centre alignment cut a longer text at the width; right alignment never cuts.
// Right alignment with fill '0' writes a number's sign before the zeros ("-0042").
// Negative values given to b o x X show the two's complement at the width of their type
// (`<< -1` with %X gives FFFFFFFF, `<< -1LL` gives FFFFFFFFFFFFFFFF).
// A null `const char*` argument is written as "(null)".
// An integer given after the last directive is written in decimal after the text; a text
// given after the last directive is appended as it is.
//
// A format error raises status 0x20010010 ("Bad format") through the library's exception
// convention (Exceptions.h) with the site of the broken rule; the broken format is ended first,
// so the sink stays usable. The text after the last consumed directive is written when the
// stream is destroyed; directives left without an argument write nothing there, and a broken
// one ends the text quietly (destructors do not raise).
//
// The column that `!` indents to counts the characters after the last "\n" written to the
// sink (for a CStringVar: the last "\n" of its whole text, so appending formats line up).
// `c`/`C` write the low byte of the integer. An address (`<< ptr`) may also go to `s`.
#pragma once

#include <kel/Strings.h>

#include <string>
#include <vector>

namespace KEL {
namespace Exceptions {
struct SOURCE_INFO;
class CErrorLog;
} // namespace Exceptions

namespace Output_Streams {

class CFormatStream;

namespace Base_Classes {

/// The abstract sink of a format. It keeps the current output column (for `!` indentation and
/// line splitting) and a left margin.
class KEL_API CFormatStreamBuffer {
public:
    CFormatStreamBuffer() noexcept = default;
    virtual ~CFormatStreamBuffer();

    /// Starts a format bound to this buffer.
    virtual CFormatStream Format(const char* format);
    /// Starts over at column 0; a sink that holds text also empties it.
    virtual void Reset();
    /// Passes held text on where a sink has somewhere to pass it; the base holds nothing. The
    /// meaning of `mode` is the sink's own.
    virtual void Flush(unsigned int mode);
    /// Appends `length` characters, in upper case when `upperCase` is not 0.
    virtual void Write(const char* text, size_t length, unsigned int upperCase) = 0;
    /// Appends `count` copies of `ch`.
    virtual void Fill(int ch, size_t count) = 0;
    /// A directive's field starts (the resort buffer begins a new field here).
    virtual void SignalNewFormatField();
    /// The format has ended (normally or after an error).
    virtual void SignalFormatEnd();
    /// Whether the plain text of a format reaches this sink (the resort buffer keeps fields only).
    virtual bool TakesPlainText() const noexcept { return true; }
    /// Whether a format error on this sink raises the library's status. Sinks that are part of
    /// building an error (the exception buffer) return false: the broken text just ends there,
    /// so the error being reported is not replaced by the format error.
    virtual bool RaisesFormatErrors() const noexcept { return true; }

    /// Ends the format that is running on this buffer after an exception, so that the buffer
    /// can be used again.
    void Catch() noexcept;
    /// Raises a format error (0x20010010) with the site of the broken rule, after ending the
    /// running format; a sink that does not raise format errors throws CFormatAbort instead.
    [[noreturn]] void doThrow(Exceptions::SOURCE_INFO& site);

    size_t GetColumn() const noexcept { return m_nColumn; }
    size_t GetLeftMargin() const noexcept { return m_nLeftMargin; }
    /// The least indent of `!` fields.
    void SetLeftMargin(size_t margin) noexcept { m_nLeftMargin = margin; }

    /// Write + column bookkeeping; what the format streams call. When the sink fails (its
    /// exception passes on), the running format is ended first.
    void Put(const char* text, size_t length, unsigned int upperCase = 0);
    void PutFill(int ch, size_t count);

protected:
    friend class Output_Streams::CFormatStream;
    size_t m_nColumn = 0;
    size_t m_nLeftMargin = 0;
    CFormatStream* m_pActive = nullptr; ///< the format running on this buffer, if any
};

} // namespace Base_Classes

/// A growable, NUL-terminated heap character buffer as a sink.
class KEL_API CChrStreamBuffer : public Base_Classes::CFormatStreamBuffer {
public:
    CChrStreamBuffer() noexcept = default;
    /// Allocates `initial` characters at once; the buffer then grows by `grow` characters at a
    /// time (at least what a write needs), or doubles when `grow` is 0. Out of memory raises
    /// 0x2001000F.
    CChrStreamBuffer(size_t initial, size_t grow = 0);
    ~CChrStreamBuffer() override;
    CChrStreamBuffer(const CChrStreamBuffer&) = delete;
    CChrStreamBuffer& operator=(const CChrStreamBuffer&) = delete;

    void Write(const char* text, size_t length, unsigned int upperCase) override;
    void Fill(int ch, size_t count) override;
    void Reset() override;

    const char* GetBuffer() const noexcept { return m_pBuffer ? m_pBuffer : ""; }
    size_t GetLength() const noexcept { return m_nLength; }
    /// Takes over a malloc'ed buffer holding `length` characters and a terminating NUL.
    void SetBuffer(char* buffer, size_t length) noexcept;
    /// Gives the buffer up (the caller frees it with free()); the sink is empty afterwards.
    char* Release() noexcept;
    void operator>>(char*& buffer) noexcept { buffer = Release(); }
    /// Makes the buffer hold at least `size` characters plus the terminator.
    void ResizeBuffer(size_t size);

private:
    char* m_pBuffer = nullptr;
    size_t m_nLength = 0;
    size_t m_nSize = 0;
    size_t m_nGrow = 0;
};

namespace Internals {

/// Thrown by a format on a sink that does not raise format errors; the code that owns such a
/// sink catches it and keeps what was written so far.
struct CFormatAbort {};

/// The sink of CStringVar::Format: appends to the string given to Init.
class KEL_API CStringStreamBuffer : public Base_Classes::CFormatStreamBuffer {
public:
    CStringStreamBuffer() noexcept = default;
    explicit CStringStreamBuffer(Strings::CStringVar* target) noexcept : m_pTarget(target) {}
    void Init(Strings::CStringVar* target) noexcept { m_pTarget = target; m_nColumn = 0; }
    Strings::CStringVar* GetTarget() const noexcept { return m_pTarget; }
    void Write(const char* text, size_t length, unsigned int upperCase) override;
    void Fill(int ch, size_t count) override;

private:
    Strings::CStringVar* m_pTarget = nullptr;
};

/// Collects each formatted field on its own; PutInOrder writes them in the order text's order.
class KEL_API CFormatResortBuffer : public Base_Classes::CFormatStreamBuffer {
public:
    CFormatResortBuffer() = default;
    ~CFormatResortBuffer() override;

    void Write(const char* text, size_t length, unsigned int upperCase) override;
    void Fill(int ch, size_t count) override;
    void SignalNewFormatField() override;
    void Reset() override;
    bool TakesPlainText() const noexcept override { return false; }

    /// Keeps `order` (with a blank appended) and formats `format`, one field per directive.
    CFormatStream Format(const char* format, const char* order);
    /// Formats `format` into new fields under the order text kept from before.
    CFormatStream Format(const char* format) override;
    /// Appends the order text to `out`: `%1`..`%9` stand for the fields, `%%` for a percent
    /// sign, a `%` before anything else is written with that character. `%0` or a number past
    /// the last field raises 0x2001001B (what was appended before stays). Plain text of the
    /// format is not kept; an argument given after the last directive is a field of its own.
    void PutInOrder(Strings::CStringVar& out);
    size_t FieldCount() const noexcept { return m_nFields; }

protected:
    Strings::CStringVar m_Order;
    Strings::CStringVar m_Text;          ///< the fields' texts one after another
    std::vector<size_t> m_FieldStart;    ///< where each field starts in m_Text
    size_t m_nFields = 0;
};

} // namespace Internals

/// The public re-sorting buffer: formats with one order and puts the fields out in another,
/// so that translated texts can place their arguments in their own order.
class KEL_API CFormatResortBuffer : public Internals::CFormatResortBuffer {
public:
    using Internals::CFormatResortBuffer::CFormatResortBuffer;
};

/// One format in progress: the sink, the rest of the format text and the current directive.
/// Arguments are consumed with `<<`; the destructor writes the text after the last directive
/// and signals the end of the format. Copying or moving takes the running format over.
class KEL_API CFormatStream {
public:
    enum ALIGN : unsigned char { AL_None, AL_Left, AL_Centre, AL_Right };
    enum CONV : unsigned char { CV_Char, CV_Signed, CV_Unsigned, CV_Pointer, CV_String, CV_HexDump };
    enum STATE : unsigned char { PS_Start, PS_Fill, PS_Width, PS_Precision, PS_Type, PS_Ready, PS_Done };

    /// Results of GetFormatParameters.
    static constexpr unsigned int FP_NeedsValue = 2;  ///< the argument was taken as a `*` value
    static constexpr unsigned int FP_Ready = 3;       ///< a directive waits for the argument
    static constexpr unsigned int FP_Exhausted = 4;   ///< no directive left

    CFormatStream(Base_Classes::CFormatStreamBuffer& sink, const char* format);
    /// Formats into a string (what CStringVar::Format returns).
    CFormatStream(Strings::CStringVar& target, const char* format);
    CFormatStream(CFormatStream&& other) noexcept;
    CFormatStream(const CFormatStream& other) noexcept;
    CFormatStream& operator=(const CFormatStream&) = delete;
    ~CFormatStream();

    CFormatStream& operator<<(const char* text);
    CFormatStream& operator<<(const Strings::CSubStringRef& text);
    CFormatStream& operator<<(const std::string& text);
    CFormatStream& operator<<(const Language_Support::CLanguageStrg& text);
    CFormatStream& operator<<(const Exceptions::CErrorLog& log);
    CFormatStream& operator<<(CFormatResortBuffer& fields);
    CFormatStream& operator<<(const void* pointer);
    CFormatStream& operator<<(short v) { return FormatSigned(v, 16); }
    CFormatStream& operator<<(unsigned short v) { return FormatInt(static_cast<unsigned long long>(v)); }
    CFormatStream& operator<<(int v) { return FormatSigned(v, 32); }
    CFormatStream& operator<<(unsigned int v) { return FormatInt(static_cast<unsigned long long>(v)); }
    CFormatStream& operator<<(long v) { return FormatInt(static_cast<long long>(v)); }
    CFormatStream& operator<<(unsigned long v) { return FormatInt(static_cast<unsigned long long>(v)); }
    CFormatStream& operator<<(long long v) { return FormatInt(v); }
    CFormatStream& operator<<(unsigned long long v) { return FormatInt(v); }
    /// Writes plain text into the stream without consuming a directive: after the format's
    /// text up to the next directive, in front of its field (`Format("(%s)") >> "[" << x`
    /// gives "([x)"); once no directive is left, after the whole format text.
    CFormatStream& operator>>(const char* text);

    /// The directive parser: advances to the next directive, writing plain text on the way.
    /// Returns FP_NeedsValue, FP_Ready or FP_Exhausted, or 0 once the format has ended
    /// (after an error or when another stream took it over): then nothing is written.
    unsigned int GetFormatParameters(unsigned long long value, unsigned int isInteger);

    CFormatStream& FormatInt(long long value);
    CFormatStream& FormatInt(unsigned long long value);
    CFormatStream& FormatInt(int value) { return FormatSigned(value, 32); }
    CFormatStream& FormatInt(unsigned int value) { return FormatInt(static_cast<unsigned long long>(value)); }
    /// Digits of `value` in the directive's radix, right-aligned in `buffer`; returns the first.
    char* UIntToString(unsigned long long value, char (*buffer)[66]) const noexcept;
    /// Consumes a directive with an address: `p`/`P` (and `s`) write its hexadecimal digits.
    CFormatStream& FormatPointer(const void* pointer);
    /// Consumes a directive with `length` bytes of memory: `h`/`H` dump them, `s` writes them
    /// as text. After the last directive the dump is appended.
    CFormatStream& HexDump(const unsigned char* data, size_t length);
    /// Writes one field with the directive's alignment; with `splitLines` every line of the
    /// text is a field piece of its own and continuation lines are indented.
    void FormatedWrite(const char* text, size_t length, unsigned int splitLines);

    /// Ends the format at once without writing the rest (used after an error).
    void Abandon() noexcept;
    Base_Classes::CFormatStreamBuffer* GetSink() const noexcept { return m_pSink; }

protected:
    /// For derived streams that own their sink: Start() binds it once it is constructed.
    CFormatStream() noexcept = default;
    void Start(Base_Classes::CFormatStreamBuffer& sink, const char* format);
    void Bind(Base_Classes::CFormatStreamBuffer* sink) noexcept;
    void TakeOver(CFormatStream& other) noexcept;
    void WriteString(const char* text, size_t length);
    /// Ends the format and raises the format error of the broken rule at `site`.
    [[noreturn]] void Fail(Exceptions::SOURCE_INFO& site);
    /// A signed argument of `bits` bits (its width matters for b, o, x and X).
    CFormatStream& FormatSigned(long long value, unsigned int bits);

private:
    friend class Base_Classes::CFormatStreamBuffer;
    const char* ScanPlain();
    void Emit(const char* text, size_t length);
    void EmitFill(char ch, size_t count);
    void EmitText(const char* text, size_t length);
    size_t CurrentColumn() const noexcept;
    unsigned int TypeReady(const char* p, unsigned int isInteger);
    unsigned int TakeStar(unsigned long long value, unsigned int isInteger, unsigned int& target);
    void WritePiece(const char* text, size_t length);
    void PadToIndent();
    void WriteNumber(unsigned long long magnitude, char sign);
    void WriteChar(unsigned long long value);
    void WritePointer(const void* pointer);
    void WriteDump(const unsigned char* data, size_t length);
    void WriteExtra(const char* text, size_t length);
    void WriteRest() noexcept;
    void End() noexcept;

protected:
    Base_Classes::CFormatStreamBuffer* m_pSink = nullptr; ///< null once the format has ended
    const char* m_pFormat = nullptr; ///< the rest of the format text
    unsigned int m_Prec[5] = {};
    unsigned int m_nWidth = 0;
    unsigned int m_nIndent = 0;
    unsigned char m_nPrec = 0;
    unsigned char m_nRadix = 10;
    char m_cFill = ' ';
    char m_cSign = 0;
    ALIGN m_Align = AL_None;
    CONV m_Conv = CV_String;
    STATE m_State = PS_Start;
    bool m_bUpper = false;
    bool m_bSplit = false;
    bool m_bPlainText = true; ///< the sink takes the format's plain text
    Internals::CStringStreamBuffer m_StringSink; ///< used when formatting into a CStringVar
};

} // namespace Output_Streams
} // namespace KEL
