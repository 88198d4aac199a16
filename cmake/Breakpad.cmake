# Breakpad's Linux client as the target Breakpad::client: an installed one, else the one that scripts/breakpad has built.
# BREAKPAD_TOOLS is the folder of the programs that read dumps and make symbols, which come from there in any case.

set(BREAKPAD_FOLDER ${PROJECT_SOURCE_DIR}/.cache/breakpad CACHE PATH "Where scripts/breakpad has put its results")
set(BREAKPAD_TOOLS ${BREAKPAD_FOLDER}/bin)

pkg_check_modules(breakpad IMPORTED_TARGET breakpad-client)
add_library(Breakpad::client INTERFACE IMPORTED)
if(breakpad_FOUND)
    target_link_libraries(Breakpad::client INTERFACE PkgConfig::breakpad)
elseif(EXISTS ${BREAKPAD_FOLDER}/lib/libbreakpad_client.a)
    target_include_directories(Breakpad::client SYSTEM INTERFACE ${BREAKPAD_FOLDER}/include)
    target_link_libraries(Breakpad::client INTERFACE ${BREAKPAD_FOLDER}/lib/libbreakpad_client.a Threads::Threads)
else()
    message(FATAL_ERROR "Breakpad's client is not there: run scripts/setup once (or scripts/breakpad alone)")
endif()
