// kelbase - tools/kelcode/Lookup.h
//
// The look-ups behind kelcode, each writing its answer to `out` and its complaint (with what the
// user can do about it) to `err`. They return whether anything was found.
#pragma once

#include <kel/CodeTables.h>

#include <optional>
#include <ostream>
#include <string>
#include <string_view>

namespace kelcode {

/// A whole argument as a number: decimal (an optional '-'), or 0x/0X and hexadecimal digits.
/// None when anything else is in it ("512B", "4KN" and "1GB" are names) or it does not fit in
/// 64 bits.
std::optional<long long> ParseNumber(std::string_view text);

std::string LowerCase(std::string_view text);

/// Every table holding `number` (or only `only`) as "TABLE code name" lines; a number with bit
/// 29 set and a registered module adds a status line.
bool DescribeNumber(std::ostream& out, std::ostream& err, long long number,
                    std::optional<KEL::CodeTables::CODE_TABLE> only);

/// Every (table, code) of `name`: the exact spelling, else any spelling that differs only in
/// letter case. When nothing matches, up to eight similar names are offered: names that contain
/// the text, else names that share its leading words.
bool DescribeName(std::ostream& out, std::ostream& err, const std::string& name,
                  std::optional<KEL::CodeTables::CODE_TABLE> only);

/// The module and message text of a status code, through the library's module registry.
bool DescribeStatus(std::ostream& out, std::ostream& err, unsigned int code);

/// Every row of a table, ascending.
void PrintTable(std::ostream& out, KEL::CodeTables::CODE_TABLE table);

} // namespace kelcode
