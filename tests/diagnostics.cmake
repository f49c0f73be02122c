# The diagnostics panel: Qt Test on the offscreen platform, whole runs against the loopback sshd. A QSKIP
# counts as skipped in ctest; under CI=true the test turns a missing sshd into a failure itself.
if(NOT TELVANE_BUILD_WIDGETS)
    return()
endif()
find_package(Qt6 REQUIRED COMPONENTS Test)

add_executable(telvane_diagnostics_view_test diagnostics/DiagnosticsViewTest.cpp)
set_target_properties(telvane_diagnostics_view_test PROPERTIES AUTOMOC ON)
# The sshd harness is built by integration.cmake; it has no gtest in it.
target_link_libraries(telvane_diagnostics_view_test PRIVATE telvane_widgets_internal telvane_sshd_harness Qt6::Test)
target_include_directories(telvane_diagnostics_view_test PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
if(TARGET telvane-diagnostics)
    # The desktop host's cases run that very binary.
    target_compile_definitions(telvane_diagnostics_view_test PRIVATE
        TELVANE_DIAGNOSTICS_HOST="$<TARGET_FILE:telvane-diagnostics>")
    add_dependencies(telvane_diagnostics_view_test telvane-diagnostics)
endif()
add_test(NAME telvane_diagnostics_view_test COMMAND telvane_diagnostics_view_test)
set_tests_properties(telvane_diagnostics_view_test PROPERTIES
    ENVIRONMENT "QT_QPA_PLATFORM=offscreen;TELVANE_KEYRING=memory"
    SKIP_REGULAR_EXPRESSION "SKIP   :"
    TIMEOUT 300)

# Not a test: renders the panel after a run against sshd for the README (scripts/screenshots).
add_executable(telvane_diagnostics_screenshot diagnostics/DiagnosticsScreenshot.cpp)
target_link_libraries(telvane_diagnostics_screenshot PRIVATE telvane_widgets_internal telvane_sshd_harness)
target_include_directories(telvane_diagnostics_screenshot PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
