# The dissector's operation names must be the library's operation code table, row for row.
#   cmake -DKELCODE=<kelcode> -DLUA=<kelbase.lua> -P OperationNames.cmake
cmake_minimum_required(VERSION 3.25)

execute_process(COMMAND ${KELCODE} -l operation RESULT_VARIABLE rc OUTPUT_VARIABLE table)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "kelcode -l operation failed: ${rc}")
endif()
string(REGEX REPLACE "OPERATION ([0-9]+) ([^\n]*)\n" "\\1=\\2;" expected "${table}")

file(READ ${LUA} lua)
string(FIND "${lua}" "local OPERATIONS = {" begin)
if(begin EQUAL -1)
  message(FATAL_ERROR "no OPERATIONS table in ${LUA}")
endif()
string(SUBSTRING "${lua}" ${begin} -1 lua)
string(FIND "${lua}" "\n}" end)
string(SUBSTRING "${lua}" 0 ${end} lua)
string(REGEX MATCHALL "\\[[0-9]+\\] = \"[^\"]*\"" pairs "${lua}")
set(actual "")
foreach(pair IN LISTS pairs)
  string(REGEX REPLACE "\\[([0-9]+)\\] = \"([^\"]*)\"" "\\1=\\2" pair "${pair}")
  string(APPEND actual "${pair};")
endforeach()

if(NOT actual STREQUAL expected)
  list(LENGTH pairs n)
  message(FATAL_ERROR "kelbase.lua names ${n} operations unlike the library's table; regenerate the "
                      "OPERATIONS block from 'kelcode -l operation'.\nlua: ${actual}\nlibrary: ${expected}")
endif()
