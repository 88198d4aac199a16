# Run by kel_symbols_apart (Symbols.cmake) on a FILE that has just been linked, and that dumps know as MODULE.

get_filename_component(folder ${FILE} DIRECTORY)
get_filename_component(name ${FILE} NAME)
set(debug ${folder}/.debug/${name}.debug)

# First the symbols, while the file still has its debugging information.
if(EXISTS ${TOOLS}/dump_syms)
    file(REMOVE_RECURSE ${SYMBOLS}/${MODULE})  # those of earlier links
    execute_process(
        COMMAND ${CMAKE_COMMAND} -E env KEL_BREAKPAD_TOOLS=${TOOLS}
            ${CMAKE_CURRENT_LIST_DIR}/../scripts/symbols ${SYMBOLS} ${FILE}
        COMMAND_ERROR_IS_FATAL ANY)
endif()

file(MAKE_DIRECTORY ${folder}/.debug)
foreach(arguments
        "--only-keep-debug;${FILE};${debug}"
        "--strip-debug;--add-gnu-debuglink=${debug};${FILE}")
    execute_process(COMMAND ${CMAKE_OBJCOPY} ${arguments} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
