# The Secret Service keyring against a real gnome-keyring-daemon on a private session bus.
add_executable(telvane_keyring_tests
    keyring/SecretServiceKeychainTest.cpp
    support/KeyringDaemon.cpp)
target_link_libraries(telvane_keyring_tests PRIVATE telvane_test_support PkgConfig::LIBSECRET GTest::gtest_main)
# Every case starts and stops its own daemons; two at once are fine, each on its own bus and directory.
telvane_discover(telvane_keyring_tests)
