# telvane-faultd, the fault-injecting SSH server of the tests (never installed), and its harness in the test
# support library. Without libssh the server is missing and the tests that need it skip.
pkg_check_modules(LIBSSH IMPORTED_TARGET libssh)
target_sources(telvane_test_support PRIVATE support/FaultServer.cpp)
if(LIBSSH_FOUND)
    add_executable(telvane-faultd support/faultd/faultd.cpp)
    target_link_libraries(telvane-faultd PRIVATE PkgConfig::LIBSSH)
    # libssh deprecates its message accessors for server callbacks, but a session with callbacks answers every
    # request they leave out by itself, and the server walks the requests in order.
    target_compile_options(telvane-faultd PRIVATE -Wno-deprecated-declarations)
    target_compile_definitions(telvane_test_support PRIVATE TELVANE_FAULTD_PATH="$<TARGET_FILE:telvane-faultd>")
    add_dependencies(telvane_test_support telvane-faultd)
endif()
