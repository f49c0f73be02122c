# Where the password must never end up: log lines, files, freed memory; and the file keyring surviving a
# writer killed mid-save. They scan /tmp, so they run alone: another suite's password file would look ours.
add_executable(telvane_hygiene_tests
    hygiene/SecretTraceTest.cpp
    hygiene/KeyringCrashTest.cpp)
target_link_libraries(telvane_hygiene_tests PRIVATE telvane_test_support GTest::gtest_main)
if(TARGET telvane)
    target_compile_definitions(telvane_hygiene_tests PRIVATE TELVANE_CLI_PATH="$<TARGET_FILE:telvane>")
    add_dependencies(telvane_hygiene_tests telvane)
endif()
telvane_discover(telvane_hygiene_tests TIMEOUT 300 RUN_SERIAL TRUE)

# Replaces free() to look into every freed block: a program of its own, and only where no sanitizer owns free().
if(TELVANE_SANITIZE STREQUAL "")
    add_executable(telvane_freed_memory_tests hygiene/FreedMemoryTest.cpp)
    target_link_libraries(telvane_freed_memory_tests PRIVATE telvane_test_support GTest::gtest_main)
    telvane_discover(telvane_freed_memory_tests TIMEOUT 300 RUN_SERIAL TRUE)
endif()
