# The shared libraries export exactly their public API. Sanitizer builds add symbols of their own, so the
# check runs in the plain build only.
if(TELVANE_SANITIZE STREQUAL "")
    add_test(NAME ExportedSymbols.core
        COMMAND ${PROJECT_SOURCE_DIR}/scripts/check-symbols $<TARGET_FILE:Telvane>
                ${PROJECT_SOURCE_DIR}/Telvane/libtelvane.symbols)
    if(TARGET TelvaneWidgets)
        add_test(NAME ExportedSymbols.widgets
            COMMAND ${PROJECT_SOURCE_DIR}/scripts/check-symbols $<TARGET_FILE:TelvaneWidgets>
                    ${PROJECT_SOURCE_DIR}/Telvane/libtelvane-widgets.symbols)
    endif()
endif()
