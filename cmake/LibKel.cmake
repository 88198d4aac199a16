# libkel, the shared library: the layers up to rpc in one file, from the same objects that the tests link. Only what
# KEL_API marks leaves it. Others find it with find_package(kel), target kel::kel, or with pkg-config.

include(CMakePackageConfigHelpers)

# The public headers as they are installed: in one folder, <kel/...>, where they include one another by their names, so
# that the order of src/ is nobody's business. What is built here against kel::kel sees that folder too, and no more.
file(STRINGS ${PROJECT_SOURCE_DIR}/cmake/public-headers.txt KEL_PUBLIC_HEADERS)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/public-headers.txt)
set(KEL_INCLUDE ${PROJECT_BINARY_DIR}/include)
foreach(header IN LISTS KEL_PUBLIC_HEADERS)
    set(source ${PROJECT_SOURCE_DIR}/src/${header})
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${source})
    get_filename_component(name ${header} NAME)
    file(READ ${source} text)
    string(REGEX REPLACE "#include \"[^\"]*/" "#include \"" text "${text}")
    file(CONFIGURE OUTPUT ${KEL_INCLUDE}/kel/${name} CONTENT "${text}" @ONLY)
    install(FILES ${KEL_INCLUDE}/kel/${name} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kel COMPONENT libkel)
endforeach()

# Where some of them were at first. To be dropped with version 2, and with them the second folder in INSTALL_INTERFACE
# and in kel.pc.in.
foreach(header
        foundation/Export.h foundation/Locks.h foundation/Log.h foundation/StdString.h foundation/Thread.h
        foundation/ThreadSafety.h rpc/KelDelegate.h rpc/KelDirectoryFinder.h rpc/KelException.h rpc/KelSatellite.h
        rpc/VUtil.h rpc/Variant.h)
    get_filename_component(folder ${header} DIRECTORY)
    get_filename_component(name ${header} NAME)
    file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/libkel/${header} CONTENT "#include \"../${name}\"\n")
    install(FILES ${PROJECT_BINARY_DIR}/libkel/${header}
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kel/${folder} COMPONENT libkel)
endforeach()

add_library(kel SHARED
    $<TARGET_OBJECTS:kel_platform>
    $<TARGET_OBJECTS:kel_foundation>
    $<TARGET_OBJECTS:kel_rpc>)
add_library(kel::kel ALIAS kel)
set_target_properties(kel PROPERTIES
    LINKER_LANGUAGE CXX
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR})
target_link_libraries(kel
    PRIVATE Boost::filesystem Boost::system PkgConfig::plist PkgConfig::nlroute
    INTERFACE Boost::headers Threads::Threads)
target_link_options(kel PRIVATE
    LINKER:--version-script=${PROJECT_SOURCE_DIR}/cmake/libkel.map LINKER:--as-needed)
if(NOT KEL_SANITIZERS)  # a sanitizer's symbols come from the program
    target_link_options(kel PRIVATE LINKER:--no-undefined)
endif()
set_property(TARGET kel APPEND PROPERTY LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/libkel.map)
target_include_directories(kel INTERFACE
    $<BUILD_INTERFACE:${KEL_INCLUDE}>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/kel>)
target_compile_features(kel INTERFACE cxx_std_17)
kel_symbols_apart(kel)

install(TARGETS kel EXPORT kelTargets LIBRARY
    DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT libkel NAMELINK_COMPONENT libkel)

set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/kel)
install(EXPORT kelTargets NAMESPACE kel:: DESTINATION ${package_folder} COMPONENT libkel)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/kelConfig.cmake.in
    ${PROJECT_BINARY_DIR}/libkel/kelConfig.cmake INSTALL_DESTINATION ${package_folder})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/libkel/kelConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/libkel/kelConfig.cmake ${PROJECT_BINARY_DIR}/libkel/kelConfigVersion.cmake
    DESTINATION ${package_folder} COMPONENT libkel)

file(RELATIVE_PATH prefix_from_pkgconfig /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(${PROJECT_SOURCE_DIR}/cmake/kel.pc.in ${PROJECT_BINARY_DIR}/libkel/kel.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/libkel/kel.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT libkel)
