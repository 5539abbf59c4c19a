# SPDX-License-Identifier: Apache-2.0
# SPDX-FileCopyrightText: Copyright 2026 The auth_engine authors

# Debian packages, made by CPack from the install components:
#   runtime      -> libauth-engine<major>  the shared library
#   development  -> libauth-engine-dev     headers, static library, CMake package, auth_engine.pc
#   tools        -> auth-engine-tools      authsim and the example sites
# Configure with -DCMAKE_INSTALL_PREFIX=/usr (so that the libraries go to the multiarch directory),
# build, then run `cpack -G DEB` in the build directory. scripts/ci/package.sh does this with
# Debian's build flags and checks the packages with lintian.
set(AUTH_ENGINE_PACKAGE_CONTACT "The auth_engine authors <auth-engine@example.org>" CACHE STRING
    "Maintainer of the Debian packages (name <address>)")
set(AUTH_ENGINE_PACKAGE_RELEASE 1 CACHE STRING "Debian revision of the packages")
set(_runtime_package libauth-engine${PROJECT_VERSION_MAJOR})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME auth-engine)
set(CPACK_PACKAGE_VENDOR "The auth_engine authors")
set(CPACK_PACKAGE_CONTACT "${AUTH_ENGINE_PACKAGE_CONTACT}")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
# Each package's description below starts with its own synopsis line. CPack puts the project's
# summary in front of it unless the summary is CPack's default, so the default is given.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_NAME} built using CMake")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime development)
if(TARGET authsim)
    list(APPEND CPACK_COMPONENTS_ALL tools)
endif()

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${AUTH_ENGINE_PACKAGE_RELEASE})
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# A shlibs file for the runtime package (the only one with a shared library): hosts built against
# this version need it or a later one of the same SONAME.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# authsim's dependency on the library is the component dependency below; dpkg-shlibdeps finds the
# library in the build tree, where it belongs to no installed package. CPack reads this from CMake
# 3.20 on; with an older one, run cpack with LD_LIBRARY_PATH=<build dir> instead.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_CURRENT_BINARY_DIR})

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${_runtime_package})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# The dynamic loader's cache is refreshed through dpkg's ldconfig trigger.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/cmake/debian/triggers)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "access-control authentication engine (shared library)
The library of a door device's control application that decides, for each
access attempt (card, PIN, face, QR code, vehicle plate, DTMF, BLE, HTTP,
input line, temporary or relay key, remote control), which relays may open,
and why not. The host application supplies all data through one interface.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libauth-engine-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SHLIBDEPS OFF)
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
    "access-control authentication engine (development files)
Headers, static library, CMake package (find_package(auth_engine)) and
pkg-config file (auth_engine.pc) for building a door device's host
application against the access-control authentication engine.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME auth-engine-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "access-control authentication engine (door simulator)
authsim, a reference host and door simulator for the access-control
authentication engine: it runs scenario files against a site file on a
simulated clock and prints every question to the host and every report.
Example sites and scenarios are included.")

# Each package's copyright and Debian changelog, in /usr/share/doc/<package>. Only the packages get
# them (EXCLUDE_FROM_ALL): a plain install does not.
find_program(AUTH_ENGINE_GZIP gzip)
file(STRINGS ${PROJECT_SOURCE_DIR}/CHANGELOG.md _release
    REGEX "^## \\[${PROJECT_VERSION}\\] - [0-9]+-[0-9]+-[0-9]+$" LIMIT_COUNT 1)
string(REGEX REPLACE ".* - " "" _release_date "${_release}")
if(_release_date)
    # A Debian changelog date is RFC 5322, weekday included; the release is dated noon UTC.
    set(_release_date "${_release_date} 12:00:00")
else()
    message(WARNING "CHANGELOG.md has no entry \"## [${PROJECT_VERSION}] - YYYY-MM-DD\": "
        "the packages' changelog is dated today")
    set(_release_date now)
endif()
execute_process(COMMAND date -u -R -d "${_release_date}"
    OUTPUT_VARIABLE _release_date OUTPUT_STRIP_TRAILING_WHITESPACE)
set(_debian_dir ${CMAKE_CURRENT_BINARY_DIR}/debian)
foreach(component runtime development tools)
    string(TOUPPER ${component} _upper)
    set(_package ${CPACK_DEBIAN_${_upper}_PACKAGE_NAME})
    file(WRITE ${_debian_dir}/${_package}/changelog.Debian
        "${_package} (${PROJECT_VERSION}-${AUTH_ENGINE_PACKAGE_RELEASE}) unstable; "
        "urgency=medium\n\n"
        "  * Release ${PROJECT_VERSION}; the changes are in the project's CHANGELOG.md.\n\n"
        " -- ${AUTH_ENGINE_PACKAGE_CONTACT}  ${_release_date}\n")
    if(AUTH_ENGINE_GZIP)
        execute_process(COMMAND ${AUTH_ENGINE_GZIP} -9 -n -f
            ${_debian_dir}/${_package}/changelog.Debian)
    endif()
    install(FILES ${PROJECT_SOURCE_DIR}/cmake/debian/copyright
                  ${_debian_dir}/${_package}/changelog.Debian.gz
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${_package}
        COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()

include(CPack)
