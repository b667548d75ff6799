# Builds the Debian packages from the build tree into WORK and checks what each one holds and
# declares: names, dependencies found by dpkg-shlibdeps, files, and no path of the build machine
# left in the installed programs.
#   cmake -DBUILD_DIR=... -DWORK=... -DVERSION=... -P PackageTest.cmake
cmake_minimum_required(VERSION 3.25)

function(fail)
  string(JOIN " " _msg ${ARGN})
  message(FATAL_ERROR "package test: ${_msg}")
endfunction()

string(REGEX MATCH "^[0-9]+" MAJOR "${VERSION}")
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})
execute_process(COMMAND cpack -G DEB -B ${WORK} --config ${BUILD_DIR}/CPackConfig.cmake
                RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
  fail("cpack failed (${rc}):\n${out}\n${err}")
endif()

# package -> files it must hold (dpkg-deb -c lists them as ./usr/...)
set(RUNTIME libkelbase${MAJOR})
set(expect_${RUNTIME} "./usr/lib/libkelbase.so.${VERSION}" "./usr/lib/libkelbase.so.${MAJOR} -> libkelbase.so.${VERSION}"
    "./usr/share/kelbase/NLS/de.xml")
set(expect_libkelbase-dev "./usr/include/kel/kelbase.h" "./usr/include/kel/CodeTables.inc" "./usr/lib/libkelbase.a"
    "./usr/lib/libkelbase.so -> libkelbase.so.${MAJOR}" "./usr/lib/cmake/kelbase/kelbaseConfig.cmake"
    "./usr/lib/cmake/kelbase/kelbaseConfigVersion.cmake" "./usr/lib/pkgconfig/kelbase.pc"
    "./usr/lib/pkgconfig/kelbase-static.pc")
set(expect_kelbase-tools "./usr/bin/kelcode" "./usr/bin/kelnls" "./usr/share/kelbase/wireshark/kelbase.lua")
# package -> text its control fields must contain
set(depends_${RUNTIME} "libssl3" "libpugixml1v5" "libboost-log1.74.0" "libldap-2.5-0")
set(depends_libkelbase-dev "${RUNTIME} (= ${VERSION})" "libboost-filesystem-dev" "libssl-dev" "libpugixml-dev")
set(depends_kelbase-tools "${RUNTIME} (= ${VERSION})")

foreach(pkg ${RUNTIME} libkelbase-dev kelbase-tools)
  file(GLOB deb ${WORK}/${pkg}_${VERSION}_*.deb)
  if(NOT deb)
    fail("no package ${pkg}")
  endif()
  execute_process(COMMAND dpkg-deb -f ${deb} Package Version Depends Maintainer OUTPUT_VARIABLE control)
  if(NOT control MATCHES "Package: ${pkg}\n" OR NOT control MATCHES "Version: ${VERSION}\n")
    fail("${pkg}: control fields\n${control}")
  endif()
  foreach(dep ${depends_${pkg}})
    string(FIND "${control}" "${dep}" pos)
    if(pos EQUAL -1)
      fail("${pkg} does not depend on ${dep}:\n${control}")
    endif()
  endforeach()
  execute_process(COMMAND dpkg-deb -c ${deb} OUTPUT_VARIABLE listing)
  foreach(f ${expect_${pkg}})
    string(FIND "${listing}" "${f}" pos)
    if(pos EQUAL -1)
      fail("${pkg} lacks ${f}:\n${listing}")
    endif()
  endforeach()
  execute_process(COMMAND dpkg-deb -x ${deb} ${WORK}/root)
endforeach()

# Installed programs and the library must not point into the build tree.
foreach(f usr/bin/kelcode usr/bin/kelnls usr/lib/libkelbase.so.${VERSION})
  execute_process(COMMAND readelf -d ${WORK}/root/${f} OUTPUT_VARIABLE dyn RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0 OR dyn MATCHES "R(UN)?PATH")
    fail("${f} carries a run path:\n${dyn}")
  endif()
endforeach()
file(READ ${WORK}/root/usr/lib/pkgconfig/kelbase.pc pc)
string(FIND "${pc}" "${BUILD_DIR}" pos)
if(NOT pos EQUAL -1)
  fail("kelbase.pc names the build tree")
endif()
