// A second unit that includes the code tables. It hands its view of every table to the tests
// of the first unit, and reads a table from its own static initialiser: the tables must already
// be complete while other units are still being initialised.
#include "CodeTablesSecondUnit.h"

#include <kel/CodeTables.h>

namespace {

std::vector<std::pair<int, std::string>> Copy(const KEL::CCodeTable& table) {
    std::vector<std::pair<int, std::string>> rows;
    rows.reserve(table.size());
    for (const auto& [code, name] : table)
        rows.emplace_back(code, std::string(name));
    return rows;
}

// Dynamic initialisation of this unit; the order against other units is unspecified.
const std::string g_EarlyName = [] {
    const auto name = KEL::CodeTables::NameOf(KEL::EventCodeNames, 10557);
    return name ? std::string(*name) : std::string("<missing>");
}();
const std::size_t g_EarlyLayoutSize = KEL::LayoutCodeNames.size();

} // namespace

std::vector<std::vector<std::pair<int, std::string>>> SecondUnitTables() {
    return {Copy(KEL::ErrorCodeNames), Copy(KEL::EventCodeNames), Copy(KEL::OperationCodeNames),
            Copy(KEL::LayoutCodeNames), Copy(KEL::ValueCodeNames)};
}

std::string SecondUnitNameReadDuringStaticInit() { return g_EarlyName; }

std::size_t SecondUnitLayoutSizeReadDuringStaticInit() { return g_EarlyLayoutSize; }
