# A build for the Debian packages (-DVELK2_DEBIAN_PACKAGES=ON, as
# scripts/make-packages configures it): installed under /usr, the library in
# the multiarch directory, and compiled and linked with the flags Debian
# builds every package with (dpkg-buildflags, all hardening features on:
# -fstack-protector-strong, _FORTIFY_SOURCE, -z relro, -z now; position-
# independent executables come from CMAKE_POSITION_INDEPENDENT_CODE).
if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  message(FATAL_ERROR "VELK2_DEBIAN_PACKAGES needs -DCMAKE_INSTALL_PREFIX=/usr, "
    "not ${CMAKE_INSTALL_PREFIX}: use scripts/make-packages")
endif()
if(NOT CMAKE_LIBRARY_ARCHITECTURE OR NOT CMAKE_INSTALL_LIBDIR STREQUAL "lib/${CMAKE_LIBRARY_ARCHITECTURE}")
  message(FATAL_ERROR "VELK2_DEBIAN_PACKAGES: the library directory is ${CMAKE_INSTALL_LIBDIR}, "
    "not the multiarch directory lib/${CMAKE_LIBRARY_ARCHITECTURE}")
endif()

find_program(VELK2_DPKG_BUILDFLAGS dpkg-buildflags REQUIRED)
foreach(kind CPPFLAGS CFLAGS CXXFLAGS LDFLAGS)
  # Run from the source directory: -ffile-prefix-map then maps it to ".".
  execute_process(
    COMMAND ${CMAKE_COMMAND} -E env "DEB_BUILD_MAINT_OPTIONS=hardening=+all $ENV{DEB_BUILD_MAINT_OPTIONS}"
      ${VELK2_DPKG_BUILDFLAGS} --get ${kind}
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
    OUTPUT_VARIABLE velk2_deb_${kind} OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
endforeach()
foreach(feature "-fstack-protector-strong" "-D_FORTIFY_SOURCE=" "-Wl,-z,relro" "-Wl,-z,now")
  string(FIND "${velk2_deb_CPPFLAGS} ${velk2_deb_CXXFLAGS} ${velk2_deb_LDFLAGS}" "${feature}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "VELK2_DEBIAN_PACKAGES: dpkg-buildflags gives no ${feature}")
  endif()
endforeach()
# Before the build type's flags, as Debian's own CMake builds pass them.
string(PREPEND CMAKE_C_FLAGS "${velk2_deb_CPPFLAGS} ${velk2_deb_CFLAGS} ")
string(PREPEND CMAKE_CXX_FLAGS "${velk2_deb_CPPFLAGS} ${velk2_deb_CXXFLAGS} ")
foreach(kind EXE SHARED MODULE)
  string(PREPEND CMAKE_${kind}_LINKER_FLAGS "${velk2_deb_LDFLAGS} ")
endforeach()
message(STATUS "Debian packages: ${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}, "
  "CXXFLAGS ${velk2_deb_CPPFLAGS} ${velk2_deb_CXXFLAGS}, LDFLAGS ${velk2_deb_LDFLAGS}")
