# The floors in two libraries, each static and shared, and what an installed tree needs to be found: inet::inet and
# inet::media (shared), inet::inet_static and inet::media_static, a CMake package and pkg-config files.
include(CMakePackageConfigHelpers)

# inet_collect_floors(FLOORS PREFIX): sets PREFIX_static and PREFIX_shared to the objects of the floors, PREFIX_headers to
# their folders of headers.
function(inet_collect_floors floors prefix)
    foreach(floor IN LISTS floors)
        list(APPEND static $<TARGET_OBJECTS:inet_floor_${floor}>)
        if(TARGET inet_floor_${floor}_shared)
            list(APPEND shared $<TARGET_OBJECTS:inet_floor_${floor}_shared>)
        else()
            list(APPEND shared $<TARGET_OBJECTS:inet_floor_${floor}>)
        endif()
        inet_header_folders(${floor} folders)
        list(APPEND headers ${folders})
    endforeach()
    set(${prefix}_static ${static} PARENT_SCOPE)
    set(${prefix}_shared ${shared} PARENT_SCOPE)
    set(${prefix}_headers ${headers} PARENT_SCOPE)
endfunction()

# inet_add_library(TARGET EXPORTED-AS FILE KIND HEADERS OBJECTS...)
function(inet_add_library target exported file kind headers)
    add_library(${target} ${kind} ${ARGN})
    add_library(inet::${exported} ALIAS ${target})
    set_target_properties(${target} PROPERTIES OUTPUT_NAME ${file} EXPORT_NAME ${exported} VERSION ${PROJECT_VERSION}
        SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
    target_compile_features(${target} PUBLIC cxx_std_20)
    list(TRANSFORM headers REPLACE "(.+)" "$<BUILD_INTERFACE:\\1>")
    target_include_directories(${target} PUBLIC ${headers} $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
    target_link_libraries(${target} PRIVATE $<BUILD_INTERFACE:inet_compile_options> Threads::Threads
        ${INET_SYSTEM_LIBRARIES})
    if(MSVC AND kind STREQUAL STATIC)
        set_target_properties(${target} PROPERTIES OUTPUT_NAME ${file}_static)  # not the name of the DLL's .lib
    elseif(WIN32 AND kind STREQUAL SHARED)
        set_target_properties(${target} PROPERTIES PREFIX "")  # inet.dll, with libinet.dll.a or inet.lib to link it by
    elseif(kind STREQUAL SHARED)
        # What the standard library instantiates stays inside as well: only what is marked leaves the shared library.
        target_link_options(${target} PRIVATE -Wl,--version-script=${PROJECT_SOURCE_DIR}/cmake/exports.map)
        set_target_properties(${target} PROPERTIES LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/exports.map)
        # With clang, the sanitizers' runtime is in the program alone.
        if(NOT INET_SANITIZE)
            target_link_options(${target} PRIVATE -Wl,--no-undefined)
        endif()
    endif()
endfunction()

get_property(floors GLOBAL PROPERTY INET_FLOORS)
inet_collect_floors("${floors}" inet)
inet_add_library(inet inet inet SHARED "${inet_headers}" ${inet_shared})
inet_add_library(inet_static inet_static inet STATIC "${inet_headers}" ${inet_static})
get_property(floors GLOBAL PROPERTY MEDIA_FLOORS)
inet_collect_floors("${floors}" media)
inet_add_library(inet_media media inet-media SHARED "${media_headers}" ${media_shared})
inet_add_library(inet_media_static media_static inet-media STATIC "${media_headers}" ${media_static})
target_link_libraries(inet_media PUBLIC inet)
target_link_libraries(inet_media_static PUBLIC inet_static)
if(WIN32)
    target_compile_definitions(inet INTERFACE INET_SHARED)
    target_compile_definitions(inet_media INTERFACE MEDIA_SHARED)
endif()

install(TARGETS inet inet_static inet_media inet_media_static EXPORT inet-targets
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
foreach(folder IN LISTS inet_headers media_headers)
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
    foreach(name inet inet-media)
        configure_file(cmake/${name}.pc.in ${PROJECT_BINARY_DIR}/${name}.pc @ONLY)
        install(FILES ${PROJECT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
    endforeach()
endif()

# inet_add_module(NAME SOURCE...): a module of graphs, which core_dll_open() finds by its name in the folder inet-modules
# beside the library. The target is inet_module_NAME.
function(inet_add_module name)
    set(target inet_module_${name})
    add_library(${target} MODULE ${ARGN})
    target_link_libraries(${target} PRIVATE inet_compile_options inet)
    set_target_properties(${target} PROPERTIES OUTPUT_NAME ${name} INSTALL_RPATH "$ORIGIN/.."
        LIBRARY_OUTPUT_DIRECTORY $<TARGET_FILE_DIR:inet>/inet-modules)
    if(WIN32)
        set_target_properties(${target} PROPERTIES PREFIX "")
    endif()
endfunction()
