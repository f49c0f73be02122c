# End-to-end suites against a real OpenSSH sshd, and the harness itself, which other suites and the
# benchmarks reuse. The harness has no gtest in it, so benchmarks can link it alone.
add_library(telvane_sshd_harness STATIC support/SshdHarness.cpp)
target_include_directories(telvane_sshd_harness PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
# Every program that uses the harness gets a HOME of its own (and so a known_hosts of its own).
target_sources(telvane_sshd_harness INTERFACE ${CMAKE_CURRENT_SOURCE_DIR}/support/PrivateHome.cpp)
target_link_libraries(telvane_test_support PUBLIC telvane_sshd_harness)

add_executable(telvane_integration_tests
    integration/WholeRunTest.cpp integration/CredentialsTest.cpp integration/FailureTest.cpp
    integration/StopTest.cpp integration/TrustTest.cpp)
target_link_libraries(telvane_integration_tests PRIVATE telvane_test_support GTest::gtest_main)
# The example host is built in examples/; the test runs that very binary.
target_compile_definitions(telvane_integration_tests PRIVATE TELVANE_MINIMAL_HOST="$<TARGET_FILE:minimal-host>")
add_dependencies(telvane_integration_tests minimal-host)
telvane_discover(telvane_integration_tests TIMEOUT 300)
