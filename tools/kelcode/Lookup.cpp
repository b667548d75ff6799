// kelbase - tools/kelcode/Lookup.cpp
#include "Lookup.h"

#include <kel/Exceptions.h>
#include <kel/Functions.h>
#include <kel/Misc.h>
#include <kel/Strings.h>

#include <cstdio>
#include <limits>
#include <vector>

namespace kelcode {

namespace {

using KEL::CodeTables::CODE_MATCH;
using KEL::CodeTables::CODE_TABLE;

constexpr unsigned int kModuleScoped = 0x20000000u;
constexpr std::size_t kMaxSuggestions = 8;

std::string Hex(unsigned long long value, int digits) {
    char buffer[24];
    std::snprintf(buffer, sizeof buffer, "0x%0*llX", digits, value);
    return buffer;
}

// Value code 0 has the empty name; show that it is empty rather than print nothing.
std::string Shown(std::string_view name) {
    return name.empty() ? std::string("\"\"") : std::string(name);
}

void PrintMatch(std::ostream& out, const CODE_MATCH& hit) {
    out << KEL::CodeTables::KindName(hit.table) << ' ' << hit.code << ' ' << Shown(hit.name) << '\n';
}

std::vector<CODE_MATCH> Only(std::vector<CODE_MATCH> hits, std::optional<CODE_TABLE> only) {
    if (!only) return hits;
    std::vector<CODE_MATCH> kept;
    for (const CODE_MATCH& hit : hits)
        if (hit.table == *only) kept.push_back(hit);
    return kept;
}

std::string UpperCase(std::string_view text) {
    std::string upper(text);
    for (char& c : upper)
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    return upper;
}

std::string Where(std::optional<CODE_TABLE> only) {
    return only ? "the " + LowerCase(KEL::CodeTables::KindName(*only)) + " table" : std::string("any table");
}

} // namespace

std::string LowerCase(std::string_view text) {
    std::string lower(text);
    for (char& c : lower)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return lower;
}

std::optional<long long> ParseNumber(std::string_view text) {
    bool negative = false;
    if (!text.empty() && text[0] == '-') {
        negative = true;
        text.remove_prefix(1);
    }
    unsigned base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        text.remove_prefix(2);
    }
    if (text.empty()) return std::nullopt;
    unsigned long long value = 0;
    for (char c : text) {
        unsigned digit;
        if (c >= '0' && c <= '9')
            digit = static_cast<unsigned>(c - '0');
        else if (base == 16 && c >= 'a' && c <= 'f')
            digit = static_cast<unsigned>(c - 'a' + 10);
        else if (base == 16 && c >= 'A' && c <= 'F')
            digit = static_cast<unsigned>(c - 'A' + 10);
        else
            return std::nullopt;
        if (value > (static_cast<unsigned long long>(std::numeric_limits<long long>::max()) - digit) / base)
            return std::nullopt;
        value = value * base + digit;
    }
    const long long signedValue = static_cast<long long>(value);
    return negative ? -signedValue : signedValue;
}

bool DescribeNumber(std::ostream& out, std::ostream& err, long long number, std::optional<CODE_TABLE> only) {
    std::vector<CODE_MATCH> hits;
    if (number >= std::numeric_limits<int>::min() && number <= std::numeric_limits<int>::max())
        hits = Only(KEL::CodeTables::FindTableOf(static_cast<int>(number)), only);
    for (const CODE_MATCH& hit : hits)
        PrintMatch(out, hit);

    // A status code is found by its module; the tables share none of their numbers with the
    // module-scoped range but 0x7FFFFFFF, whose module 0x1FFF nobody registers.
    bool status = false;
    if (!only && number >= 0 && number <= 0xFFFFFFFFll && (number & kModuleScoped) != 0 &&
        KEL::Functions::GetModuleInfo(static_cast<unsigned int>(number)) != nullptr)
        status = DescribeStatus(out, err, static_cast<unsigned int>(number));

    if (hits.empty() && !status) {
        err << "kelcode: " << number << " ("
            << Hex(static_cast<unsigned long long>(number) & 0xFFFFFFFFull, 8) << ") is no code of "
            << Where(only);
        if (number >= 0 && number <= 0xFFFFFFFFll && (number & kModuleScoped) != 0)
            err << ", and its module " << ((number >> 16) & 0x1FFF) << " is not registered in this program";
        err << ".\n";
        if (only)
            err << "Leave out -t to search every table.\n";
        else
            err << "Run 'kelcode -l TABLE' to see the codes of a table.\n";
        return false;
    }
    return true;
}

bool DescribeName(std::ostream& out, std::ostream& err, const std::string& name,
                  std::optional<CODE_TABLE> only) {
    std::vector<CODE_MATCH> hits = Only(KEL::CodeTables::FindName(name), only);
    if (hits.empty()) {
        // Without regard to case: the names are upper case but for one ("..._empty").
        const std::string upper = UpperCase(name);
        for (std::size_t k = 0; k < KEL::CodeTables::TableCount; ++k) {
            const CODE_TABLE kind = static_cast<CODE_TABLE>(k);
            if (only && *only != kind) continue;
            for (const KEL::CODE_NAME& row : KEL::CodeTables::TableOf(kind))
                if (row.second.size() == upper.size() && UpperCase(row.second) == upper)
                    hits.push_back(CODE_MATCH{kind, row.first, row.second});
        }
    }
    for (const CODE_MATCH& hit : hits)
        PrintMatch(out, hit);
    if (!hits.empty()) return true;

    err << "kelcode: no code of " << Where(only) << " is named '" << name << "'.\n";
    // Names that contain the text; failing that, names that share its leading words
    // ("FRAME_END" -> "FRAME_"), which catches a misremembered last word.
    std::string needle = UpperCase(name);
    std::vector<CODE_MATCH> similar;
    while (!needle.empty() && similar.empty()) {
        for (std::size_t k = 0; k < KEL::CodeTables::TableCount; ++k) {
            const CODE_TABLE kind = static_cast<CODE_TABLE>(k);
            if (only && *only != kind) continue;
            for (const KEL::CODE_NAME& row : KEL::CodeTables::TableOf(kind))
                if (row.second.find(needle) != std::string_view::npos)
                    similar.push_back(CODE_MATCH{kind, row.first, row.second});
        }
        const std::size_t cut = needle.size() > 1 ? needle.rfind('_', needle.size() - 2) : std::string::npos;
        needle = cut == std::string::npos ? std::string() : needle.substr(0, cut + 1);
    }
    if (similar.empty()) {
        err << "Names are upper-case words joined by '_', such as ADD_SERVER; 'kelcode -l TABLE' lists "
               "them.\n";
        return false;
    }
    err << "Similar names" << (similar.size() > kMaxSuggestions ? " (the first " : "")
        << (similar.size() > kMaxSuggestions
                ? std::to_string(kMaxSuggestions) + " of " + std::to_string(similar.size()) + ")"
                : "")
        << ":\n";
    for (std::size_t i = 0; i < similar.size() && i < kMaxSuggestions; ++i) {
        err << "  ";
        PrintMatch(err, similar[i]);
    }
    return false;
}

bool DescribeStatus(std::ostream& out, std::ostream& err, unsigned int code) {
    if ((code & kModuleScoped) == 0) {
        err << "kelcode: " << Hex(code, 8) << " is not a status code: bit 29 (0x20000000) is clear.\n"
            << "A status code carries its module in bits 16-28, e.g. 0x2001002C for kelbase message 0x2C.\n";
        return false;
    }
    const unsigned int moduleId = (code >> 16) & 0x1FFFu;
    KEL::Misc::CModuleInfo* module = KEL::Functions::GetModuleInfo(code);
    if (module == nullptr) {
        KEL::Strings::CStringVar text;
        KEL::KEL_MODULE_INFO_KelLib.GetErrorMsg(text, code, 1);
        err << "kelcode: " << Hex(code, 8) << ": module " << moduleId
            << " is not registered in this program (" << text.C_Str() << ").\n"
            << "kelcode knows the modules of kelbase: 1 kelbase, 2 OS, 3 C-LIB, 4 OpenSSL; codes of other\n"
            << "libraries of the suite are explained by the programs that load them.\n";
        return false;
    }
    KEL::Strings::CStringVar text;
    module->GetErrorMsg(text, code, 1); // raw: the UTF-8 text as stored, whatever the locale
    out << Hex(code, 8) << " module " << moduleId << ' ' << module->GetModuleName() << ", message "
        << Hex(code & 0xFFFFu, 4) << ": " << text.C_Str() << '\n';
    return true;
}

void PrintTable(std::ostream& out, CODE_TABLE table) {
    for (const KEL::CODE_NAME& row : KEL::CodeTables::TableOf(table))
        PrintMatch(out, CODE_MATCH{table, row.first, row.second});
}

} // namespace kelcode
