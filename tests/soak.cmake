# Long and wide runs against the loopback sshd; TELVANE_SOAK_RUNS sets the length of the soak.
add_executable(telvane_soak_tests soak/SoakTest.cpp)
target_link_libraries(telvane_soak_tests PRIVATE telvane_test_support GTest::gtest_main)
# Each case loads both cores on its own: run them alone, so their timings and samples mean something.
telvane_discover(telvane_soak_tests TIMEOUT 600 RUN_SERIAL TRUE)
