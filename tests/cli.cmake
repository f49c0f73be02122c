# End-to-end tests of the built `telvane` binary against the loopback sshd.
if(TARGET telvane)
    find_package(nlohmann_json 3 REQUIRED)
    add_executable(telvane_cli_tests cli/CliTest.cpp cli/FleetTest.cpp)
    target_link_libraries(telvane_cli_tests PRIVATE telvane_test_support GTest::gtest_main
                          nlohmann_json::nlohmann_json util)
    target_compile_definitions(telvane_cli_tests PRIVATE TELVANE_CLI_PATH="$<TARGET_FILE:telvane>")
    add_dependencies(telvane_cli_tests telvane)
    telvane_discover(telvane_cli_tests)
endif()
