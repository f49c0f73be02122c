# The library against telvane-faultd (tests/faultd.cmake). Built without libssh too, so that the cases report
# themselves skipped (and fail under CI) instead of vanishing.
add_executable(telvane_fault_tests faults/FaultTest.cpp)
target_link_libraries(telvane_fault_tests PRIVATE telvane_test_support GTest::gtest_main)
telvane_discover(telvane_fault_tests TIMEOUT 120)
