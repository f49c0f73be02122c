# telvane-faultd, the fault-injecting SSH server of the tests (never installed), its harness in the test
# support library, and the smoke tests of the server itself.
pkg_check_modules(LIBSSH IMPORTED_TARGET libssh)

target_sources(telvane_test_support PRIVATE support/FaultServer.cpp)

if(NOT LIBSSH_FOUND)
    message(STATUS "libssh not found: telvane-faultd is not built, and the tests that need it skip")
    return()
endif()

add_executable(telvane-faultd
    support/faultd/main.cpp
    support/faultd/Options.cpp
    support/faultd/Fault.cpp
    support/faultd/Server.cpp
    support/faultd/Connection.cpp
    support/faultd/ExecRelay.cpp
    support/faultd/ShellCommand.cpp
    support/faultd/TcpFaults.cpp)
target_link_libraries(telvane-faultd PRIVATE PkgConfig::LIBSSH)

target_compile_definitions(telvane_test_support PRIVATE TELVANE_FAULTD_PATH="$<TARGET_FILE:telvane-faultd>")
add_dependencies(telvane_test_support telvane-faultd)

add_executable(telvane_faultd_tests faultd/FaultdTest.cpp)
target_link_libraries(telvane_faultd_tests PRIVATE telvane_test_support GTest::gtest_main)
telvane_discover(telvane_faultd_tests)
