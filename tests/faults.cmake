# The library against telvane-faultd (tests/faultd.cmake): each fault the server can put on a connection,
# with the outcome the sensor's owner must see and nothing left behind. Built even without libssh, when the
# server is missing, so that the cases report themselves skipped (and fail under CI) instead of vanishing.
add_executable(telvane_fault_tests
    faults/FaultOutcomeTest.cpp
    faults/FaultStopTest.cpp)
target_link_libraries(telvane_fault_tests PRIVATE telvane_test_support GTest::gtest_main)
telvane_discover(telvane_fault_tests TIMEOUT 120)
