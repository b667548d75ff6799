// kelbase - Src/string/StringFunctions.cpp
//
// The global views and the free helpers on standard strings: splitting, joining and the hex
// dump used by protocol traces.
#define KEL_SOURCE_FILE "Src/string"
#include <kel/Strings.h>

#include <iomanip>
#include <ios>

namespace KEL {
namespace Strings {

const CStringRef _TEmpty("");
const CStringRef _TBlank(" ");
const CStringRef _TNL("\n");
const CStringRef _TFNL("\r\n");

std::vector<std::string> tokenizeString(const char* const text, const char* const separators) {
    std::vector<std::string> tokens;
    if (!text) return tokens;
    CSubStringRef rest(text);
    const char* set = separators ? separators : "";
    while (rest.Length() != 0) {
        // Adjacent separators (and separators at either end) give no empty token.
        rest = rest(rest.SpanIncluding(set));
        size_t length = rest.SpanExcluding(set);
        if (length == 0) break;
        tokens.emplace_back(rest.data(), length);
        rest = rest(length);
    }
    return tokens;
}

std::string joinString(const std::vector<std::string>& parts, size_t first) {
    std::string joined;
    if (first >= parts.size()) return joined;
    size_t size = 0;
    for (size_t i = first; i < parts.size(); ++i) size += parts[i].size();
    joined.reserve(size);
    for (size_t i = first; i < parts.size(); ++i) joined += parts[i];
    return joined;
}

void ByteStreamAppend(const char* data, size_t length, std::stringstream& out, size_t bytesPerLine) {
    if (!data || length == 0) return;
    // The caller's stream keeps its own number base and fill once the dump is written.
    const std::ios_base::fmtflags flags = out.flags();
    const char fill = out.fill();
    const bool prefixed = bytesPerLine != 0 && length > bytesPerLine;
    // Whatever the caller set (left adjustment, show base, upper case) must not change the
    // layout: the dump runs on its own flags.
    out.flags(std::ios_base::hex | std::ios_base::right);
    out << std::setfill('0');
    for (size_t i = 0; i < length; ++i) {
        if (bytesPerLine != 0 && i % bytesPerLine == 0) {
            if (i != 0) out << '\n';
            if (prefixed) {
                out << "0x" << std::setw(2) << i << " - " << "0x" << std::setw(2) << i + bytesPerLine << ": ";
            }
        }
        out << std::setw(2) << static_cast<unsigned int>(static_cast<unsigned char>(data[i])) << ' ';
    }
    out.flags(flags);
    out.fill(fill);
}

} // namespace Strings
} // namespace KEL
