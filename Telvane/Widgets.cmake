# Telvane::Widgets: the credentials prompt and the diagnostics panel (Qt 6 Widgets).
set(CMAKE_AUTOMOC ON)
set(CMAKE_AUTOUIC ON)
set(CMAKE_AUTORCC ON)

add_library(telvane_widgets_objects OBJECT
    TelvaneWidgets.cpp)
generate_export_header(telvane_widgets_objects
    BASE_NAME TELVANE_WIDGETS
    EXPORT_FILE_NAME ${PROJECT_BINARY_DIR}/include/Telvane/TelvaneWidgetsExport.h)
target_compile_definitions(telvane_widgets_objects PRIVATE telvane_widgets_objects_EXPORTS)
target_include_directories(telvane_widgets_objects PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
    $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/include>)
target_link_libraries(telvane_widgets_objects PUBLIC Qt6::Widgets Threads::Threads)

add_library(TelvaneWidgets SHARED $<TARGET_OBJECTS:telvane_widgets_objects>)
add_library(Telvane::Widgets ALIAS TelvaneWidgets)
set_target_properties(TelvaneWidgets PROPERTIES
    OUTPUT_NAME telvane-widgets
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR}
    EXPORT_NAME Widgets)
target_include_directories(TelvaneWidgets PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
    $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/include>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
target_link_libraries(TelvaneWidgets PUBLIC Telvane Qt6::Widgets)

install(TARGETS TelvaneWidgets EXPORT TelvaneTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${PROJECT_BINARY_DIR}/include/Telvane/TelvaneWidgetsExport.h
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/Telvane)
