// kelbase - tools/kelnls/NlsSource.h
//
// The readable source of a binary language file and its conversion to the ".nls" layout:
//
//     # comment
//     [de "Deutsch" utf8]        one section per language: code, name, utf8 or ansi
//     0 = Datei %s nicht gefunden
//     1 = Zwei\nZeilen           one string per index; \n, \t and \\ are escapes
//
// Every section defines every index from 0 to count - 1 exactly once.
#pragma once

#include <string>
#include <vector>

namespace kelnls {

struct LANGUAGE {
    unsigned int languageId = 0;
    std::string name;
    bool utf8 = true;
    std::vector<std::string> strings;
};

/// Parses `text`; `count` 0 takes the count from the first section. On failure returns false
/// with `error` naming the line.
bool ParseSource(const std::string& text, unsigned long long count, std::vector<LANGUAGE>& languages,
                 std::string& error);
/// The bytes of the binary file holding `languages`.
std::string BuildNls(const std::vector<LANGUAGE>& languages);
/// The source text of `languages` (ParseSource reads it back unchanged).
std::string WriteSource(const std::vector<LANGUAGE>& languages, const std::string& comment);

} // namespace kelnls
