# How every target of the tree is compiled: C++20 without extensions, hidden symbols, warnings, sanitizers.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set_property(GLOBAL PROPERTY USE_FOLDERS ON)

if(NOT CMAKE_BUILD_TYPE)
    set(CMAKE_BUILD_TYPE Release CACHE STRING "Build type" FORCE)
endif()

find_program(CCACHE ccache)
if(CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE})
endif()

find_package(Threads REQUIRED)

# Generators may name sources from the build folder.
file(RELATIVE_PATH source_from_binary ${PROJECT_BINARY_DIR} ${PROJECT_SOURCE_DIR}/)

# Options of our own targets; what embeds the tree with add_subdirectory keeps its own.
add_library(inet_compile_options INTERFACE)
if(MSVC)
    # Sources are UTF-8; attributes that only other compilers know are passed over.
    target_compile_options(inet_compile_options INTERFACE /W4 /permissive- /utf-8 /Zc:__cplusplus /Zc:preprocessor /wd5030
        $<$<BOOL:${INET_WERROR}>:/WX>)
else()
    target_compile_options(inet_compile_options INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion
        $<$<BOOL:${INET_WERROR}>:-Werror>
        # Allocations are named after __FILE__: the path within the tree, wherever it is checked out and built.
        -ffile-prefix-map=${PROJECT_SOURCE_DIR}/= -fmacro-prefix-map=${source_from_binary}=)
endif()
if(WIN32)
    # Windows 10 and later, wide calls, none of the macros that get into the way, room for 512 sockets in a select(),
    # printf() as C has it.
    target_compile_definitions(inet_compile_options INTERFACE _WIN32_WINNT=0x0A00 UNICODE _UNICODE NOMINMAX
        WIN32_LEAN_AND_MEAN FD_SETSIZE=512 __USE_MINGW_ANSI_STDIO=1 _CRT_SECURE_NO_WARNINGS)
    set(INET_SYSTEM_LIBRARIES ws2_32 iphlpapi)
else()
    set(INET_SYSTEM_LIBRARIES ${CMAKE_DL_LIBS})
endif()
if(INET_SANITIZE)
    target_compile_options(inet_compile_options INTERFACE
        -fsanitize=${INET_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    target_link_options(inet_compile_options INTERFACE -fsanitize=${INET_SANITIZE})
endif()
if(INET_FUZZ)
    # Coverage that leads the fuzzer.
    target_compile_options(inet_compile_options INTERFACE -fsanitize=fuzzer-no-link)
endif()
target_link_libraries(inet_compile_options INTERFACE Threads::Threads ${INET_SYSTEM_LIBRARIES})
