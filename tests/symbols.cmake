# The shared libraries export exactly their public API. Sanitizer builds add symbols of their own, so the
# check runs in the plain build only.
if(TELVANE_SANITIZE STREQUAL "")
    add_test(NAME ExportedSymbols.core
        COMMAND ${PROJECT_SOURCE_DIR}/scripts/check-symbols $<TARGET_FILE:Telvane>
                ${PROJECT_SOURCE_DIR}/Telvane/libtelvane.symbols)
    if(TARGET TelvaneWidgets)
        add_test(NAME ExportedSymbols.widgets
            COMMAND ${PROJECT_SOURCE_DIR}/scripts/check-symbols $<TARGET_FILE:TelvaneWidgets>
                    ${PROJECT_SOURCE_DIR}/Telvane/Widgets/libtelvane-widgets.symbols)
    endif()
endif()

# The SSH engine is libssh; libssh2 must not come back through any dependency.
add_test(NAME LinkedLibraries.core
    COMMAND sh -c "ldd \"$1\" | grep -q 'libssh\\.so\\.4' && ! ldd \"$1\" | grep -q libssh2" sh $<TARGET_FILE:Telvane>)
