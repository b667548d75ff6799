// What the second test unit saw of the code tables.
#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

/// Deep copies of the five tables as seen from the second unit, in CODE_TABLE order.
std::vector<std::vector<std::pair<int, std::string>>> SecondUnitTables();
/// The name of event 10557, read by that unit's static initialiser.
std::string SecondUnitNameReadDuringStaticInit();
/// The size of the layout table, read by that unit's static initialiser.
std::size_t SecondUnitLayoutSizeReadDuringStaticInit();
