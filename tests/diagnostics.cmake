# The diagnostics panel and the sensor runner: Qt Test on the offscreen platform, runs against the loopback
# sshd (its harness is built by integration.cmake), the desktop host and the README's qt-face (from examples/).
if(NOT TELVANE_BUILD_WIDGETS)
    return()
endif()
find_package(Qt6 REQUIRED COMPONENTS Test)

add_executable(telvane_diagnostics_view_test diagnostics/DiagnosticsViewTest.cpp support/Process.cpp)
set_target_properties(telvane_diagnostics_view_test PROPERTIES AUTOMOC ON)
target_link_libraries(telvane_diagnostics_view_test PRIVATE telvane_widgets_internal telvane_sshd_harness Qt6::Test)
target_include_directories(telvane_diagnostics_view_test PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
target_compile_definitions(telvane_diagnostics_view_test PRIVATE TELVANE_QT_FACE="$<TARGET_FILE:qt-face>"
    TELVANE_DIAGNOSTICS_HOST="$<TARGET_FILE:telvane-diagnostics>")
add_dependencies(telvane_diagnostics_view_test qt-face telvane-diagnostics)
add_test(NAME telvane_diagnostics_view_test COMMAND telvane_diagnostics_view_test)
set_tests_properties(telvane_diagnostics_view_test PROPERTIES
    ENVIRONMENT "QT_QPA_PLATFORM=offscreen;TELVANE_KEYRING=memory" SKIP_REGULAR_EXPRESSION "SKIP   :" TIMEOUT 300)
