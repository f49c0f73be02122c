# Compressed documentation the way Debian wants manual pages and changelogs: gzip -9 without a name or time
# stamp (-n), so a rebuild of the same source gives the same bytes.

# telvane_gzip(FILE OUTPUT_VARIABLE): compresses FILE at build time; sets OUTPUT_VARIABLE to FILE.gz's path.
function(telvane_gzip file output_variable)
    get_filename_component(source ${file} ABSOLUTE)
    get_filename_component(name ${file} NAME)
    set(output ${CMAKE_CURRENT_BINARY_DIR}/gz/${name}.gz)
    add_custom_command(OUTPUT ${output}
        COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_CURRENT_BINARY_DIR}/gz
        COMMAND gzip -9n < ${source} > ${output}
        DEPENDS ${source}
        COMMENT "Compressing ${name}")
    string(MAKE_C_IDENTIFIER "gzip_${output}" target)
    add_custom_target(${target} ALL DEPENDS ${output})
    set(${output_variable} ${output} PARENT_SCOPE)
endfunction()

# telvane_install_gzipped(FILE DESTINATION COMPONENT): installs FILE as DESTINATION/FILE.gz.
function(telvane_install_gzipped file destination component)
    telvane_gzip(${file} output)
    install(FILES ${output} DESTINATION ${destination} COMPONENT ${component})
endfunction()
