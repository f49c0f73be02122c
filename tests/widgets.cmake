# The prompts: Qt Test on the offscreen platform with real widgets. A QSKIP counts as skipped in ctest; under
# CI=true the tests turn a skip into a failure themselves.
if(NOT TELVANE_BUILD_WIDGETS)
    return()
endif()
find_package(Qt6 REQUIRED COMPONENTS Test)

function(telvane_widget_test name source)
    add_executable(${name} ${source})
    set_target_properties(${name} PROPERTIES AUTOMOC ON)
    target_link_libraries(${name} PRIVATE telvane_widgets_internal Qt6::Test)
    target_include_directories(${name} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
    add_test(NAME ${name} COMMAND ${name})
    set_tests_properties(${name} PROPERTIES
        ENVIRONMENT "QT_QPA_PLATFORM=offscreen" SKIP_REGULAR_EXPRESSION "SKIP   :" TIMEOUT 120)
endfunction()
telvane_widget_test(telvane_credentials_prompt_test widgets/CredentialsPromptTest.cpp)
telvane_widget_test(telvane_prompt_lifecycle_test widgets/PromptLifecycleTest.cpp)

# Not a test: renders the widgets for the README (scripts/screenshots).
add_executable(telvane_widgets_screenshot ${PROJECT_SOURCE_DIR}/docs/ScreenshotTool.cpp)
target_link_libraries(telvane_widgets_screenshot PRIVATE telvane_widgets_internal)
