# Installation and packaging: the libraries with their SONAME links, the headers, a CMake package
# (find_package(kelbase 7.10)), pkg-config files, the tools and the NLS language files, and the
# Debian packages CPack makes from them.
#
# Three components, which become three Debian packages:
#   Runtime      libkelbase7     the shared library and the NLS language files
#   Development  libkelbase-dev  headers, static library, CMake package, pkg-config files
#   Tools        kelbase-tools   kelnls, kelcode and the Wireshark dissector
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(KEL_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/kelbase)
set(KEL_NLS_DIR ${CMAKE_INSTALL_DATADIR}/kelbase/NLS)

install(TARGETS kelbase EXPORT kelbaseTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Runtime NAMELINK_COMPONENT Development
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
# Modules register themselves from static initialisers in units that a program need not
# reference, so a program must take the whole archive. The package exports the archive under
# another name and kelbaseConfig.cmake wraps it as kelbase::kelbase_static with WHOLE_ARCHIVE.
set_target_properties(kelbase_static PROPERTIES EXPORT_NAME kelbase_static_archive)
install(TARGETS kelbase_static EXPORT kelbaseStaticTargets
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Development
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/kel DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        COMPONENT Development FILES_MATCHING PATTERN "*.h" PATTERN "*.inc")
install(DIRECTORY ${PROJECT_SOURCE_DIR}/NLS/ DESTINATION ${KEL_NLS_DIR} COMPONENT Runtime
        FILES_MATCHING PATTERN "*.xml" PATTERN "*.nls")

install(FILES ${PROJECT_SOURCE_DIR}/tools/wireshark/kelbase.lua DESTINATION ${CMAKE_INSTALL_DATADIR}/kelbase/wireshark
        COMPONENT Tools)
foreach(_tool kelnls kelcode)
  if(TARGET ${_tool})
    install(TARGETS ${_tool} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Tools)
  endif()
endforeach()

# The shared and the static targets are exported separately: a program that links the shared
# library does not need the development files of the libraries kelbase uses only inside.
install(EXPORT kelbaseTargets NAMESPACE kelbase:: DESTINATION ${KEL_CMAKE_DIR} COMPONENT Development)
install(EXPORT kelbaseStaticTargets NAMESPACE kelbase:: DESTINATION ${KEL_CMAKE_DIR} COMPONENT Development)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/install/kelbaseConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/kelbaseConfig.cmake
                              INSTALL_DESTINATION ${KEL_CMAKE_DIR}
                              PATH_VARS KEL_NLS_DIR)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/kelbaseConfigVersion.cmake
                                 VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/kelbaseConfig.cmake ${PROJECT_BINARY_DIR}/kelbaseConfigVersion.cmake
        DESTINATION ${KEL_CMAKE_DIR} COMPONENT Development)

# pkg-config files find their prefix from their own place, so an installed tree can be moved
# (and the install test can use a temporary prefix).
file(RELATIVE_PATH KEL_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" KEL_PC_TO_PREFIX "${KEL_PC_TO_PREFIX}")
foreach(_pc kelbase kelbase-static)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/install/${_pc}.pc.in ${PROJECT_BINARY_DIR}/${_pc}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${_pc}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
          COMPONENT Development)
endforeach()

# Debian packages: `make package` or `cpack -G DEB` in the build directory.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kelbase)
set(CPACK_PACKAGE_VENDOR "kelbase project")
set(CPACK_PACKAGE_CONTACT "kelbase maintainers <kelbase@invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL Runtime Development Tools)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${CPACK_PACKAGE_CONTACT}")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libkelbase${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libkelbase-dev)
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME kelbase-tools)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
# The headers name Boost.Filesystem, pugixml, RapidJSON and OpenSSL types; the static library
# also needs Boost.Log, Boost.Regex, Boost.Thread and OpenLDAP at link time.
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "libkelbase${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION}), libboost-filesystem-dev, libboost-log-dev, libboost-regex-dev, libboost-thread-dev, libssl-dev, libpugixml-dev, rapidjson-dev, libldap-dev")
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libkelbase${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "OS-abstraction base library of the RAID suite (shared library and language files)")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "OS-abstraction base library of the RAID suite (development files)")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "OS-abstraction base library of the RAID suite (kelnls, kelcode, Wireshark dissector)")
# dpkg-shlibdeps must find libkelbase.so.7 for the tools package: it is in the build tree.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/Src)
include(CPack)
