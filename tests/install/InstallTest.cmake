# Installs the build tree into WORK/prefix and proves the installed files are enough to build
# and run a program: with find_package (shared and static targets) and with pkg-config and the
# compiler alone (kelbase.pc, kelbase-static.pc). Needs no network and no root.
#
#   cmake -DBUILD_DIR=... -DWORK=... -DCONSUMER=... -DCXX=... -DCXX_FLAGS=... -DVERSION=...
#         -DLIBDIR=... -P InstallTest.cmake
cmake_minimum_required(VERSION 3.25)

function(fail)
  string(JOIN " " _msg ${ARGN})
  message(FATAL_ERROR "install test: ${_msg}")
endfunction()

# Runs a command; stops the test with its output when it fails.
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    string(JOIN " " _cmd ${ARGN})
    fail("'${_cmd}' failed (${rc}):\n${out}\n${err}")
  endif()
  set(RUN_OUTPUT "${out}" PARENT_SCOPE)
endfunction()

# The consumer's output, line by line, as the library must produce it.
set(EXPECTED
  "format module....|    42|"
  "module 1 kelbase"
  "module 2 OS"
  "module 3 C-LIB"
  "module 4 OpenSSL"
  "status 0x2001002C Protocol error"
  "operation 50108 ADD_SERVER"
  "status of CopyFromUTF8 0x20010060"
  "version P:7.10.2 F:7.10.2")
string(JOIN "\n" EXPECTED ${EXPECTED})
set(EXPECTED "${EXPECTED}\n")

function(check_program label program)
  execute_process(COMMAND ${program} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    fail("${label}: the program failed (${rc}): ${err}")
  endif()
  if(NOT out STREQUAL EXPECTED)
    fail("${label}: unexpected output:\n${out}\nexpected:\n${EXPECTED}")
  endif()
  message(STATUS "${label}: output as expected")
endfunction()

# The program linked statically must not need libkelbase.so; the shared one must name it by
# its SONAME.
function(check_needed label program expect_shared)
  execute_process(COMMAND readelf -d ${program} OUTPUT_VARIABLE dyn RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    fail("readelf failed on ${program}")
  endif()
  string(FIND "${dyn}" "[libkelbase.so.${MAJOR}]" pos)
  if(expect_shared AND pos EQUAL -1)
    fail("${label}: does not need libkelbase.so.${MAJOR}:\n${dyn}")
  elseif(NOT expect_shared AND NOT pos EQUAL -1)
    fail("${label}: linked statically but needs libkelbase.so.${MAJOR}")
  endif()
endfunction()

string(REGEX MATCH "^[0-9]+" MAJOR "${VERSION}")
set(PREFIX ${WORK}/prefix)
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${PREFIX})

# The shared library with its two links, the archive, headers, package files, data, tools.
set(LIB ${PREFIX}/${LIBDIR})
foreach(f ${LIB}/libkelbase.so.${VERSION} ${LIB}/libkelbase.a ${PREFIX}/include/kel/kelbase.h
          ${PREFIX}/include/kel/CodeTables.inc ${LIB}/cmake/kelbase/kelbaseConfig.cmake
          ${LIB}/cmake/kelbase/kelbaseConfigVersion.cmake ${LIB}/pkgconfig/kelbase.pc
          ${LIB}/pkgconfig/kelbase-static.pc ${PREFIX}/share/kelbase/NLS/de.xml ${PREFIX}/bin/kelnls
          ${PREFIX}/bin/kelcode)
  if(NOT EXISTS ${f})
    fail("${f} was not installed")
  endif()
endforeach()
file(READ_SYMLINK ${LIB}/libkelbase.so _link)
file(READ_SYMLINK ${LIB}/libkelbase.so.${MAJOR} _solink)
if(NOT _link STREQUAL "libkelbase.so.${MAJOR}" OR NOT _solink STREQUAL "libkelbase.so.${VERSION}")
  fail("SONAME links are '${_link}' and '${_solink}'")
endif()
execute_process(COMMAND readelf -d ${LIB}/libkelbase.so.${VERSION} OUTPUT_VARIABLE dyn)
if(NOT dyn MATCHES "SONAME[^\n]*\\[libkelbase\\.so\\.${MAJOR}\\]")
  fail("libkelbase.so.${VERSION} does not carry the SONAME libkelbase.so.${MAJOR}")
endif()

# 1. CMake: find_package(kelbase 7.10) with both targets.
set(CM ${WORK}/cmake-build)
run(${CMAKE_COMMAND} -S ${CONSUMER} -B ${CM} -DCMAKE_PREFIX_PATH=${PREFIX} -DCMAKE_CXX_COMPILER=${CXX}
    "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}" "-DCMAKE_EXE_LINKER_FLAGS=${CXX_FLAGS}" -DEXPECTED_VERSION=${VERSION})
run(${CMAKE_COMMAND} --build ${CM})
check_program("find_package, shared" ${CM}/consumer_shared)
check_needed("find_package, shared" ${CM}/consumer_shared TRUE)
check_program("find_package, static" ${CM}/consumer_static)
check_needed("find_package, static" ${CM}/consumer_static FALSE)

# SameMajorVersion: another major version, or a newer minor one, is refused.
foreach(request 6.0 8.0 7.11)
  execute_process(COMMAND ${CMAKE_COMMAND} -S ${CONSUMER} -B ${WORK}/refuse-${request}
                          -DCMAKE_PREFIX_PATH=${PREFIX} -DCMAKE_CXX_COMPILER=${CXX}
                          -DEXPECTED_VERSION=${VERSION} -DKEL_REQUEST=${request}
                  RESULT_VARIABLE rc OUTPUT_QUIET ERROR_VARIABLE err)
  if(rc EQUAL 0 OR NOT err MATCHES "kelbase")
    fail("find_package(kelbase ${request}) accepted version ${VERSION}")
  endif()
endforeach()

# 2. pkg-config and the compiler.
set(ENV{PKG_CONFIG_PATH} ${LIB}/pkgconfig)
foreach(variant shared static)
  if(variant STREQUAL "shared")
    set(pc kelbase)
  else()
    set(pc kelbase-static)
  endif()
  run(pkg-config --modversion ${pc})
  string(STRIP "${RUN_OUTPUT}" _v)
  if(NOT _v STREQUAL VERSION)
    fail("pkg-config reports ${pc} ${_v}, not ${VERSION}")
  endif()
  run(pkg-config --cflags ${pc})
  separate_arguments(cflags UNIX_COMMAND "${RUN_OUTPUT}")
  run(pkg-config --libs ${pc})
  separate_arguments(libs UNIX_COMMAND "${RUN_OUTPUT}")
  separate_arguments(extra UNIX_COMMAND "${CXX_FLAGS}")
  set(program ${WORK}/pc_${variant})
  run(${CXX} -std=c++17 ${extra} ${cflags} ${CONSUMER}/consumer.cpp -o ${program} ${libs})
  if(variant STREQUAL "shared")
    # An installed tree outside the loader's path: the program finds the library by LD_LIBRARY_PATH.
    set(ENV{LD_LIBRARY_PATH} ${LIB})
  endif()
  check_program("pkg-config, ${variant}" ${program})
  unset(ENV{LD_LIBRARY_PATH})
  if(variant STREQUAL "shared")
    check_needed("pkg-config, shared" ${program} TRUE)
  else()
    check_needed("pkg-config, static" ${program} FALSE)
  endif()
endforeach()

# The installed tools run from the prefix.
set(ENV{LD_LIBRARY_PATH} ${LIB})
run(${PREFIX}/bin/kelcode 0x2001002C)
if(NOT RUN_OUTPUT MATCHES "Protocol error")
  fail("installed kelcode: ${RUN_OUTPUT}")
endif()
