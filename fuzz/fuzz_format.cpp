// Format directives from outside input: the text before the first NUL byte is the format, the
// bytes after it choose the arguments (integers of each width, texts, views, addresses, memory
// dumps, plain text with >>). The same arguments go into a string, a character buffer and a
// re-sorting buffer; library errors are expected, crashes are not, and the string and the
// character buffer must end up with the same bytes.
#include <kel/kelbase.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

// Output beyond this stops the arguments (a width of 65535 per directive adds up fast).
constexpr size_t kOutputLimit = 1u << 20;

class CReader {
public:
    CReader(const uint8_t* data, size_t size) : m_p(data), m_end(data + size) {}
    bool More() const { return m_p < m_end; }
    uint8_t Byte() { return m_p < m_end ? *m_p++ : 0; }
    uint64_t Bytes(size_t n) {
        uint64_t v = 0;
        for (size_t i = 0; i < n; ++i) v = (v << 8) | Byte();
        return v;
    }
    std::string Text() {
        size_t n = Byte() % 48;
        std::string s;
        while (n-- && m_p < m_end) s.push_back(static_cast<char>(*m_p++));
        return s;
    }

private:
    const uint8_t* m_p;
    const uint8_t* m_end;
};

struct Argument {
    enum Kind { Int, Short, Long, ULong, UInt, Small, CText, View, StdString, Pointer, Dump, Plain, Fields } kind;
    uint64_t number = 0;
    std::string text;
};

std::vector<Argument> ReadArguments(CReader& in) {
    std::vector<Argument> args;
    while (in.More() && args.size() < 256) {
        Argument a{static_cast<Argument::Kind>(in.Byte() % 13)};
        switch (a.kind) {
        case Argument::Int:
        case Argument::UInt: a.number = in.Bytes(4); break;
        case Argument::Short: a.number = in.Bytes(2); break;
        case Argument::Long:
        case Argument::ULong:
        case Argument::Pointer: a.number = in.Bytes(8); break;
        case Argument::Small: a.number = in.Byte() % 40; break; // useful `*` values
        default: a.text = in.Text(); break;
        }
        args.push_back(std::move(a));
    }
    return args;
}

// Fields put in the input's order as one argument (a bad order text raises 0x2001001B).
KEL::Output_Streams::CFormatResortBuffer* g_pFields = nullptr;

void Feed(KEL::Output_Streams::CFormatStream& s, const Argument& a) {
    switch (a.kind) {
    case Argument::Int: s << static_cast<int>(static_cast<uint32_t>(a.number)); break;
    case Argument::UInt: s << static_cast<unsigned int>(a.number); break;
    case Argument::Short: s << static_cast<short>(static_cast<uint16_t>(a.number)); break;
    case Argument::Long: s << static_cast<long long>(a.number); break;
    case Argument::ULong: s << static_cast<unsigned long long>(a.number); break;
    case Argument::Small: s << static_cast<int>(a.number); break;
    case Argument::CText: s << a.text.c_str(); break;
    case Argument::View: s << KEL::Strings::CSubStringRef(a.text.data(), a.text.size()); break;
    case Argument::StdString: s << a.text; break;
    case Argument::Pointer: s << reinterpret_cast<const void*>(static_cast<uintptr_t>(a.number)); break;
    case Argument::Dump: s.HexDump(reinterpret_cast<const unsigned char*>(a.text.data()), a.text.size()); break;
    case Argument::Plain: s >> a.text.c_str(); break;
    case Argument::Fields: s << *g_pFields; break;
    }
}

// The re-sorting buffer with its collected text's length in view.
class CResortBuffer : public KEL::Output_Streams::CFormatResortBuffer {
public:
    size_t TextLength() const { return m_Text.Length(); }
};

// Runs the format on one sink; `length` tells how much the sink holds so far.
template <class MakeStream, class Length>
unsigned int Run(MakeStream&& make, Length&& length, const std::vector<Argument>& args) {
    try {
        KEL::Output_Streams::CFormatStream s = make();
        for (const Argument& a : args) {
            if (length() > kOutputLimit) break;
            Feed(s, a);
        }
    } catch (const KEL::Exceptions::CKelException& e) {
        return e.GetCode();
    }
    return 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const uint8_t* nul = static_cast<const uint8_t*>(std::memchr(data, 0, size));
    size_t formatLength = nul ? static_cast<size_t>(nul - data) : size;
    std::string format(reinterpret_cast<const char*>(data), formatLength);
    CReader in(nul ? nul + 1 : data + size, nul ? size - formatLength - 1 : 0);
    std::string order = in.Text();
    std::vector<Argument> args = ReadArguments(in);

    KEL::Output_Streams::CFormatResortBuffer fields;
    fields.Format("%-.4s|%05d|%s", order.c_str()) << "ab" << 42 << "tail";
    g_pFields = &fields;

    KEL::Strings::CStringVar text;
    unsigned int textStatus =
        Run([&] { return text.Format(format.c_str()); }, [&] { return text.Length(); }, args);

    KEL::Output_Streams::CChrStreamBuffer buffer(1, 7);
    unsigned int bufferStatus =
        Run([&] { return buffer.Format(format.c_str()); }, [&] { return buffer.GetLength(); }, args);

    // Both sinks take the same text: the string's in-place path and the generic path agree.
    if (textStatus != bufferStatus || text.Length() != buffer.GetLength() ||
        std::memcmp(text.data(), buffer.GetBuffer(), text.Length()) != 0) {
        std::fprintf(stderr, "string and buffer differ: status %x/%x, length %zu/%zu\n", textStatus, bufferStatus,
                     text.Length(), buffer.GetLength());
        std::abort();
    }
    // The buffer is usable again after whatever happened.
    buffer.Format("%d") << 1;

    CResortBuffer resort;
    Run([&] { return resort.Format(format.c_str(), order.c_str()); }, [&] { return resort.TextLength(); }, args);
    try {
        KEL::Strings::CStringVar out;
        resort.PutInOrder(out);
    } catch (const KEL::Exceptions::CKelException& e) {
        if (e.GetCode() != 0x2001001Bu) std::abort();
    }
    return 0;
}
