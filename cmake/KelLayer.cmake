# One folder of src/ is one layer: a static library kel_<name> that may use the layers listed after USES, and no others.
# Every source compiles with the same warnings and with src/ as the one include root.

set(KEL_WARNINGS -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wcast-qual -Wformat=2)
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    set(KEL_WARNINGS -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wcast-qual -Wformat=2
        -Wthread-safety -Werror=thread-safety)
endif()

if(KEL_SANITIZERS)
    add_compile_options(-fsanitize=${KEL_SANITIZERS} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${KEL_SANITIZERS})
endif()

function(kel_layer name)
    cmake_parse_arguments(LAYER "" "" "SOURCES;USES;LIBRARIES" ${ARGN})
    add_library(kel_${name} STATIC ${LAYER_SOURCES})
    target_include_directories(kel_${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
    target_compile_options(kel_${name} PRIVATE ${KEL_WARNINGS} -fvisibility=hidden -fvisibility-inlines-hidden)
    foreach(lower IN LISTS LAYER_USES)
        target_link_libraries(kel_${name} PUBLIC kel_${lower})
    endforeach()
    target_link_libraries(kel_${name} PUBLIC ${LAYER_LIBRARIES} Threads::Threads)
endfunction()
