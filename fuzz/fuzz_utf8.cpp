// Any bytes into the string family's text conversions and splitters: UTF8Length,
// UTF8BufferSize, CopyFromUTF8, CopyAsUTF8, tokenizeString and ByteStreamAppend, with the
// results checked against each other (a mismatch aborts, so libFuzzer reports it). The same
// bytes then drive a script of edits (appends and replacements from the string's own text,
// alias, hand-over) checked against a std::string model.
#include <kel/Exceptions.h>
#include <kel/Strings.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

namespace {

using KEL::Strings::CStringVar;
using KEL::Strings::CSubStringRef;
using KEL::Strings::TString;

void Check(bool ok) {
    if (!ok) std::abort();
}

void FuzzUtf8(const CSubStringRef& input) {
    const size_t count = input.UTF8Length();
    Check(count == CSubStringRef::POSERR || count <= input.Length());
    Check(KEL::Strings::UTF8length(input.str()) == count);

    bool singleByte = true;
    for (size_t i = 0; i < input.Length(); ++i)
        if (static_cast<unsigned char>(input[i]) >= 0xE0) singleByte = false;

    TString<32> narrow("previous text");
    unsigned int status = narrow.CopyFromUTF8(input);
    if (count != CSubStringRef::POSERR && singleByte) {
        Check(status == 1);
        Check(narrow.Length() == count);
        Check(narrow.C_Str()[narrow.Length()] == '\0');
    } else {
        Check(status == 0x20010060u);
        Check(KEL::Exceptions::ThreadErrorLog().GetError() == 0x20010060u);
        Check(narrow == "previous text");
    }

    // Latin-1 -> UTF-8 -> Latin-1 gives the input back.
    CStringVar utf8;
    utf8.CopyAsUTF8(input);
    Check(utf8.Length() == input.UTF8BufferSize());
    Check(utf8.UTF8Length() == input.Length());
    CStringVar back;
    Check(back.CopyFromUTF8(utf8) == 1);
    Check(back.Length() == input.Length() && back.Compare(input) == 0);
    std::string std8;
    KEL::Strings::ToUTF8(input.str(), std8);
    Check(std8 == utf8.str());

    // The conversion of a string's own text.
    CStringVar own(input);
    own.CopyAsUTF8(own);
    Check(own.Compare(utf8) == 0);
}

void FuzzTokens(const std::string& text, const std::string& separators) {
    std::vector<std::string> tokens = KEL::Strings::tokenizeString(text.c_str(), separators.c_str());
    std::string kept;
    const std::string visible = text.substr(0, text.find('\0'));
    for (char c : visible)
        if (separators.find(c) == std::string::npos) kept += c;
    for (const std::string& t : tokens) {
        Check(!t.empty());
        for (char c : t) Check(separators.find(c) == std::string::npos);
    }
    Check(KEL::Strings::joinString(tokens, 0) == kept);
}

void FuzzDump(const uint8_t* data, size_t size, size_t perLine) {
    std::stringstream out;
    KEL::Strings::ByteStreamAppend(reinterpret_cast<const char*>(data), size, out, perLine);
    std::string dump = out.str();
    if (size == 0) {
        Check(dump.empty());
        return;
    }
    size_t lines = perLine ? (size + perLine - 1) / perLine : 1;
    size_t newlines = 0;
    for (char c : dump) newlines += c == '\n';
    Check(newlines == lines - 1);
    if (perLine == 0 || size <= perLine) Check(dump.size() == 3 * size);
}

// Reads the input as a script of edits applied to a TString<16> (so that the text crosses the
// inline/heap boundary both ways) and to a std::string model; both must agree after each step.
class CEditScript {
public:
    CEditScript(const uint8_t* data, size_t size) : m_pData(data), m_nSize(size) {}

    void Run() {
        TString<16> s;
        std::string model;
        while (m_nPos < m_nSize) {
            const unsigned op = Next() % 10;
            const size_t len = model.size();
            switch (op) {
            case 0: { // append input bytes
                std::string piece = Bytes(Next() % 40);
                s.Cat(piece.data(), piece.size());
                model += piece;
                break;
            }
            case 1: { // append a window of the string itself
                size_t pos = Next() % (len + 1), count = Next() % (len + 1 - pos + 1);
                CSubStringRef w = static_cast<const CSubStringRef&>(s)(pos, count);
                model += model.substr(pos, count);
                s += w;
                break;
            }
            case 2: { // assign a window of the string itself
                size_t pos = Next() % (len + 1);
                s = static_cast<const CSubStringRef&>(s)(pos);
                model = model.substr(pos);
                break;
            }
            case 3: { // replace a window with input bytes
                size_t pos = Next() % (len + 1), count = Next() % (len + 1 - pos + 1);
                std::string piece = Bytes(Next() % 40);
                s(pos, count) = CSubStringRef(piece.data(), piece.size());
                model.replace(pos, count, piece);
                break;
            }
            case 4: { // replace a window with another window of the same string
                size_t pos = Next() % (len + 1), count = Next() % (len + 1 - pos + 1);
                size_t from = Next() % (len + 1), fromCount = Next() % (len + 1 - from + 1);
                std::string piece = model.substr(from, fromCount);
                s(pos, count) = static_cast<const CSubStringRef&>(s)(from, fromCount);
                model.replace(pos, count, piece);
                break;
            }
            case 5: {
                size_t n = Next() % (len + 2);
                s.Cut(n);
                if (n < len) model.resize(n);
                break;
            }
            case 6: {
                char ch = static_cast<char>(Next());
                size_t n = Next() % (len + 20);
                s.Set(ch, n);
                if (n > len) model.resize(n);
                for (size_t i = 0; i < n; ++i) model[i] = ch;
                break;
            }
            case 7:
                s.FreeExtra();
                break;
            case 8: { // append through an alias
                std::string piece = Bytes(Next() % 60);
                {
                    KEL::Strings::CStringAlias alias(s);
                    alias.Cat(piece.data(), piece.size());
                    Check(s.Length() == 0);
                }
                model += piece;
                break;
            }
            default: { // hand the text to another string and back
                CStringVar other("x");
                s >> other;
                Check(s.Length() == 0);
                other >> s;
                break;
            }
            }
            Check(s.Length() == model.size());
            Check(s.Length() <= s.Capacity());
            Check(model.compare(0, std::string::npos, s.data(), s.Length()) == 0);
            Check(s.C_Str()[s.Length()] == '\0');
        }
    }

private:
    unsigned Next() { return m_nPos < m_nSize ? m_pData[m_nPos++] : 0; }
    std::string Bytes(size_t n) {
        if (n > m_nSize - m_nPos) n = m_nSize - m_nPos;
        std::string piece(reinterpret_cast<const char*>(m_pData + m_nPos), n);
        m_nPos += n;
        return piece;
    }
    const uint8_t* m_pData;
    size_t m_nSize;
    size_t m_nPos = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const char* text = reinterpret_cast<const char*>(data);
    FuzzUtf8(CSubStringRef(text, size));

    // The first byte picks the separators (up to 4 bytes after it) for the splitter.
    if (size > 0) {
        size_t sepLength = data[0] % 5;
        if (sepLength > size - 1) sepLength = size - 1;
        std::string separators(text + 1, sepLength);
        separators = separators.substr(0, separators.find('\0'));
        std::string rest(text + 1 + sepLength, size - 1 - sepLength);
        FuzzTokens(rest, separators);
        FuzzDump(data + 1, size - 1, data[0] % 20);
    }
    CEditScript(data, size).Run();
    return 0;
}
