# Runs after cpack has built the packages (CPACK_POST_BUILD_SCRIPTS) and mends what CPack 3.25 gets wrong
# for Debian, by unpacking a package with dpkg-deb -R and building it anew:
# - CPack gives every package that holds a shared library a postinst and a postrm that only call ldconfig;
#   our library packages activate dpkg's ldconfig trigger instead (their `triggers` control file), so those
#   two scripts are taken out (a script that does more is kept);
# - its -dbgsym packages list absolute build paths in md5sums and carry no copyright: md5sums is written
#   anew, and /usr/share/doc/<package>-dbgsym becomes a link to the documentation of the package whose
#   debug information it holds (and on which it depends), as debhelper does.

function(unpack package tree)
    file(REMOVE_RECURSE ${tree})
    execute_process(COMMAND dpkg-deb -R ${package} ${tree} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

function(repack tree package)
    execute_process(COMMAND dpkg-deb --root-owner-group -b ${tree} ${package} OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
    file(REMOVE_RECURSE ${tree})
endfunction()

# True when SCRIPT holds nothing but CPack's ldconfig call and its shell boilerplate.
function(only_calls_ldconfig script result)
    file(STRINGS ${script} lines)
    set(${result} FALSE PARENT_SCOPE)
    foreach(line IN LISTS lines)
        if(NOT line MATCHES "^(#!/bin/sh|set -e|if \\[ .* \\]; then|[ \t]*ldconfig|fi|[ \t]*)$")
            return()
        endif()
    endforeach()
    set(${result} TRUE PARENT_SCOPE)
endfunction()

function(drop_ldconfig_scripts package)
    set(tree ${package}.tree)
    unpack(${package} ${tree})
    foreach(script postinst postrm)
        if(EXISTS ${tree}/DEBIAN/${script})
            only_calls_ldconfig(${tree}/DEBIAN/${script} redundant)
            if(redundant)
                file(REMOVE ${tree}/DEBIAN/${script})
            endif()
        endif()
    endforeach()
    repack(${tree} ${package})
endfunction()

function(mend_dbgsym package)
    set(tree ${package}.tree)
    unpack(${package} ${tree})
    file(GLOB_RECURSE files LIST_DIRECTORIES false RELATIVE ${tree} ${tree}/usr/*)
    list(SORT files)
    set(sums "")
    foreach(file IN LISTS files)
        file(MD5 ${tree}/${file} sum)
        string(APPEND sums "${sum}  ${file}\n")
    endforeach()
    file(WRITE ${tree}/DEBIAN/md5sums "${sums}")
    file(STRINGS ${tree}/DEBIAN/control name REGEX "^Package: ")
    string(REGEX REPLACE "^Package: (.*)-dbgsym$" "\\1" of "${name}")
    file(MAKE_DIRECTORY ${tree}/usr/share/doc)
    file(CREATE_LINK ${of} ${tree}/usr/share/doc/${of}-dbgsym SYMBOLIC)
    repack(${tree} ${package})
endfunction()

foreach(package IN LISTS CPACK_PACKAGE_FILES)
    execute_process(COMMAND dpkg-deb --info ${package} triggers RESULT_VARIABLE no_triggers OUTPUT_QUIET ERROR_QUIET)
    if(package MATCHES "\\.ddeb$")
        mend_dbgsym(${package})
    elseif(NOT no_triggers)
        drop_ldconfig_scripts(${package})
    endif()
endforeach()
