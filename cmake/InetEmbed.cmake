# Files as a part of a program: inet_embed(TARGET FOLDER FILE...) adds a source to TARGET that defines
# camera::page_files, declared in page.h, with each file's name, bytes and a tag that changes with them.
function(inet_embed target folder)
    set(out ${CMAKE_CURRENT_BINARY_DIR}/${target}_files.cpp)
    list(TRANSFORM ARGN PREPEND ${folder}/ OUTPUT_VARIABLE files)
    add_custom_command(OUTPUT ${out} DEPENDS ${files} ${PROJECT_SOURCE_DIR}/cmake/embed.cmake
        COMMAND ${CMAKE_COMMAND} -D OUT=${out} -D FOLDER=${folder} "-D FILES=${ARGN}"
            -P ${PROJECT_SOURCE_DIR}/cmake/embed.cmake VERBATIM)
    target_sources(${target} PRIVATE ${out})
    target_include_directories(${target} PRIVATE ${folder}/..)
endfunction()
