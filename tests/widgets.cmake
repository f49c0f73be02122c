# Widget tests: Qt Test on the offscreen platform with real widgets. A QSKIP counts as skipped in ctest;
# under CI=true the tests turn a skip into a failure themselves.
if(NOT TELVANE_BUILD_WIDGETS)
    return()
endif()
find_package(Qt6 REQUIRED COMPONENTS Test)

function(telvane_widget_test name)
    add_executable(${name} ${ARGN})
    set_target_properties(${name} PROPERTIES AUTOMOC ON)
    target_link_libraries(${name} PRIVATE telvane_widgets_internal Qt6::Test)
    target_include_directories(${name} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
    add_test(NAME ${name} COMMAND ${name})
    set_tests_properties(${name} PROPERTIES
        ENVIRONMENT "QT_QPA_PLATFORM=offscreen"
        SKIP_REGULAR_EXPRESSION "SKIP   :"
        TIMEOUT 120)
endfunction()

telvane_widget_test(telvane_credentials_prompt_test widgets/CredentialsPromptTest.cpp)
telvane_widget_test(telvane_prompt_lifecycle_test widgets/PromptLifecycleTest.cpp)

# Not a test: renders the widgets for the README (scripts/screenshots).
add_executable(telvane_widgets_screenshot widgets/ScreenshotTool.cpp)
target_link_libraries(telvane_widgets_screenshot PRIVATE telvane_widgets_internal)

# The sensor runner against the loopback sshd (the harness is built by integration.cmake), and the README's
# example of it run as a program.
telvane_widget_test(telvane_sensor_runner_test widgets/SensorRunnerTest.cpp support/Process.cpp)
target_link_libraries(telvane_sensor_runner_test PRIVATE telvane_sshd_harness)
set_tests_properties(telvane_sensor_runner_test PROPERTIES
    ENVIRONMENT "QT_QPA_PLATFORM=offscreen;TELVANE_KEYRING=memory" TIMEOUT 300)
# examples/ comes after tests/, and builds qt-face whenever the widgets are built.
target_compile_definitions(telvane_sensor_runner_test PRIVATE TELVANE_QT_FACE="$<TARGET_FILE:qt-face>")
add_dependencies(telvane_sensor_runner_test qt-face)
