# Runs kelcode in each of its modes and checks output, messages and exit status.
#   cmake -DKELCODE=<program> -P KelcodeTest.cmake
cmake_minimum_required(VERSION 3.25)

set(failures 0)

# expect(<exit status> <stdout, exact> <stderr regex or ""> args...)
function(expect want_rc want_out want_err)
  execute_process(COMMAND ${KELCODE} ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  string(JOIN " " cmd ${ARGN})
  set(bad "")
  if(NOT rc STREQUAL want_rc)
    string(APPEND bad " exit ${rc}, expected ${want_rc};")
  endif()
  if(NOT out STREQUAL want_out)
    string(APPEND bad " stdout was\n${out}expected\n${want_out};")
  endif()
  if(want_err STREQUAL "" AND NOT err STREQUAL "")
    string(APPEND bad " unexpected stderr: ${err};")
  elseif(NOT want_err STREQUAL "" AND NOT err MATCHES "${want_err}")
    string(APPEND bad " stderr '${err}' does not match '${want_err}';")
  endif()
  if(bad)
    message(SEND_ERROR "kelcode ${cmd}:${bad}")
    math(EXPR n "${failures} + 1")
    set(failures ${n} PARENT_SCOPE)
  endif()
endfunction()

# Number -> table and name, decimal and hexadecimal; a code shared by four tables.
expect(0 "OPERATION 50108 ADD_SERVER\n" "" 50108)
expect(0 "OPERATION 50108 ADD_SERVER\n" "" 0xC3BC)
expect(0 "EVENT 1 UNDEFINED\nOPERATION 1 UNDEFINED\nLAYOUT 1 UNDEFINED\nVALUE 1 UNDEFINED\n" "" 1)
expect(0 "LAYOUT 1 UNDEFINED\n" "" -t layout 1)
expect(0 "ERROR 0 SUCCESS\nLAYOUT 0 FRAME_START\nVALUE 0 \"\"\n" "" 0)
# The largest code has bit 29 set, but its module 0x1FFF is nobody's: no status line.
expect(0 "LAYOUT 2147483647 UNSPECIFIED\n" "" 0x7FFFFFFF)
expect(1 "" "no code of any table.*kelcode -l" 20175)
expect(1 "" "no code of the error table.*Leave out -t" -t error 50108)

# Name -> tables and numbers; case does not matter; a name under two codes.
expect(0 "OPERATION 50108 ADD_SERVER\nOPERATION 50500 ADD_SERVER\n" "" ADD_SERVER)
expect(0 "OPERATION 50108 ADD_SERVER\nOPERATION 50500 ADD_SERVER\n" "" add_server)
expect(0 "EVENT 10557 BIOS_BOOT_MODE_COE\n" "" BIOS_BOOT_MODE_COE)
expect(0 "VALUE 40007 RAID0\n" "" RAID0)
# The one name with lower-case letters is found in any case.
expect(0 "VALUE 40339 ADAPTER_STATUS_INFO_empty\n" "" ADAPTER_STATUS_INFO_EMPTY)
expect(0 "VALUE 40339 ADAPTER_STATUS_INFO_empty\n" "" adapter_status_info_empty)
expect(0 "LAYOUT 29904 RAID_LEVEL\nLAYOUT 30045 RAID_LEVEL\n" "" -t layout RAID_LEVEL)
# Names that look like numbers at first are still names.
expect(0 "VALUE 40047 1K\n" "" 1K)
# The second row of a shared code never entered the table.
expect(1 "" "no code of any table is named 'FRAME_END'.*LAYOUT 0 FRAME_START" FRAME_END)
expect(1 "" "named 'XYZZY'.*upper-case words" XYZZY)

# Status codes -> module and text, with and without -s.
expect(0 "0x2001002C module 1 kelbase, message 0x002C: Protocol error\n" "" 0x2001002C)
expect(0 "0x2001002C module 1 kelbase, message 0x002C: Protocol error\n" "" -s 0x2001002C)
expect(0 "0x20010041 module 1 kelbase, message 0x0041: Status code of an unknown module\n" "" -s 536936513)
expect(0 "0x20020002 module 2 OS, message 0x0002: No such file or directory\n" "" -s 0x20020002)
expect(0 "0x20030016 module 3 C-LIB, message 0x0016: Invalid argument\n" "" -s 0x20030016)
expect(1 "" "module 5 is not registered.*Status code of an unknown module" -s 0x2005002C)
expect(1 "" "bit 29 \\(0x20000000\\) is clear" -s 0x0001002C)
expect(2 "" "not a status code; give a number" -s RAID0)

# Several arguments: everything is answered, the exit status says something was missing.
expect(1 "VALUE 40007 RAID0\n" "named 'NOPE'" RAID0 NOPE)

# Listing a table.
execute_process(COMMAND ${KELCODE} -l error RESULT_VARIABLE rc OUTPUT_VARIABLE out)
string(REGEX MATCHALL "\n" lines "${out}")
list(LENGTH lines count)
if(NOT rc EQUAL 0 OR NOT count EQUAL 175 OR NOT out MATCHES "^ERROR 0 SUCCESS\nERROR 20000 ")
  message(SEND_ERROR "kelcode -l error: exit ${rc}, ${count} lines")
  math(EXPR failures "${failures} + 1")
endif()

# Command-line mistakes: exit 2 with a hint.
expect(2 "" "give a code number.*kelcode --help")
expect(2 "" "unknown option '--frobnicate'" --frobnicate 1)
expect(2 "" "no table is called 'colour'; the tables are error, event, operation, layout, value" -t colour 1)
expect(2 "" "-t needs a table name" -t)
expect(2 "" "-s and -t do not go together" -s -t error 0x2001002C)
execute_process(COMMAND ${KELCODE} --help RESULT_VARIABLE rc OUTPUT_VARIABLE out)
if(NOT rc EQUAL 0 OR NOT out MATCHES "^usage: kelcode")
  message(SEND_ERROR "kelcode --help: exit ${rc}")
  math(EXPR failures "${failures} + 1")
endif()

if(failures GREATER 0)
  message(FATAL_ERROR "${failures} kelcode checks failed")
endif()
