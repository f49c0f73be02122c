# Read by cpack before it builds the packages (CPACK_PROJECT_CONFIG_FILE). The packages install under /usr,
# and the .pc files inside them name the prefix the build was configured with: the two must agree.
if(NOT CPACK_TELVANE_INSTALL_PREFIX STREQUAL "/usr")
    message(FATAL_ERROR "The Debian packages install under /usr, but this build was configured for "
                        "${CPACK_TELVANE_INSTALL_PREFIX}: configure it with -DCMAKE_INSTALL_PREFIX=/usr")
endif()
