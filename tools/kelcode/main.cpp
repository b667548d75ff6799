// kelbase - tools/kelcode/main.cpp
//
// kelcode: answers "what is code 50108?", "which number has ADD_SERVER?" and "what does status
// 0x2001002C mean?" from the library's own code tables and module registry, so the answer is
// always the one the installed library gives.
//
// Exit status: 0 every argument was found, 1 at least one was not, 2 the command line is wrong.
#include "Lookup.h"

#include <kel/CodeTables.h>

#include <cstdio>
#include <cstring>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

namespace {

constexpr int kFound = 0;
constexpr int kNotFound = 1;
constexpr int kUsage = 2;

void PrintUsage(std::ostream& out) {
    out << "usage: kelcode [-t TABLE] <number|NAME>...   code number -> table and name,\n"
           "                                             name -> table and number\n"
           "       kelcode -s <status>...                status code -> module and message text\n"
           "       kelcode -l TABLE                      every code of a table\n"
           "\n"
           "  <number>  decimal, or hexadecimal with 0x (50108, 0xC3BC). A number with bit 29\n"
           "            set (0x20000000) is also read as a status code when its module is known.\n"
           "  <NAME>    a symbolic name such as ADD_SERVER; letter case does not matter.\n"
           "  -t, --table TABLE   search only this table: error, event, operation, layout, value\n"
           "  -s, --status        read the numbers as status codes (e.g. 0x2001002C)\n"
           "  -l, --list TABLE    print every code of TABLE with its name\n"
           "  -h, --help          this text\n"
           "\n"
           "Exit status: 0 all found, 1 something was not found, 2 wrong command line.\n";
}

int UsageError(const std::string& message) {
    std::cerr << "kelcode: " << message << "\n"
              << "Try 'kelcode --help' for the forms kelcode accepts.\n";
    return kUsage;
}

std::string Tables() {
    std::string words;
    for (std::size_t k = 0; k < KEL::CodeTables::TableCount; ++k) {
        if (k) words += ", ";
        words += kelcode::LowerCase(KEL::CodeTables::KindName(static_cast<KEL::CodeTables::CODE_TABLE>(k)));
    }
    return words;
}

} // namespace

int main(int argc, char** argv) {
    std::optional<KEL::CodeTables::CODE_TABLE> only;
    std::optional<KEL::CodeTables::CODE_TABLE> list;
    bool status = false;
    std::vector<std::string> items;

    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            PrintUsage(std::cout);
            return kFound;
        }
        if (arg == "-s" || arg == "--status") {
            status = true;
        } else if (arg == "-t" || arg == "--table" || arg == "-l" || arg == "--list") {
            if (i + 1 >= argc) return UsageError(arg + " needs a table name (" + Tables() + ")");
            const std::optional<KEL::CodeTables::CODE_TABLE> table = KEL::CodeTables::KindFromName(argv[++i]);
            if (!table)
                return UsageError(std::string("no table is called '") + argv[i] + "'; the tables are " +
                                  Tables());
            (arg == "-t" || arg == "--table" ? only : list) = table;
        } else if (arg == "--") {
            for (++i; i < argc; ++i)
                items.emplace_back(argv[i]);
        } else if (arg.size() > 1 && arg[0] == '-' && !kelcode::ParseNumber(arg)) {
            return UsageError("unknown option '" + arg + "'");
        } else {
            items.push_back(arg);
        }
    }

    if (list) {
        if (!items.empty() || status || only) return UsageError("-l takes a table and nothing else");
        kelcode::PrintTable(std::cout, *list);
        return kFound;
    }
    if (items.empty()) return UsageError("give a code number, a name or (with -s) a status code");
    if (status && only) return UsageError("-s and -t do not go together: status codes are not in the tables");

    int result = kFound;
    for (const std::string& item : items) {
        bool found = false;
        if (status) {
            const std::optional<long long> number = kelcode::ParseNumber(item);
            if (!number || *number < 0 || *number > 0xFFFFFFFFll)
                return UsageError("'" + item + "' is not a status code; give a number such as 0x2001002C");
            found = kelcode::DescribeStatus(std::cout, std::cerr, static_cast<unsigned int>(*number));
        } else if (const std::optional<long long> number = kelcode::ParseNumber(item)) {
            found = kelcode::DescribeNumber(std::cout, std::cerr, *number, only);
        } else {
            found = kelcode::DescribeName(std::cout, std::cerr, item, only);
        }
        if (!found) result = kNotFound;
    }
    return result;
}
