# Telvane::Widgets: the credentials and host-key prompts, the diagnostics panel and the sensor runner
# (Qt 6 Widgets).
#
# Built like the core: one object library, a shared library exporting the public API, and a static
# "internal" library from the same objects for the tests. To add a widget, add its header to
# TELVANE_WIDGETS_PUBLIC_HEADERS (when public), its sources to TELVANE_WIDGETS_SOURCES and its .ui file
# under Resources/.
set(CMAKE_AUTOMOC ON)
set(CMAKE_AUTOUIC ON)
set(CMAKE_AUTORCC ON)

set(TELVANE_WIDGETS_PUBLIC_HEADERS
    TelvaneCredentialsAccessoryView.h
    TelvaneCredentialsPrompt.h
    TelvaneHostKeyPrompt.h
    TelvaneDiagnosticsView.h
    TelvaneSensorRunner.h)

set(TELVANE_WIDGETS_SOURCES
    TelvaneCredentialsAccessoryView.cpp
    TelvaneCredentialsPrompt.cpp
    TelvaneHostKeyPrompt.cpp
    PromptRelay.cpp
    TelvaneWidgetsTranslations.cpp
    TelvaneDiagnosticsView.cpp
    TelvaneSensorRunner.cpp
    BackgroundThreads.cpp
    TranscriptFormat.cpp
    Resources/TelvaneCredentialsAccessoryView.ui
    Resources/TelvaneHostKeyPrompt.ui
    Resources/TelvaneDiagnosticsView.ui)

set(TELVANE_WIDGETS_TRANSLATIONS
    Resources/translations/Localizable_de.ts)

add_library(telvane_widgets_objects OBJECT ${TELVANE_WIDGETS_PUBLIC_HEADERS} ${TELVANE_WIDGETS_SOURCES})
set_target_properties(telvane_widgets_objects PROPERTIES
    AUTOUIC_SEARCH_PATHS ${CMAKE_CURRENT_SOURCE_DIR}/Resources)
generate_export_header(telvane_widgets_objects
    BASE_NAME TELVANE_WIDGETS
    EXPORT_FILE_NAME ${PROJECT_BINARY_DIR}/include/Telvane/TelvaneWidgetsExport.h)
target_compile_definitions(telvane_widgets_objects PRIVATE telvane_widgets_objects_EXPORTS)
target_include_directories(telvane_widgets_objects PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
    $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/include>)
# The core's headers only; its symbols come from whichever core library the final target links.
target_include_directories(telvane_widgets_objects PRIVATE $<TARGET_PROPERTY:Telvane,INTERFACE_INCLUDE_DIRECTORIES>)
target_link_libraries(telvane_widgets_objects PUBLIC Qt6::Widgets Threads::Threads)

# The .qm files are compiled from the .ts sources at build time and embedded under
# :/telvane/translations; TelvaneWidgetsTranslations.cpp initialises the resource by the name given here.
qt_add_lrelease(telvane_widgets_objects
    TS_FILES ${TELVANE_WIDGETS_TRANSLATIONS}
    QM_FILES_OUTPUT_VARIABLE telvane_widgets_qm_files
    NO_GLOBAL_TARGET)
qt_add_resources(telvane_widgets_objects telvane_translations
    PREFIX /telvane/translations
    BASE ${CMAKE_CURRENT_BINARY_DIR}
    FILES ${telvane_widgets_qm_files})

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

# Everything of the widgets, internals included, for the tests and the screenshot tool.
add_library(telvane_widgets_internal STATIC $<TARGET_OBJECTS:telvane_widgets_objects>)
target_include_directories(telvane_widgets_internal PUBLIC
    ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/Telvane ${PROJECT_BINARY_DIR}/include)
target_compile_definitions(telvane_widgets_internal PUBLIC TELVANE_WIDGETS_STATIC_DEFINE)
target_link_libraries(telvane_widgets_internal PUBLIC telvane_internal Qt6::Widgets)

# Installed apart from the core (components widgets and widgets_dev, packages of their own), so that the
# core and the command-line tool install without Qt.
install(TARGETS TelvaneWidgets EXPORT TelvaneWidgetsTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT widgets NAMELINK_COMPONENT widgets_dev
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT widgets_dev
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT widgets)
install(FILES ${TELVANE_WIDGETS_PUBLIC_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/Telvane
    COMPONENT widgets_dev)
install(FILES ${PROJECT_BINARY_DIR}/include/Telvane/TelvaneWidgetsExport.h
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/Telvane COMPONENT widgets_dev)
