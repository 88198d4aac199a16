# Symbols apart from the programs. After linking, a release build's debugging information goes to .debug/NAME.debug beside
# the file, where gdb finds it by itself, and its function names and lines go to bin/symbols in the form that
# minidump_stackwalk reads. Program and symbols know each other by the build id, which a dump names too.

set(KEL_SYMBOLS ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/symbols)

add_link_options(LINKER:--build-id=sha1)

function(kel_symbols_apart target)
    if(NOT CMAKE_BUILD_TYPE STREQUAL "RelWithDebInfo" OR KEL_SANITIZERS)
        return()
    endif()
    get_target_property(type ${target} TYPE)
    set(module $<TARGET_FILE_NAME:${target}>)
    if(type STREQUAL "SHARED_LIBRARY")
        set(module $<TARGET_SONAME_FILE_NAME:${target}>)
    endif()
    add_custom_command(TARGET ${target} POST_BUILD
        COMMAND ${CMAKE_COMMAND} -DFILE=$<TARGET_FILE:${target}> -DMODULE=${module} -DSYMBOLS=${KEL_SYMBOLS} -DTOOLS=${BREAKPAD_TOOLS}
            -DCMAKE_OBJCOPY=${CMAKE_OBJCOPY} -P ${PROJECT_SOURCE_DIR}/cmake/SplitSymbols.cmake
        VERBATIM)
endfunction()

if(CMAKE_BUILD_TYPE STREQUAL "RelWithDebInfo" AND NOT KEL_SANITIZERS)
    install(DIRECTORY ${KEL_SYMBOLS}/ DESTINATION ${CMAKE_INSTALL_DATADIR}/kel/symbols COMPONENT symbols
        EXCLUDE_FROM_ALL)
    install(DIRECTORY ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/.debug DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT symbols
        EXCLUDE_FROM_ALL)
    install(DIRECTORY ${CMAKE_LIBRARY_OUTPUT_DIRECTORY}/.debug DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT symbols
        EXCLUDE_FROM_ALL)
endif()
