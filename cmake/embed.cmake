# Writes OUT, a source with the bytes of FILES.
set(arrays "")
set(table "")
set(count 0)
foreach(file IN LISTS FILES)
    file(READ ${file} bytes HEX)
    file(MD5 ${file} tag)
    cmake_path(GET file FILENAME name)
    string(REGEX REPLACE "(................................)" "\\1\n" bytes "${bytes}")
    string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${bytes}")
    string(APPEND arrays "constexpr uint8_t file_${count}[] = {\n${bytes}};\n")
    string(APPEND table "    {\"${name}\", \"\\\"${tag}\\\"\", file_${count}},\n")
    math(EXPR count "${count} + 1")
endforeach()
file(WRITE ${OUT} "// Made by cmake/embed.cmake.\n#include \"page.h\"\n\nnamespace camera {\nnamespace {\n\n${arrays}\n"
    "constexpr page_file files[] = {\n${table}};\n\n}  // namespace\n\n"
    "const std::span<const page_file> page_files = files;\n\n}  // namespace camera\n")
