# Read by cpack before it makes the Debian packages (CPACK_PROJECT_CONFIG_FILE).

# Packages come from a build configured for them; any other build would put
# the library outside the multiarch directory or leave out the hardening.
if(NOT CPACK_VELK2_DEBIAN_PACKAGES)
  message(FATAL_ERROR "This build is not configured for Debian packages: "
    "make them with scripts/make-packages (a build with -DVELK2_DEBIAN_PACKAGES=ON).")
endif()

# The dependencies of the library package, computed as CPack computes them
# for the tool: dpkg-shlibdeps on the library (see cmake/debian/packages.cmake).
file(READ ${CPACK_VELK2_LIBRARY_FILE_LIST} velk2_library)
get_filename_component(velk2_work ${CPACK_VELK2_LIBRARY_FILE_LIST} DIRECTORY)
set(velk2_work ${velk2_work}/shlibdeps)
file(REMOVE_RECURSE ${velk2_work})
file(WRITE ${velk2_work}/debian/control "")  # dpkg-shlibdeps reads it; it may be empty
execute_process(COMMAND dpkg-shlibdeps -O ${velk2_library}
  WORKING_DIRECTORY ${velk2_work}
  OUTPUT_VARIABLE velk2_shlibdeps OUTPUT_STRIP_TRAILING_WHITESPACE
  RESULT_VARIABLE velk2_status ERROR_VARIABLE velk2_error)
if(NOT velk2_status EQUAL 0 OR NOT velk2_shlibdeps MATCHES "^shlibs:Depends=(.+)$")
  message(FATAL_ERROR "dpkg-shlibdeps ${velk2_library}: ${velk2_status} ${velk2_error}")
endif()
set(CPACK_DEBIAN_LIB_PACKAGE_DEPENDS "${CMAKE_MATCH_1}")
