# Debian packages, one per component: `cpack -G DEB` in a build configured with CMAKE_INSTALL_PREFIX=/usr
# (scripts/package does that).
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME telvane)
set(CPACK_PACKAGE_VENDOR "Telvane developers")
set(CPACK_PACKAGE_CONTACT "Telvane developers <telvane@localhost>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEB_COMPONENT_INSTALL ON)
# Packages of components that depend on "runtime" depend on libtelvane of exactly this version.
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Our own libraries are found in the packages being built, not among the installed ones.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    ${CMAKE_BINARY_DIR}/Telvane ${CMAKE_BINARY_DIR})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)

set(CPACK_COMPONENT_RUNTIME_DISPLAY_NAME "Telvane libraries")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libtelvane)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
    "Use another machine as a sensor over SSH: the core library (sensor, credential store) and the Qt 6 \
Widgets library (credentials prompt, diagnostics panel).")

set(CPACK_COMPONENT_DEV_DISPLAY_NAME "Telvane development files")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libtelvane-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
# The widgets' headers and the CMake package need Qt's development files.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "qt6-base-dev")
set(CPACK_COMPONENT_DEV_DESCRIPTION "Headers, CMake package and pkg-config files of the Telvane libraries.")

set(CPACK_COMPONENT_CLI_DISPLAY_NAME "telvane command-line tool")
set(CPACK_DEBIAN_CLI_PACKAGE_NAME telvane)
set(CPACK_COMPONENT_CLI_DEPENDS runtime)
set(CPACK_COMPONENT_CLI_DESCRIPTION
    "Run a shell script on another machine over SSH and stream its output; with a diagnostics transcript.")

set(CPACK_COMPONENT_DIAGNOSTICS_DISPLAY_NAME "telvane-diagnostics desktop program")
set(CPACK_DEBIAN_DIAGNOSTICS_PACKAGE_NAME telvane-diagnostics)
set(CPACK_COMPONENT_DIAGNOSTICS_DEPENDS runtime)
set(CPACK_COMPONENT_DIAGNOSTICS_DESCRIPTION "A small desktop program that runs a diagnostics script on a sensor host.")

set(CPACK_COMPONENTS_ALL runtime dev cli)
if(TARGET telvane-diagnostics)
    list(APPEND CPACK_COMPONENTS_ALL diagnostics)
endif()

include(CPack)
