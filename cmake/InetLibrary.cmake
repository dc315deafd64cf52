# The floors in one library, static and shared, and what an installed tree needs to be found: inet::inet (shared),
# inet::inet_static, a CMake package and a pkg-config file.
include(CMakePackageConfigHelpers)

get_property(floors GLOBAL PROPERTY INET_FLOORS)
foreach(floor IN LISTS floors)
    list(APPEND static_objects $<TARGET_OBJECTS:inet_floor_${floor}>)
    if(TARGET inet_floor_${floor}_shared)
        list(APPEND shared_objects $<TARGET_OBJECTS:inet_floor_${floor}_shared>)
    else()
        list(APPEND shared_objects $<TARGET_OBJECTS:inet_floor_${floor}>)
    endif()
    inet_header_folders(${floor} folders)
    list(APPEND include_dirs ${folders})
endforeach()
list(TRANSFORM include_dirs REPLACE "(.+)" "$<BUILD_INTERFACE:\\1>" OUTPUT_VARIABLE build_include_dirs)

function(inet_add_library target kind)
    add_library(${target} ${kind} ${ARGN})
    add_library(inet::${target} ALIAS ${target})
    set_target_properties(${target} PROPERTIES OUTPUT_NAME inet VERSION ${PROJECT_VERSION}
        SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
    target_compile_features(${target} PUBLIC cxx_std_20)
    target_include_directories(${target} PUBLIC ${build_include_dirs} $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
    target_link_libraries(${target} PRIVATE $<BUILD_INTERFACE:inet_compile_options> Threads::Threads
        ${INET_SYSTEM_LIBRARIES})
endfunction()

inet_add_library(inet SHARED ${shared_objects})
inet_add_library(inet_static STATIC ${static_objects})
if(WIN32)
    set_target_properties(inet PROPERTIES PREFIX "")  # inet.dll, with libinet.dll.a or inet.lib to link it by
    target_compile_definitions(inet INTERFACE INET_SHARED)
    if(MSVC)
        set_target_properties(inet_static PROPERTIES OUTPUT_NAME inet_static)  # not the name of the DLL's inet.lib
    endif()
else()
    # What the standard library instantiates stays inside as well: only what is marked INET_API leaves the shared library.
    target_link_options(inet PRIVATE -Wl,--version-script=${PROJECT_SOURCE_DIR}/cmake/exports.map)
    set_target_properties(inet PROPERTIES LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/exports.map)
endif()
# With clang, the sanitizers' runtime is in the program alone.
if(NOT WIN32 AND NOT INET_SANITIZE)
    target_link_options(inet PRIVATE -Wl,--no-undefined)
endif()

install(TARGETS inet inet_static EXPORT inet-targets
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
foreach(folder IN LISTS include_dirs)
    install(DIRECTORY ${folder}/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
endforeach()

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/inet)
install(EXPORT inet-targets NAMESPACE inet:: DESTINATION ${package_dir})
configure_package_config_file(cmake/inet-config.cmake.in ${PROJECT_BINARY_DIR}/inet-config.cmake
    INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/inet-config-version.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/inet-config.cmake ${PROJECT_BINARY_DIR}/inet-config-version.cmake
    DESTINATION ${package_dir})
if(NOT WIN32)
    file(RELATIVE_PATH prefix_from_pc /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
    configure_file(cmake/inet.pc.in ${PROJECT_BINARY_DIR}/inet.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/inet.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endif()
