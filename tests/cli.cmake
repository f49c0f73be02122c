# End-to-end tests of the built `telvane` binary against the loopback sshd.
if(TARGET telvane)
    add_executable(telvane_cli_tests cli/CliTest.cpp)
    target_link_libraries(telvane_cli_tests PRIVATE telvane_test_support GTest::gtest_main)
    target_compile_definitions(telvane_cli_tests PRIVATE TELVANE_CLI_PATH="$<TARGET_FILE:telvane>")
    add_dependencies(telvane_cli_tests telvane)
    telvane_discover(telvane_cli_tests)
endif()
