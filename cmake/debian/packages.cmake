# The Debian packages, one per installation component:
#   libvelk2-1    component lib   the shared library (named after its SONAME)
#   libvelk2-dev  component dev   header, development link, CMake package, velk2.pc
#   velk2         component tool  the command-line tool, its manual page and completion
# Made by scripts/make-packages, which configures a build for them alone
# (-DVELK2_DEBIAN_PACKAGES=ON: under /usr, hardened; no tests, no benchmarks).
#
# A further package is one velk2_deb_package() call below plus install()
# rules with a COMPONENT of the same name; e.g. the Python binding:
#   velk2_deb_package(python python3-velk2 SECTION python NEEDS lib
#     DEPENDS python3 DESCRIPTION "...")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME velk2)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "velk2 developers <velk2@example.org>")
# No CPACK_PACKAGE_DESCRIPTION_SUMMARY: CPack would put it above every
# package's own synopsis (the first line of its DESCRIPTION).
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL "")
# Checks that the build was configured for packages and computes what CPack
# cannot compute for the library package (see there).
set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_SOURCE_DIR}/cmake/debian/cpack-project.cmake)
set(CPACK_VELK2_DEBIAN_PACKAGES ${VELK2_DEBIAN_PACKAGES})
set(CPACK_VELK2_LIBRARY_FILE_LIST ${PROJECT_BINARY_DIR}/debian/library-file)
file(GENERATE OUTPUT ${CPACK_VELK2_LIBRARY_FILE_LIST} CONTENT "$<TARGET_FILE:velk2>")

# velk2_deb_package(COMPONENT PACKAGE SECTION section DESCRIPTION text
#                   [NEEDS component...] [DEPENDS dependency...] [CONTROL_EXTRA file...])
# NEEDS names components whose packages this one depends on at exactly the
# same version; DEPENDS adds other packages (those of shared libraries the
# package's programs need are computed by dpkg-shlibdeps). Every package
# carries its copyright and changelog, as Debian requires.
function(velk2_deb_package component package)
  cmake_parse_arguments(P "" "SECTION;DESCRIPTION" "NEEDS;DEPENDS;CONTROL_EXTRA" ${ARGN})
  string(TOUPPER ${component} upper)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${package} PARENT_SCOPE)
  set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${P_SECTION} PARENT_SCOPE)
  set(CPACK_DEBIAN_${upper}_DESCRIPTION "${P_DESCRIPTION}" PARENT_SCOPE)
  set(CPACK_COMPONENT_${upper}_DEPENDS ${P_NEEDS} PARENT_SCOPE)
  if(P_DEPENDS)
    list(JOIN P_DEPENDS ", " depends)
    set(CPACK_DEBIAN_${upper}_PACKAGE_DEPENDS "${depends}" PARENT_SCOPE)
  endif()
  if(P_CONTROL_EXTRA)
    set(CPACK_DEBIAN_${upper}_PACKAGE_CONTROL_EXTRA ${P_CONTROL_EXTRA} PARENT_SCOPE)
    set(CPACK_DEBIAN_${upper}_PACKAGE_CONTROL_STRICT_PERMISSION ON PARENT_SCOPE)
  endif()
  set(CPACK_COMPONENTS_ALL ${CPACK_COMPONENTS_ALL} ${component} PARENT_SCOPE)
  install(FILES ${PROJECT_SOURCE_DIR}/cmake/debian/copyright ${PROJECT_SOURCE_DIR}/cmake/debian/changelog.gz
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component})
endfunction()

# The library package declares what a program linked against libvelk2.so.1
# depends on (shlibs: any version from this one on, as new versions only add
# to the interface) and refreshes the dynamic linker's cache by a trigger.
# CPack would add maintainer scripts that run ldconfig to any package it scans
# for shared libraries, so this package is not scanned: its own dependencies
# come from dpkg-shlibdeps in cmake/debian/cpack-project.cmake.
configure_file(${PROJECT_SOURCE_DIR}/cmake/debian/shlibs.in ${PROJECT_BINARY_DIR}/debian/shlibs @ONLY)
set(CPACK_DEBIAN_LIB_PACKAGE_SHLIBDEPS OFF)
velk2_deb_package(lib libvelk2-1 SECTION libs
  CONTROL_EXTRA ${PROJECT_BINARY_DIR}/debian/shlibs ${PROJECT_SOURCE_DIR}/cmake/debian/triggers
  DESCRIPTION "trust decisions for signed packages (library)
The shared library that verifies signed package manifests against the files
on disk and the SPKI credentials behind them, through a flat C interface.")
velk2_deb_package(dev libvelk2-dev SECTION libdevel NEEDS lib
  DESCRIPTION "trust decisions for signed packages (development files)
The header, the pkg-config file and the CMake package for building programs
against libvelk2, the library that verifies signed package manifests and the
SPKI credentials behind them.")
velk2_deb_package(tool velk2 SECTION utils
  DESCRIPTION "verify signed packages and SPKI credentials
The velk2 tool verifies installed packages against their signed manifests,
issues keys, certificates, ACL entries and revocation lists, and explains
its verdicts.")
# The Python binding (python/CMakeLists.txt): pure Python, so for every
# architecture, over the library package of exactly this version.
velk2_deb_package(python python3-velk2 SECTION python NEEDS lib DEPENDS python3
  DESCRIPTION "trust decisions for signed packages (Python 3 binding)
The velk2 module verifies installed packages against their signed manifests
and SPKI certificate chains from Python, through libvelk2.")
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)

include(CPack)
