# Debian packages, one per install component, named as Debian names them:
#   libkorvelN      the shared library, N its SONAME's number (libkorvel.so.N)
#   libkorvel-dev   headers, the unversioned link, CMake package, korvel.pc
#   korvel-lock     the command-line tool and its manual page
# Built with `cpack -G DEB` in the build directory; the test suite builds
# them, unpacks them and builds a consumer against them.
set(KORVEL_PACKAGE_VERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}.${PROJECT_VERSION_PATCH})
set(KORVEL_PACKAGE_MAINTAINER "libkorvel maintainers <libkorvel@example.org>"
    CACHE STRING "Maintainer field of the Debian packages")
set(KORVEL_PACKAGE_NAMES library libkorvel${PROJECT_VERSION_MAJOR} development libkorvel-dev
    tool korvel-lock)

# Every package carries its copyright file and changelog, which Debian
# wants in /usr/share/doc/<package>/. Installed for the packages only.
configure_file(cmake/debian/changelog.in ${CMAKE_CURRENT_BINARY_DIR}/debian/changelog @ONLY)
execute_process(COMMAND gzip -9n -c ${CMAKE_CURRENT_BINARY_DIR}/debian/changelog
                OUTPUT_FILE ${CMAKE_CURRENT_BINARY_DIR}/debian/changelog.gz)
file(READ LICENSE KORVEL_LICENSE)
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/debian/copyright
     "libkorvel, its headers and korvel-lock are under the MIT license:\n\n${KORVEL_LICENSE}")
set(components "")
list(LENGTH KORVEL_PACKAGE_NAMES n)
math(EXPR last "${n} - 1")
foreach(i RANGE 0 ${last} 2)
  math(EXPR j "${i} + 1")
  list(GET KORVEL_PACKAGE_NAMES ${i} component)
  list(GET KORVEL_PACKAGE_NAMES ${j} package)
  if(component STREQUAL "tool" AND NOT KORVEL_BUILD_TOOLS)
    continue()
  endif()
  list(APPEND components ${component})
  string(TOUPPER ${component} COMPONENT)
  set(CPACK_DEBIAN_${COMPONENT}_PACKAGE_NAME ${package})
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/debian/copyright
                ${CMAKE_CURRENT_BINARY_DIR}/debian/changelog.gz
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package}
    COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME korvel)
set(CPACK_PACKAGE_VENDOR "libkorvel")
set(CPACK_PACKAGE_VERSION ${KORVEL_PACKAGE_VERSION})
set(CPACK_PACKAGE_CONTACT ${KORVEL_PACKAGE_MAINTAINER})
set(CPACK_RESOURCE_FILE_LICENSE ${CMAKE_CURRENT_SOURCE_DIR}/LICENSE)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL ${components})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${KORVEL_PACKAGE_MAINTAINER})
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Where dpkg-shlibdeps finds libkorvel.so.N of the library package being
# built; korvel-lock carries the library's objects itself.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_CURRENT_BINARY_DIR})

set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# The library's links are made by dpkg's ldconfig trigger.
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_SOURCE_DIR}/cmake/debian/triggers)
set(CPACK_COMPONENT_LIBRARY_DESCRIPTION
    "C++ system services with cross-host directory locks
libkorvel is a C++ library of system services for Linux: path strings and
file queries over caller buffers, a wildcard directory walker, directory
locks that coordinate processes on several hosts through lock files in a
shared directory, threads with a pooled thread factory, and named
semaphores.

This package holds the shared library.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "libboost-thread-dev (>= 1.74), libboost-chrono-dev (>= 1.74)")
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS library)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
    "C++ system services with cross-host directory locks (development files)
libkorvel is a C++ library of system services for Linux: path strings and
file queries over caller buffers, a wildcard directory walker, directory
locks that coordinate processes on several hosts through lock files in a
shared directory, threads with a pooled thread factory, and named
semaphores.

This package holds the headers, the CMake package (korvel::korvel) and
the pkg-config file (korvel).")

set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION utils)
set(CPACK_COMPONENT_TOOL_DESCRIPTION
    "run a command under a directory lock shared across hosts
korvel-lock takes the read or write side of a directory's lock, runs a
command while it holds it and releases it. The lock lives in files inside
the directory, so processes on every host that mounts it (over NFS and the
like) take part.")

include(CPack)
