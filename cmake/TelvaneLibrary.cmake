# A library of Telvane's, its sources compiled once:
# - OBJECTS, the object library of SOURCES, with its export header (BASE_NAME, written to
#   include/Telvane/EXPORT_HEADER) and the build tree's include directories;
# - TARGET, the shared library of those objects, exporting only the API: Telvane::EXPORT_NAME, file name
#   OUTPUT_NAME, versioned by the project;
# - INTERNAL, a static library of the same objects that reaches every internal header, for the tests, the
#   fuzzers and the benchmarks.
# Each caller adds the libraries the three link.
function(telvane_add_library target)
    cmake_parse_arguments(PARSE_ARGV 1 arg "" "OBJECTS;INTERNAL;BASE_NAME;EXPORT_HEADER;OUTPUT_NAME;EXPORT_NAME"
                          "SOURCES")
    set(build_includes $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}> $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/include>)

    add_library(${arg_OBJECTS} OBJECT ${arg_SOURCES})
    generate_export_header(${arg_OBJECTS}
        BASE_NAME ${arg_BASE_NAME}
        EXPORT_FILE_NAME ${PROJECT_BINARY_DIR}/include/Telvane/${arg_EXPORT_HEADER})
    target_compile_definitions(${arg_OBJECTS} PRIVATE ${arg_OBJECTS}_EXPORTS)
    target_include_directories(${arg_OBJECTS} PUBLIC ${build_includes})

    add_library(${target} SHARED $<TARGET_OBJECTS:${arg_OBJECTS}>)
    add_library(Telvane::${arg_EXPORT_NAME} ALIAS ${target})
    set_target_properties(${target} PROPERTIES
        OUTPUT_NAME ${arg_OUTPUT_NAME}
        VERSION ${PROJECT_VERSION}
        SOVERSION ${PROJECT_VERSION_MAJOR}
        EXPORT_NAME ${arg_EXPORT_NAME})
    target_include_directories(${target} PUBLIC ${build_includes} $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)

    add_library(${arg_INTERNAL} STATIC $<TARGET_OBJECTS:${arg_OBJECTS}>)
    target_include_directories(${arg_INTERNAL} PUBLIC
        ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/Telvane ${CMAKE_CURRENT_SOURCE_DIR} ${PROJECT_BINARY_DIR}/include)
    target_compile_definitions(${arg_INTERNAL} PUBLIC ${arg_BASE_NAME}_STATIC_DEFINE)
endfunction()
