# Debian packages, one per component: `cpack -G DEB` in a build configured with CMAKE_INSTALL_PREFIX=/usr
# (scripts/package does that).
#
#   component    package                   contents
#   runtime      libtelvane5               libtelvane.so.5 (no Qt)
#   widgets      libtelvane-widgets5       libtelvane-widgets.so.5 (Qt 6 Widgets)
#   dev          libtelvane-dev            core headers, CMake package, telvane.pc
#   widgets_dev  libtelvane-widgets-dev    widgets headers, the CMake package's Widgets component, telvane-widgets.pc
#   cli          telvane                   the command-line tool, its manual page and bash completion
#   diagnostics  telvane-diagnostics       the desktop program
#   exporter     telvane-exporter          the Prometheus exporter, its systemd unit and example configuration
#
# The library packages are named for their SONAME, so that a future libtelvane.so.6 can be installed beside
# them. Each package with binaries gets a -dbgsym package with their debug information.
set(TELVANE_MAINTAINER "Telvane developers <maintainers@telvane.dev>")
set(TELVANE_DEBIAN_REVISION 1)
set(TELVANE_DEBIAN_VERSION ${PROJECT_VERSION}-${TELVANE_DEBIAN_REVISION})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME telvane)
set(CPACK_PACKAGE_VENDOR "The Telvane developers")
set(CPACK_PACKAGE_CONTACT "${TELVANE_MAINTAINER}")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
# Empty, so that each package's description below starts with its own synopsis rather than the project's.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_DEBIAN_PACKAGE_RELEASE ${TELVANE_DEBIAN_REVISION})
set(CPACK_DEBIAN_PACKAGE_SOURCE telvane)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEB_COMPONENT_INSTALL ON)
# Packages of dependent components depend on their packages of exactly this version.
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Our own libraries are found in the packages being built, not among the installed ones.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR}/Telvane ${CMAKE_BINARY_DIR}/TelvaneWidgets
    ${CMAKE_BINARY_DIR})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
# The SONAME carries the ABI: any later 5.x satisfies a program built against this one.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# The binaries are stripped. When the build has debug information, CPack splits it off into
# <package>-dbgsym (.ddeb) and strips the binaries itself (objcopy --strip-unneeded); CPACK_STRIP_FILES
# would strip them first and leave nothing to split. Without it, there is nothing for a -dbgsym package.
string(TOUPPER "${CMAKE_BUILD_TYPE}" telvane_build_type)
if(" ${CMAKE_CXX_FLAGS} ${CMAKE_CXX_FLAGS_${telvane_build_type}} " MATCHES " -g([1-3]|gdb)? ")
    set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)
else()
    set(CPACK_STRIP_FILES ON)
endif()
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# The library packages run ldconfig through a dpkg trigger. cmake/debian/PostBuild.cmake mends the packages
# where CPack falls short of that and of Debian's rules for -dbgsym packages.
set(TELVANE_LDCONFIG_TRIGGER ${CMAKE_CURRENT_LIST_DIR}/debian/triggers)
set(CPACK_POST_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/debian/PostBuild.cmake)
# The packages' paths and their .pc files are made for /usr; refuse to package another prefix.
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_LIST_DIR}/debian/CheckPrefix.cmake)
set(CPACK_TELVANE_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libtelvane5)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${TELVANE_LDCONFIG_TRIGGER})
set(TELVANE_DEBIAN_ABOUT "Telvane logs in to another machine over SSH with a username and a password,
runs one shell script there and streams the script's standard output back
live. It keeps credentials in the user's keyring.
.")
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "library to use another machine as a sensor over SSH
${TELVANE_DEBIAN_ABOUT}
This package holds the core library, which needs no graphical toolkit.")

set(CPACK_DEBIAN_WIDGETS_PACKAGE_NAME libtelvane-widgets5)
set(CPACK_DEBIAN_WIDGETS_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_WIDGETS_PACKAGE_CONTROL_EXTRA ${TELVANE_LDCONFIG_TRIGGER})
set(CPACK_COMPONENT_WIDGETS_DEPENDS runtime)
set(CPACK_DEBIAN_WIDGETS_DESCRIPTION "Qt 6 widgets for Telvane sensors
${TELVANE_DEBIAN_ABOUT}
This package holds the Qt 6 Widgets library: a credentials prompt and a
diagnostics panel that shows a script's transcript live.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libtelvane-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
set(CPACK_DEBIAN_DEV_DESCRIPTION "library to use another machine as a sensor - development files
${TELVANE_DEBIAN_ABOUT}
This package holds the core library's headers, its CMake package
(find_package(Telvane), target Telvane::Telvane) and its pkg-config file
(telvane).")

set(CPACK_DEBIAN_WIDGETS_DEV_PACKAGE_NAME libtelvane-widgets-dev)
set(CPACK_DEBIAN_WIDGETS_DEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_WIDGETS_DEV_DEPENDS widgets dev)
# Its headers include Qt's.
set(CPACK_DEBIAN_WIDGETS_DEV_PACKAGE_DEPENDS "qt6-base-dev")
set(CPACK_DEBIAN_WIDGETS_DEV_DESCRIPTION "Qt 6 widgets for Telvane sensors - development files
${TELVANE_DEBIAN_ABOUT}
This package holds the widgets library's headers, the Widgets component of
the CMake package (find_package(Telvane COMPONENTS Widgets), target
Telvane::Widgets) and its pkg-config file (telvane-widgets).")

set(CPACK_DEBIAN_CLI_PACKAGE_NAME telvane)
set(CPACK_DEBIAN_CLI_PACKAGE_SECTION net)
set(CPACK_DEBIAN_CLI_PACKAGE_RECOMMENDS bash-completion)
set(CPACK_COMPONENT_CLI_DEPENDS runtime)
set(CPACK_DEBIAN_CLI_DESCRIPTION "run a shell script on another machine over SSH, stream its output
telvane logs in to a sensor host over SSH with a username and a password,
runs one shell script there and copies the script's standard output to its
own as it arrives. Its diagnose command shows a transcript with the findings
the script marks, and an exit status that counts them.")

set(CPACK_DEBIAN_DIAGNOSTICS_PACKAGE_NAME telvane-diagnostics)
set(CPACK_DEBIAN_DIAGNOSTICS_PACKAGE_SECTION net)
set(CPACK_COMPONENT_DIAGNOSTICS_DEPENDS widgets)
set(CPACK_DEBIAN_DIAGNOSTICS_DESCRIPTION "desktop program to run a diagnostics script on a sensor host
telvane-diagnostics logs in to a sensor host over SSH, runs a diagnostics
script there and shows its transcript live in a window, with the findings
the script marks in red.")

set(CPACK_DEBIAN_EXPORTER_PACKAGE_NAME telvane-exporter)
set(CPACK_DEBIAN_EXPORTER_PACKAGE_SECTION net)
set(CPACK_COMPONENT_EXPORTER_DEPENDS runtime)
set(CPACK_DEBIAN_EXPORTER_PACKAGE_DEPENDS adduser)
set(CPACK_DEBIAN_EXPORTER_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_LIST_DIR}/debian/exporter/postinst ${CMAKE_CURRENT_LIST_DIR}/debian/exporter/conffiles)
set(CPACK_DEBIAN_EXPORTER_DESCRIPTION "Prometheus exporter that probes hosts over SSH
telvane-exporter answers Prometheus' scrapes of /probe?target=HOST&module=NAME
by logging in to the target over SSH, running the module's shell script
there and passing on its success, its times and the metrics it prints.
It runs as its own system user under a hardened systemd unit.")

set(CPACK_COMPONENTS_ALL runtime dev cli)
if(TARGET telvane-exporter)
    list(APPEND CPACK_COMPONENTS_ALL exporter)
endif()
if(TARGET TelvaneWidgets)
    list(APPEND CPACK_COMPONENTS_ALL widgets widgets_dev)
endif()
if(TARGET telvane-diagnostics)
    list(APPEND CPACK_COMPONENTS_ALL diagnostics)
endif()

# Every package carries the licence (machine-readable) and the Debian changelog in /usr/share/doc/<package>.
configure_file(${CMAKE_CURRENT_LIST_DIR}/debian/copyright.in ${CMAKE_BINARY_DIR}/debian/copyright @ONLY)
configure_file(${CMAKE_CURRENT_LIST_DIR}/debian/changelog.Debian.in ${CMAKE_BINARY_DIR}/debian/changelog.Debian
               @ONLY)
telvane_gzip(${CMAKE_BINARY_DIR}/debian/changelog.Debian telvane_changelog)
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    string(TOUPPER ${component} upper)
    install(FILES ${CMAKE_BINARY_DIR}/debian/copyright ${telvane_changelog}
            DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME} COMPONENT ${component})
endforeach()

include(CPack)
