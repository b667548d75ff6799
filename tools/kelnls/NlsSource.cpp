// kelbase - tools/kelnls/NlsSource.cpp
//
// Reading and writing the readable language source, and laying out the binary file.
#include "NlsSource.h"

#include <kel/LanguageSupport.h>

#include <cctype>
#include <cstring>
#include <map>
#include <sstream>

namespace kelnls {

namespace {

void PutLE32(std::string& out, unsigned int v) {
    for (int i = 0; i < 4; ++i) out.push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
}

std::string Trim(const std::string& s) {
    size_t b = s.find_first_not_of(" \t\r");
    if (b == std::string::npos) return std::string();
    size_t e = s.find_last_not_of(" \t\r");
    return s.substr(b, e - b + 1);
}

bool Unescape(const std::string& in, std::string& out) {
    out.clear();
    for (size_t i = 0; i < in.size(); ++i) {
        if (in[i] != '\\') {
            out.push_back(in[i]);
            continue;
        }
        if (++i == in.size()) return false;
        switch (in[i]) {
        case 'n': out.push_back('\n'); break;
        case 't': out.push_back('\t'); break;
        case 'r': out.push_back('\r'); break;
        case '\\': out.push_back('\\'); break;
        default: return false;
        }
    }
    return true;
}

std::string Escape(const std::string& in) {
    std::string out;
    for (char c : in) {
        switch (c) {
        case '\n': out += "\\n"; break;
        case '\t': out += "\\t"; break;
        case '\r': out += "\\r"; break;
        case '\\': out += "\\\\"; break;
        default: out.push_back(c);
        }
    }
    return out;
}

bool ParseSection(const std::string& line, LANGUAGE& language, std::string& why) {
    // [xx "Name" utf8]
    size_t close = line.rfind(']');
    if (close != line.size() - 1) return why = "section header without ']'", false;
    std::string body = line.substr(1, close - 1);
    if (body.size() < 2 || !std::isalpha(static_cast<unsigned char>(body[0])) ||
        !std::isalpha(static_cast<unsigned char>(body[1])) ||
        (body.size() > 2 && body[2] != ' '))
        return why = "a section starts with a two-letter language code", false;
    language.languageId = KEL::Language_Support::MakeLanguageID(body[0], body[1]);
    std::string rest = Trim(body.substr(2));
    if (!rest.empty() && rest[0] == '"') {
        size_t end = rest.find('"', 1);
        if (end == std::string::npos) return why = "language name without closing '\"'", false;
        language.name = rest.substr(1, end - 1);
        if (language.name.size() > 32) return why = "language name longer than 32 characters", false;
        rest = Trim(rest.substr(end + 1));
    }
    if (rest == "utf8" || rest.empty())
        language.utf8 = true;
    else if (rest == "ansi")
        language.utf8 = false;
    else
        return why = "unknown section flag '" + rest + "' (utf8 or ansi)", false;
    return true;
}

bool Complete(const std::map<unsigned long long, std::string>& strings, unsigned long long& count, LANGUAGE& language,
              std::string& why) {
    if (count == 0) count = strings.empty() ? 0 : strings.rbegin()->first + 1;
    if (count == 0) return why = "the first language has no strings", false;
    if (strings.size() != count || strings.rbegin()->first != count - 1) {
        unsigned long long missing = 0;
        while (strings.count(missing)) ++missing;
        std::ostringstream s;
        if (missing < count)
            s << "string " << missing << " is missing";
        else
            s << "string " << strings.rbegin()->first << " is beyond the count " << count;
        return why = s.str(), false;
    }
    for (const auto& s : strings) language.strings.push_back(s.second);
    return true;
}

} // namespace

bool ParseSource(const std::string& text, unsigned long long count, std::vector<LANGUAGE>& languages,
                 std::string& error) {
    languages.clear();
    std::istringstream in(text);
    std::string raw;
    unsigned int lineNo = 0, sectionLine = 0;
    std::map<unsigned long long, std::string> strings;
    bool inSection = false;
    auto fail = [&](unsigned int at, const std::string& why) {
        error = "line " + std::to_string(at) + ": " + why;
        return false;
    };
    while (std::getline(in, raw)) {
        ++lineNo;
        if (!raw.empty() && raw.back() == '\r') raw.pop_back();
        // A NUL would end the string early in the binary file and shift every later index.
        if (raw.find('\0') != std::string::npos) return fail(lineNo, "NUL character in the line");
        std::string line = Trim(raw);
        if (line.empty() || line[0] == '#') continue;
        std::string why;
        if (line[0] == '[') {
            if (inSection && !Complete(strings, count, languages.back(), why)) return fail(sectionLine, why);
            languages.emplace_back();
            if (!ParseSection(line, languages.back(), why)) return fail(lineNo, why);
            for (size_t i = 0; i + 1 < languages.size(); ++i)
                if (languages[i].languageId == languages.back().languageId)
                    return fail(lineNo, "the language appears twice");
            strings.clear();
            inSection = true;
            sectionLine = lineNo;
            continue;
        }
        if (!inSection) return fail(lineNo, "a string before the first [language] section");
        size_t eq = raw.find('=');
        if (eq == std::string::npos) return fail(lineNo, "expected 'index = text'");
        std::string index = Trim(raw.substr(0, eq));
        if (index.empty() || index.size() > 9 || index.find_first_not_of("0123456789") != std::string::npos)
            return fail(lineNo, "the index must be a number");
        unsigned long long k = std::stoull(index);
        if (count != 0 && k >= count) return fail(lineNo, "index beyond the string count " + std::to_string(count));
        // One blank after '=' belongs to the syntax; the rest is the text.
        std::string value = raw.substr(eq + 1);
        if (!value.empty() && value[0] == ' ') value.erase(0, 1);
        std::string textValue;
        if (!Unescape(value, textValue)) return fail(lineNo, "bad escape (\\n, \\t, \\r or \\\\)");
        if (!strings.emplace(k, textValue).second) return fail(lineNo, "string " + index + " is defined twice");
    }
    if (!inSection) return error = "no [language] section", false;
    std::string why;
    if (!Complete(strings, count, languages.back(), why)) return fail(sectionLine, why);
    return true;
}

std::string BuildNls(const std::vector<LANGUAGE>& languages) {
    std::vector<std::string> blocks;
    for (const LANGUAGE& l : languages) {
        std::string block;
        for (const std::string& s : l.strings) {
            block += s;
            block.push_back('\0');
        }
        blocks.push_back(block);
    }
    std::string out;
    PutLE32(out, 0x25031961u);
    PutLE32(out, languages.empty() ? 0u : static_cast<unsigned int>(languages[0].strings.size()));
    PutLE32(out, static_cast<unsigned int>(languages.size()));
    unsigned int offset = static_cast<unsigned int>(12 + 48 * languages.size());
    for (size_t i = 0; i < languages.size(); ++i) {
        PutLE32(out, languages[i].languageId);
        PutLE32(out, offset);
        PutLE32(out, static_cast<unsigned int>(blocks[i].size()));
        PutLE32(out, languages[i].utf8 ? 1u : 0u);
        char name[32] = {};
        std::memcpy(name, languages[i].name.data(), std::min<size_t>(32, languages[i].name.size()));
        out.append(name, sizeof(name));
        offset += static_cast<unsigned int>(blocks[i].size());
    }
    for (const std::string& b : blocks) out += b;
    return out;
}

std::string WriteSource(const std::vector<LANGUAGE>& languages, const std::string& comment) {
    std::string out;
    if (!comment.empty()) out += "# " + comment + "\n";
    for (const LANGUAGE& l : languages) {
        out.push_back('[');
        out.push_back(static_cast<char>((l.languageId >> 8) & 0xFF));
        out.push_back(static_cast<char>(l.languageId & 0xFF));
        if (!l.name.empty()) out += " \"" + l.name + "\"";
        out += l.utf8 ? " utf8]\n" : " ansi]\n";
        for (size_t i = 0; i < l.strings.size(); ++i) out += std::to_string(i) + " = " + Escape(l.strings[i]) + "\n";
    }
    return out;
}

} // namespace kelnls
