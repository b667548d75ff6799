# Runs Doxygen over the public headers and docs/*.md twice:
#   1. as `make docs` does: any warning (bad markup, unknown references, broken includes) fails;
#   2. counting only what is documented: every public class must carry a comment of its own.
#   cmake -DDOXYGEN=... -DSOURCE=... -DWORK=... -DVERSION=... -P DocsTest.cmake
cmake_minimum_required(VERSION 3.25)

file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK}/full ${WORK}/documented)
set(ENV{KEL_SOURCE_DIR} ${SOURCE})
set(ENV{KEL_VERSION} ${VERSION})

set(ENV{KEL_DOCS_OUT} ${WORK}/full)
execute_process(COMMAND ${DOXYGEN} ${SOURCE}/docs/Doxyfile WORKING_DIRECTORY ${WORK}
                RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
file(READ ${WORK}/full/warnings.log warnings)
if(NOT rc EQUAL 0 OR NOT warnings STREQUAL "")
  message(FATAL_ERROR "doxygen (exit ${rc}) warns:\n${warnings}\n${err}")
endif()
if(NOT EXISTS ${WORK}/full/html/index.html)
  message(FATAL_ERROR "doxygen wrote no index.html")
endif()
file(READ ${WORK}/full/html/index.html index)
if(NOT index MATCHES "Getting started")
  message(FATAL_ERROR "the main page is not docs/getting-started.md")
endif()

set(ENV{KEL_DOCS_OUT} ${WORK}/documented)
file(WRITE ${WORK}/Doxyfile.documented
  "@INCLUDE = ${SOURCE}/docs/Doxyfile\n"
  "EXTRACT_ALL = NO\nWARN_IF_UNDOCUMENTED = YES\nWARN_AS_ERROR = NO\nGENERATE_HTML = NO\nGENERATE_XML = YES\n")
execute_process(COMMAND ${DOXYGEN} ${WORK}/Doxyfile.documented WORKING_DIRECTORY ${WORK}
                RESULT_VARIABLE rc OUTPUT_QUIET ERROR_QUIET)
file(STRINGS ${WORK}/documented/warnings.log undocumented REGEX "Compound .* is not documented")
if(NOT rc EQUAL 0 OR undocumented)
  string(REPLACE "${SOURCE}/" "" undocumented "${undocumented}")
  string(REPLACE ";" "\n" undocumented "${undocumented}")
  message(FATAL_ERROR "public classes without a comment (exit ${rc}):\n${undocumented}")
endif()

# The channel server and client of the getting-started page are compiled as examples; the page
# must show exactly their code.
file(READ ${SOURCE}/docs/getting-started.md page)
foreach(example channel_server channel_client)
  file(READ ${SOURCE}/examples/${example}.cpp code)
  string(REGEX REPLACE "^(//[^\n]*\n)+" "" code "${code}")
  string(FIND "${page}" "```cpp\n${code}```" pos)
  if(pos EQUAL -1)
    message(FATAL_ERROR "docs/getting-started.md does not show examples/${example}.cpp as it is")
  endif()
endforeach()
